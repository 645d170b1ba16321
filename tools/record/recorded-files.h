/** The files that a recorder makes, as its events describe them, with their names as the user gave them. */
#ifndef TOOLS_RECORD_RECORDED_FILES_H
#define TOOLS_RECORD_RECORDED_FILES_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <mediafiles/recorder.h>

namespace tools {

struct recorded_file {
    std::string path;
    uint64_t number;
    uint64_t bytes = 0;
    std::optional<double> duration = {}; // seconds; once it is finished
    bool journal_kept = true;            // it stands beside the file
};

class recorded_files {
public:
    /**
     * @param directory      as it is to be shown: empty, or with a slash at its end
     * @param keeps_journal  of finished files
     */
    recorded_files(std::string directory, bool keeps_journal)
        : directory_(std::move(directory)), keeps_journal_(keeps_journal)
    {
    }

    /** Events that are about no file are passed over. */
    void note(const mediafiles_recorder_event &event);

    /** The path of an event, which has one, as it is to be shown. */
    std::string path_of(const mediafiles_recorder_event &event) const;

    /** The file that was begun last; empty before the first. */
    std::string latest() const { return files_.empty() ? "" : files_.back().path; }

    /** All that were begun and are there; those that are not finished with the size that they have now. */
    std::vector<recorded_file> list() const;

private:
    std::string directory_;
    bool keeps_journal_;
    std::vector<recorded_file> files_; // in the order in which they were begun
};

} // namespace tools

#endif
