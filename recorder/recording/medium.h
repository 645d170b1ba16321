/**
 * The medium below a recorder's directory: whether it is there, and whether it
 * is back.
 *
 * What counts is the place, not the device: a card may come back under another
 * device number, and another card in its place is as good. The directory is on
 * the medium when its file system is mounted where it was when the directory
 * was opened: as many levels above the directory, and into the same device.
 * What shows in that place while nothing is mounted is on the device below, and
 * is left alone. A directory on a file system that is mounted into none, like
 * the root's, has to be on the same device again. A file system that is mounted
 * over the directory later takes its place.
 */
#pragma once

#include <optional>
#include <string>

#include <sys/types.h>

#include "safe-file.h"

namespace mediafiles::recorder {

/** These throw recovery::obstacle. EBUSY: another recorder has locked it. */
recovery::descriptor open_directory(const std::string &path);
void lock_directory(int directory);

class medium {
public:
    /**
     * @param path       the working directory may change afterwards
     * @param locked     whether no other recorder may use the directory
     * @param directory  open, at that path
     */
    medium(const std::string &path, bool locked, int directory);

    /**
     * Whether the path still leads to the directory that is open, and can be written.
     *
     * @return 0, or errno; ENODEV: it leads to another one
     */
    int examine(int directory) const;

    /** Opens the directory once it is there again. Throws recovery::obstacle, with ENODEV where the medium is not. */
    recovery::descriptor open();

private:
    struct place {
        dev_t device = 0;           // of the directory
        int levels = 0;             // up to the root of its file system
        std::optional<dev_t> below; // into which that is mounted

        bool is_taken_by(const place &found) const;
    };
    static place place_of(int directory);

    const std::string path_;
    const bool is_locked_;
    place place_;
};

} // namespace mediafiles::recorder
