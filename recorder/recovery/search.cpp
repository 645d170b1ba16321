#include "search.h"

#include <algorithm>
#include <tuple>

#include <fcntl.h>

namespace mediafiles::recovery {

namespace {

constexpr uint32_t no_parent = UINT32_MAX;
constexpr uint32_t deepest = 8;
constexpr size_t most_names = 1 << 20; // in one directory: what a hostile medium can make this hold
constexpr size_t most_finds = 1 << 20; // and as many directories: what a hostile medium can make this hold

constexpr obstacle too_deep = {MEDIAFILES_NOT_OURS, MEDIAFILES_REASON_NOT_REGULAR, ENAMETOOLONG};
constexpr obstacle other_file_system = {MEDIAFILES_NOT_OURS, MEDIAFILES_REASON_NOT_REGULAR, EXDEV};
constexpr obstacle link_to_directory = {MEDIAFILES_REFUSED, MEDIAFILES_REASON_NOT_REGULAR, ELOOP};

int64_t nanoseconds(const struct timespec &time)
{
    const int64_t seconds = std::clamp<int64_t>(time.tv_sec, -9'000'000'000, 9'000'000'000);
    return seconds * 1'000'000'000 + time.tv_nsec;
}

bool look(int directory, const char *name, struct stat &status)
{
    return fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0;
}

} // namespace

search::search(int flags, problem_report problem, search_step step)
    : flags_(flags), problem_(std::move(problem)), step_(std::move(step)), names_(1, '\0')
{
}

void search::problem(const std::string &path, const obstacle &cause, bool is_error)
{
    if (cause.error == ECANCELED) throw cause;
    if (is_error && error_ == 0) error_ = cause.error;
    problem_(path, cause);
}

uint32_t search::add_name(std::string_view name)
{
    const size_t offset = names_.size();
    if (offset + name.size() >= UINT32_MAX) throw system_failure(EOVERFLOW);
    names_.append(name).push_back('\0');
    return static_cast<uint32_t>(offset);
}

uint32_t search::add_directory(const directory &added)
{
    if (directories_.size() == most_finds) throw system_failure(EOVERFLOW);
    directories_.push_back(added);
    return static_cast<uint32_t>(directories_.size() - 1);
}

void search::add_find(uint32_t index, int descriptor, const std::string &media, const std::string &journal, bool given)
{
    if (finds_.size() == most_finds) throw system_failure(EOVERFLOW);
    struct stat status;
    if (!look(descriptor, (media.empty() ? journal : media).c_str(), status)) {
        if (errno == ENOENT && !given) return; // it went away meanwhile
        throw system_failure();
    }
    finds_.push_back({nanoseconds(status.st_mtim), index, media.empty() ? 0 : add_name(media),
                      journal.empty() ? 0 : add_name(journal), given});
}

void search::add(const char *path)
{
    try {
        struct stat status, target;
        if (!look(AT_FDCWD, path, status)) throw system_failure();
        if (S_ISLNK(status.st_mode) && stat(path, &target) == 0 && S_ISDIR(target.st_mode)) throw link_to_directory;
        if (!S_ISDIR(status.st_mode)) return add_file(path);
        const uint32_t first = add_directory({no_parent, add_name(path), identity_of(status), 0, false});
        for (uint32_t at = first; at < directories_.size(); ++at) search_directory(at);
    } catch (const obstacle &cause) {
        problem(path, cause);
    }
}

listing search::list(int descriptor) const
{
    const auto type_of = [descriptor](const char *name) {
        struct stat status;
        return look(descriptor, name, status) ? status.st_mode & S_IFMT : 0;
    };
    listing listed;
    directory_reader names(descriptor, flags_);
    while (const dirent *entry = names.next()) {
        step_();
        const char *name = entry->d_name;
        if (entry->d_type == DT_DIR || (entry->d_type == DT_UNKNOWN && type_of(name) == S_IFDIR))
            listed.add_directory(name);
        else
            listed.add_file(name);
        if (listed.size() > most_names) throw system_failure(EOVERFLOW);
    }
    listed.complete([&](const char *name) { return type_of(name) == S_IFREG; });
    return listed;
}

void search::search_directory(uint32_t index)
{
    try {
        const descriptor opened = open_directory(index);
        const listing listed = list(opened);
        for (const auto &file : listed.media()) add_find(index, opened, file.name, file.journal, false);
        for (const std::string &journal : listed.orphans()) add_find(index, opened, {}, journal, false);
        const directory above = directories_[index];
        for (const std::string &name : listed.directories()) {
            struct stat status;
            if (!look(opened, name.c_str(), status) || !S_ISDIR(status.st_mode)) continue; // it changed meanwhile
            if (status.st_dev != above.file.device)
                problem(path_of(index, name), other_file_system, false);
            else if (above.depth == deepest)
                problem(path_of(index, name), too_deep, false);
            else
                add_directory({index, add_name(name), identity_of(status), above.depth + 1, false});
        }
    } catch (const obstacle &cause) {
        problem(path_of(index, {}), cause);
    }
}

void search::add_file(std::string_view path)
{
    const size_t begin = path.rfind('/') + 1; // 0 where there is none
    const std::string parent(path.substr(0, begin));
    if (!parent_descriptor_.is_open() || parent != parent_path_) {
        parent_descriptor_ = open_at(AT_FDCWD, begin == 0 ? "." : parent.c_str(), O_RDONLY | O_DIRECTORY | flags_);
        if (!parent_descriptor_.is_open()) throw system_failure();
        const identity file = identity_of(status_of(parent_descriptor_));
        parent_ = add_directory({no_parent, add_name(parent), file, 0, true});
        parent_listing_ = list(parent_descriptor_);
        parent_path_ = parent;
    }
    const std::string name(path.substr(begin));
    if (const listing::media_file *file = parent_listing_.find(name))
        add_find(parent_, parent_descriptor_, file->name, file->journal, true);
    else if (is_journal_name(name))
        add_find(parent_, parent_descriptor_, {}, name, true);
    else
        add_find(parent_, parent_descriptor_, name, {}, true);
}

const std::vector<find> &search::sorted()
{
    const auto file_name = [this](const find &f) { return std::string_view(name(f.media ? f.media : f.journal)); };
    const auto place = [&](const find &f) {
        const identity &at = directories_[f.directory].file;
        return std::tuple(at.device, at.inode, file_name(f));
    };
    /* Of those that two paths lead to, the first one's stays. */
    std::ranges::stable_sort(finds_, {}, place);
    const auto same_place = [&](const find &a, const find &b) { return place(a) == place(b); };
    finds_.erase(std::unique(finds_.begin(), finds_.end(), same_place), finds_.end());
    std::ranges::sort(finds_, {}, [&](const find &f) { return std::tuple(-f.time, f.directory, file_name(f)); });
    return finds_;
}

descriptor search::open_directory(uint32_t index) const
{
    const directory &wanted = directories_[index];
    const int flags = O_RDONLY | O_DIRECTORY | flags_ | (wanted.follow ? 0 : O_NOFOLLOW);
    descriptor opened;
    if (wanted.parent == no_parent)
        opened = open_at(AT_FDCWD, *name(wanted.name) ? name(wanted.name) : ".", flags);
    else
        opened = open_at(open_directory(wanted.parent), name(wanted.name), flags);
    if (!opened.is_open()) throw errno == ELOOP || errno == ENOTDIR ? has_changed() : system_failure();
    if (identity_of(status_of(opened)) != wanted.file) throw has_changed();
    return opened;
}

std::vector<const char *> search::way_to(uint32_t index) const
{
    std::vector<const char *> way;
    for (; directories_[index].parent != no_parent; index = directories_[index].parent)
        way.insert(way.begin(), name(directories_[index].name));
    return way;
}

std::string search::path_of(uint32_t index, std::string_view file) const
{
    const directory &at = directories_[index];
    std::string path = at.parent == no_parent ? name(at.name) : path_of(at.parent, name(at.name));
    if (file.empty()) return path;
    if (!path.empty() && path.back() != '/') path += '/';
    return path.append(file);
}

} // namespace mediafiles::recovery
