/** An error that ends a command, reported in one line as "WHAT: FILE: WHY; WHAT HELPS". */
#ifndef TOOLS_FAILURE_H
#define TOOLS_FAILURE_H

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace tools {

/** What an error means, with what helps where that is not plain. */
inline std::string words_of(int error)
{
    std::string text = std::strerror(error);
    if (error == EIO) return text + "; the card may be failing";
    if (error == EACCES) return text + "; check owner and rights";
    if (error == EROFS) return text + ": a locked or damaged card, or a service without ReadWritePaths= for it";
    if (error == EFBIG) return text + ": a limit of the system (ulimit -f) or of the file system";
    return text;
}

struct failure : std::runtime_error {
    failure(const std::string &what, const std::string &file, const std::string &why)
        : runtime_error(what + ": " + file + ": " + why)
    {
    }
    failure(const std::string &what, const std::string &file, int error) : failure(what, file, words_of(error)) {}
};

} // namespace tools

#endif
