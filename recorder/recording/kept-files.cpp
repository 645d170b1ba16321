#include "kept-files.h"

#include <cerrno>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "safe-file.h"

namespace mediafiles::recorder {

namespace {

constexpr mode_t any_write = S_IWUSR | S_IWGRP | S_IWOTH;

/* The directory of a path; no link is followed on the way. */
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

void remove_empty_directories(int directory, std::string_view path)
{
    for (size_t end; (end = path.rfind('/')) != path.npos;) {
        path = path.substr(0, end);
        const recovery::descriptor parent = open_parent(directory, path);
        if (!parent.is_open() || unlinkat(parent, last_part(path).c_str(), AT_REMOVEDIR) != 0) return;
    }
}

enum class removal { done, is_protected, is_gone, failed };

removal remove(int directory, const std::string &path)
{
    const recovery::descriptor parent = open_parent(directory, path);
    const std::string name = last_part(path);
    struct stat status;
    if (!parent.is_open() || fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? removal::is_gone : removal::failed;
    if (!S_ISREG(status.st_mode)) return removal::is_gone;
    if (!(status.st_mode & any_write)) return removal::is_protected;
    if (unlinkat(parent, name.c_str(), 0) != 0) return removal::failed;
    unlinkat(parent, (name + ".journal").c_str(), 0);
    remove_empty_directories(directory, path);
    return removal::done;
}

} // namespace

void kept_files::add(kept_file file)
{
    kept_file &known = files_[file.number];
    bytes_ += file.bytes - known.bytes;
    known = std::move(file);
}

std::optional<kept_file> kept_files::remove_oldest(int directory)
{
    for (auto each = files_.begin(); each != files_.end();) {
        const removal result = remove(directory, each->second.name);
        if (result == removal::is_protected || result == removal::failed) {
            ++each;
            continue;
        }
        kept_file removed = std::move(each->second);
        bytes_ -= removed.bytes;
        each = files_.erase(each);
        if (result == removal::done) return removed;
    }
    return std::nullopt;
}

} // namespace mediafiles::recorder
