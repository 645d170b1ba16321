/**
 * The finished files of a recorder's pattern, which make room for new ones:
 * the oldest goes first, by its number, since a device's clock may be wrong. A
 * file without write permission is protected and stays.
 */
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace mediafiles::recorder {

struct kept_file {
    uint64_t number;
    std::string name; // below the recorder's directory
    uint64_t bytes;
};

class kept_files {
public:
    void add(kept_file file);
    uint64_t bytes() const { return bytes_; }

    /**
     * Removes the oldest file that is not protected, its journal, and directories that are empty then.
     *
     * @param directory  the recorder's
     * @return the file; nothing when none can be removed
     */
    std::optional<kept_file> remove_oldest(int directory);

private:
    std::map<uint64_t, kept_file> files_;
    uint64_t bytes_ = 0;
};

} // namespace mediafiles::recorder
