/**
 * The two files of a recording: the MP4, which the library writes through a
 * descriptor, and the journal, which is appended here.
 *
 * No existing file is touched before both files can be opened and locked. No
 * record is ever cut in the middle of the journal file: the rest of a short
 * append is kept and written first the next time.
 */
#ifndef TOOLS_RECORD_RECORDING_FILES_H
#define TOOLS_RECORD_RECORDING_FILES_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace tools {

/** An open file under an exclusive lock; one that was made here is removed unless it is kept. */
class locked_file {
public:
    /**
     * Makes the file, or with overwrite opens the one that is there, not
     * truncated yet. Throws failure.
     *
     * @param why_not  what to say when the file exists
     */
    locked_file(std::string path, bool overwrite, const char *why_not);
    ~locked_file();
    locked_file(const locked_file &) = delete;
    locked_file &operator=(const locked_file &) = delete;

    int descriptor() const { return descriptor_; }
    const std::string &path() const { return path_; }
    struct stat status() const;
    /** Truncates a file that existed, durably. */
    void empty();
    void keep() { kept_ = true; }

private:
    std::string path_;
    bool made_ = true;
    bool kept_ = false;
    int descriptor_;
};

class recording_files {
public:
    /**
     * Makes both files, empty, and syncs their directories. Throws failure,
     * nothing touched.
     *
     * @param inputs  the files being read, which are not overwritten
     */
    recording_files(const std::string &media, const std::optional<std::string> &journal, bool overwrite,
                    std::span<const struct stat> inputs);

    /** From here on no error removes the files. */
    void keep();

    int media() const { return media_.descriptor(); }
    const std::string &media_path() const { return media_.path(); }
    uint64_t media_size() const { return static_cast<uint64_t>(media_.status().st_size); }

    /** Waits until the media is on the medium. Throws failure; from then on it always does. */
    void sync_media();

    /**
     * Appends whole records, after those that are still to be written, and
     * waits until they are on the medium.
     *
     * @return 0 or the errno; the records that were not written are kept. A
     *         failed sync is permanent: nothing is appended after what it lost
     */
    int append_journal(std::span<const uint8_t> records);

    /** Throws failure. */
    void remove_journal();

private:
    locked_file media_;
    std::optional<locked_file> journal_;
    std::vector<uint8_t> unwritten_; // of the journal
    uint32_t rounds_ = 0;            // of syncs
    bool media_failed_ = false;
    int journal_sync_error_ = 0;
};

/**
 * The records at the beginning of journal bytes whose samples end within the
 * first media_size bytes of the media file: what is left of a drain when the
 * media could not be written to its end.
 */
std::span<const uint8_t> records_within(std::span<const uint8_t> records, uint64_t media_size);

} // namespace tools

#endif
