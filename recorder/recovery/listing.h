/** The names in one directory that matter to recovery, and which journal belongs to which media file. */
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace mediafiles::recovery {

/**
 * Media files are those called NAME.mp4, and those of any name that have a
 * journal, NAME.journal. Capital letters do not matter, but a journal belongs
 * to the file with exactly its name where there is one.
 */
class listing {
public:
    struct media_file {
        std::string name;
        std::string journal; // empty: none
    };

    void add_file(std::string_view name);
    void add_directory(std::string_view name) { directories_.emplace_back(name); }
    /** After the last name: whether it is one of a regular file decides about media of other names than NAME.mp4. */
    void complete(const std::function<bool(const char *name)> &is_regular);
    /** Names that it holds. */
    size_t size() const { return directories_.size() + journals_.size() + media_.size(); }

    const std::vector<media_file> &media() const { return media_; }
    /** Journals whose media file is missing. */
    std::vector<std::string> orphans() const;
    const std::vector<std::string> &directories() const { return directories_; }

    /** The media file of that name, or that such a journal belongs to; nullptr when it is not there. */
    const media_file *find(std::string_view name) const;

private:
    struct journal_file {
        std::string name;
        size_t owner; // index of the media file; none: not there
    };

    void assign_journals();
    size_t index_of(std::string_view media) const;

    std::vector<media_file> media_;      // in the order of their names
    std::vector<journal_file> journals_; // likewise
    std::vector<std::string> directories_;
};

bool is_journal_name(std::string_view);
/** Whether a journal's name is that of a file NAME.mp4. */
bool belongs_to_mp4(std::string_view journal);

} // namespace mediafiles::recovery
