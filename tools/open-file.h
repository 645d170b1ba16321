/** A file that a command works on. Opening one never blocks, and only a regular file is accepted. */
#ifndef TOOLS_OPEN_FILE_H
#define TOOLS_OPEN_FILE_H

#include <cstdint>
#include <span>
#include <string>

#include <sys/types.h>

namespace tools {

/** Errors are thrown as failure. */
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
    /** Whether another process has an exclusive lock. */
    bool is_locked() const;
    /** False when the file ends before that many bytes. */
    bool read(uint64_t offset, std::span<uint8_t> to) const;
    /** What can be read there at once: bytes, 0 at the end; -1 with errno. */
    int64_t read_some(uint64_t offset, std::span<uint8_t> to) const;

private:
    const char *purpose_;
    std::string path_;
    int descriptor_;
};

} // namespace tools

#endif
