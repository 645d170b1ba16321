#include "kept-files.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace mediafiles::recorder {

namespace {

void remove_empty_directories(int directory, std::string_view path)
{
    for (size_t end; (end = path.rfind('/')) != path.npos;) {
        path = path.substr(0, end);
        const recovery::descriptor parent = open_parent(directory, path);
        if (!parent.is_open() || unlinkat(parent, last_part(path).c_str(), AT_REMOVEDIR) != 0) return;
    }
}

enum class removal { done, is_protected, is_gone, failed };

removal remove(int directory, const std::string &path, bool also_protected)
{
    const recovery::descriptor parent = open_parent(directory, path);
    const std::string name = last_part(path);
    struct stat status;
    if (!parent.is_open() || fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? removal::is_gone : removal::failed;
    if (!S_ISREG(status.st_mode)) return removal::is_gone;
    if (!also_protected && !(status.st_mode & recovery::write_permissions)) return removal::is_protected;
    /*
     * FAT and exFAT free the clusters when nobody has the file open any more. By then its name has to be off the medium:
     * a cut would leave it with clusters that are free, or another file's.
     */
    const recovery::descriptor file = recovery::open_at(parent, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    if (unlinkat(parent, name.c_str(), 0) != 0) return removal::failed;
    unlinkat(parent, (name + ".journal").c_str(), 0);
    fsync(parent);
    remove_empty_directories(directory, path);
    return removal::done;
}

} // namespace

recovery::descriptor open_parent(int directory, std::string_view path)
{
    recovery::descriptor at = recovery::open_at(directory, ".", O_RDONLY | O_DIRECTORY);
    size_t begin = 0;
    for (size_t end; at.is_open() && (end = path.find('/', begin)) != path.npos; begin = end + 1)
        at = recovery::open_at(at, std::string(path.substr(begin, end - begin)).c_str(),
                               O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    return at;
}

std::string last_part(std::string_view path)
{
    return std::string(path.substr(path.rfind('/') + 1));
}

void kept_files::add(kept_file file)
{
    kept_file &known = files_[file.number];
    forget(known);
    bytes_ += file.bytes;
    const bool is_protected = std::exchange(file.is_protected, false);
    known = std::move(file);
    if (is_protected) note_protected(known);
}

void kept_files::note_protected(kept_file &file)
{
    if (std::exchange(file.is_protected, true)) return;
    protected_.insert(file.number);
    protected_bytes_ += file.bytes;
}

void kept_files::clear()
{
    files_.clear();
    protected_.clear();
    bytes_ = protected_bytes_ = 0;
}

void kept_files::forget(const kept_file &file)
{
    bytes_ -= file.bytes;
    if (file.is_protected && protected_.erase(file.number) != 0) protected_bytes_ -= file.bytes;
}

int kept_files::protect(int directory, const std::string &name, std::optional<uint64_t> number)
{
    if (const auto known = number ? files_.find(*number) : files_.end(); known != files_.end())
        note_protected(known->second);
    try {
        const recovery::descriptor parent = open_parent(directory, name);
        if (!parent.is_open()) return errno;
        const recovery::descriptor file = recovery::open_regular(parent, last_part(name).c_str(), O_RDONLY);
        return recovery::remove_write_permission(file) == 0 ? 0 : errno;
    } catch (const recovery::obstacle &cause) {
        return cause.error != 0 ? cause.error : EPERM;
    }
}

std::optional<kept_file> kept_files::remove_first(int directory, bool surplus_alone)
{
    for (auto each = files_.begin(); each != files_.end();) {
        kept_file &file = each->second;
        const bool may_go = file.is_protected ? is_surplus(file.number) : !surplus_alone;
        const removal result = may_go ? remove(directory, file.name, file.is_protected) : removal::is_protected;
        if (result == removal::is_protected || result == removal::failed) {
            if (may_go && result == removal::is_protected) note_protected(file); // by somebody else
            ++each;
            continue;
        }
        forget(file);
        kept_file removed = std::move(file);
        each = files_.erase(each);
        if (result == removal::done) return removed;
    }
    return std::nullopt;
}

} // namespace mediafiles::recorder
