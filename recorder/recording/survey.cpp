#include "survey.h"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>

#include "safe-file.h"

namespace mediafiles::recorder {

namespace {

constexpr std::string_view journal_end = ".journal";
constexpr int deepest = 8; // directories in a pattern

/* A directory that was removed, replaced, or is not to be read by everybody. */
bool is_nothing_of_ours(int error)
{
    return error == ENOENT || error == ENOTDIR || error == ELOOP || error == EACCES;
}

struct search {
    const name_pattern &names;
    std::vector<std::pair<uint64_t, std::string>> journals;
    std::vector<kept_file> media;
    uint64_t highest = 0;

    void go_through(int parent, const char *name, const std::string &path, int depth)
    {
        const recovery::descriptor directory = recovery::open_at(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
        if (!directory.is_open() && depth != 0 && is_nothing_of_ours(errno)) return;
        if (!directory.is_open()) throw recovery::system_failure();
        recovery::directory_reader reader(directory);
        while (const dirent *found = reader.next()) {
            const std::string below = path + found->d_name;
            struct stat status;
            if (fstatat(directory, found->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
            if (S_ISDIR(status.st_mode) && depth < deepest)
                go_through(directory, found->d_name, below + '/', depth + 1);
            else if (S_ISREG(status.st_mode))
                note(below, status);
        }
    }

    void note(std::string_view path, const struct stat &status)
    {
        const bool is_journal = path.ends_with(journal_end);
        if (is_journal) path.remove_suffix(journal_end.size());
        const auto number = names.match(path);
        if (!number) return;
        if (*number <= largest_to_follow) highest = std::max(highest, *number);
        if (is_journal)
            journals.emplace_back(*number, path);
        else
            media.push_back({*number, std::string(path), static_cast<uint64_t>(status.st_size),
                             !(status.st_mode & recovery::write_permissions)});
    }
};

} // namespace

found_files find_files(int directory, const name_pattern &names)
{
    search search = {names, {}, {}, 0};
    search.go_through(directory, ".", "", 0);
    std::ranges::sort(search.journals, std::greater<>());
    found_files found = {search.highest, {}, {}};
    for (kept_file &each : search.media) {
        const auto has_journal = std::pair(each.number, each.name); // the journals are sorted
        if (!std::ranges::binary_search(search.journals, has_journal, std::greater<>()))
            found.finished.push_back(std::move(each));
    }
    for (auto &each : search.journals) found.interrupted.push_back(std::move(each.second));
    return found;
}

} // namespace mediafiles::recorder
