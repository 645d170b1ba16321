/**
 * What the name of a source says before it is opened: where it leads, whether
 * it comes and goes, what it may open in turn, and how it is shown without the
 * credentials in it.
 */
#ifndef TOOLS_RECORD_SOURCE_NAME_H
#define TOOLS_RECORD_SOURCE_NAME_H

#include <optional>
#include <string>

#include <sys/stat.h>

namespace tools {

struct source_name {
    explicit source_name(const std::string &given);

    std::string url;   // for libavformat
    std::string shown; // the name without user, password and query
    std::string scheme;
    bool comes_and_goes = false; // it is waited for and opened again: a connection, a device, a FIFO
    bool is_connection = false;  // which loses nothing when it is closed for want of data
    bool listens = false;        // opening it lasts until somebody connects

    /** Protocols that opening it, or a playlist that it leads to, may use; empty: libavformat's own rule. */
    std::string allowed_protocols() const;

    /** What stands there in the file system. */
    std::optional<struct stat> file() const;

private:
    std::string path_; // empty for what is in no file system
};

} // namespace tools

#endif
