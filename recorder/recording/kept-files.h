/**
 * The finished files of a recorder's pattern, which make room for new ones:
 * the oldest goes first, by its number, since a device's clock may be wrong. A
 * file without write permission is protected and stays, unless all protected
 * ones together take more than they may: then the oldest of them go, too, but
 * never the one with the highest number.
 */
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "safe-file.h"

namespace mediafiles::recorder {

struct kept_file {
    uint64_t number;
    std::string name; // below the recorder's directory
    uint64_t bytes;
    bool is_protected = false;
};

/** The directory of a path below another one; no link is followed on the way. */
recovery::descriptor open_parent(int directory, std::string_view path);
std::string last_part(std::string_view path);

class kept_files {
public:
    /** @param most_protected  bytes that protected files may take */
    explicit kept_files(uint64_t most_protected) : most_protected_(most_protected) {}

    void add(kept_file file);
    void clear();
    uint64_t bytes() const { return bytes_; }
    /** Bytes that can be had at most when files are removed. */
    uint64_t removable() const { return bytes_ - std::min(protected_bytes_, most_protected_); }

    /**
     * Takes the write permission of a file away, known or not. One that is known counts as protected even where that
     * fails.
     *
     * @param directory  the recorder's
     * @return 0 or an errno
     */
    int protect(int directory, const std::string &name, std::optional<uint64_t> number);

    /**
     * Removes the oldest file that may go, its journal, and directories that are empty then.
     *
     * @return the file; nothing when none can be removed
     */
    std::optional<kept_file> remove_oldest(int directory) { return remove_first(directory, false); }
    /** Likewise the oldest protected file, while these take more than they may. */
    std::optional<kept_file> remove_surplus(int directory) { return remove_first(directory, true); }

private:
    std::optional<kept_file> remove_first(int directory, bool surplus_alone);
    void note_protected(kept_file &file);
    void forget(const kept_file &file);
    bool is_surplus(uint64_t number) const
    {
        return protected_bytes_ > most_protected_ && number != *protected_.rbegin();
    }

    const uint64_t most_protected_;
    std::map<uint64_t, kept_file> files_;
    std::set<uint64_t> protected_; // numbers
    uint64_t bytes_ = 0, protected_bytes_ = 0;
};

} // namespace mediafiles::recorder
