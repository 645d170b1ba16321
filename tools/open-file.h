/** A file that a command works on, whatever a path may lead to: it never blocks, and only a regular file will do. */
#ifndef TOOLS_OPEN_FILE_H
#define TOOLS_OPEN_FILE_H

#include <cstdint>
#include <span>
#include <string>

#include <sys/types.h>

namespace tools {

/** What goes wrong is thrown as a failure. */
class open_file {
public:
    /**
     * @param purpose     begins the failure's text: "cannot repair"
     * @param descriptor  to own; -1 when opening it has failed, with errno
     */
    open_file(const char *purpose, int descriptor, std::string path);
    open_file(const char *purpose, const std::string &path, int flags, mode_t mode = 0);
    ~open_file();
    open_file(const open_file &) = delete;
    open_file &operator=(const open_file &) = delete;

    operator int() const { return descriptor_; }
    const std::string &path() const { return path_; }

    uint64_t size() const;
    /** Exclusively, until it is closed. */
    void lock() const;
    /** Whether another process has an exclusive lock. */
    bool is_locked() const;
    /** Whether so many bytes lie there. */
    bool read(uint64_t offset, std::span<uint8_t> to) const;
    void write(std::span<const uint8_t> data) const;

private:
    const char *purpose_;
    std::string path_;
    int descriptor_;
};

} // namespace tools

#endif
