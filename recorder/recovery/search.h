/** Which files of some paths may be recordings, newest first, and which journal belongs to each. */
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "listing.h"
#include "safe-file.h"

namespace mediafiles::recovery {

/** Called for each name that is seen. */
using search_step = std::function<void()>;

/** A media file, or a journal whose media file is missing. */
struct find {
    int64_t time;       // of its last change, nanoseconds since 1970
    uint32_t directory; // index
    uint32_t media;     // name; 0 when it is missing
    uint32_t journal;   // name; 0 when there is none
    bool given;         // as a path
};

/**
 * Keeps 24 bytes and the names for each file, so that 100,000 files take some
 * megabytes, and no directory open: there may be many.
 */
class search {
public:
    /** Gets directories that could not be searched, and paths that could not be opened. */
    using problem_report = std::function<void(const std::string &path, const obstacle &)>;

    /** @param flags  O_NOATIME, or 0 */
    search(int flags, problem_report problem, search_step step);

    /** A directory, a media file, or a journal, which stands for its media file. */
    void add(const char *path);
    /** After the last path: newest first, each once. */
    const std::vector<find> &sorted();
    /** The errno of the first problem with a path or a directory; 0 without. */
    int error() const { return error_; }

    const char *name(uint32_t offset) const { return names_.data() + offset; }
    /** What is opened is the directory that was searched, or MEDIAFILES_REASON_CHANGED. */
    descriptor open_directory(uint32_t index) const;
    /** The directories from below the one that was given down to this one. */
    std::vector<const char *> way_to(uint32_t index) const;
    std::string path_of(uint32_t directory, std::string_view name) const;

private:
    struct directory {
        uint32_t parent; // index; no_parent for what was given
        uint32_t name;   // for what was given, the path that leads to it; empty: the working directory
        identity file;
        uint32_t depth;
        bool follow; // the directory of a path may be reached through a link
    };

    void problem(const std::string &path, const obstacle &, bool is_error = true);
    uint32_t add_name(std::string_view);
    uint32_t add_directory(const directory &);
    void add_find(uint32_t index, int descriptor, const std::string &media, const std::string &journal, bool given);
    void add_file(std::string_view path);
    listing list(int descriptor) const;
    void search_directory(uint32_t index);

    const int flags_;
    const problem_report problem_;
    const search_step step_;
    int error_ = 0;
    std::string names_; // each ends with 0; the first is empty
    std::vector<directory> directories_;
    std::vector<find> finds_;

    /* Of the file that was added last: many paths may lead into one directory. */
    std::string parent_path_;
    uint32_t parent_ = 0;
    descriptor parent_descriptor_;
    listing parent_listing_;
};

} // namespace mediafiles::recovery
