/** An error that ends a command, reported in one line as "WHAT: FILE: WHY". */
#ifndef TOOLS_FAILURE_H
#define TOOLS_FAILURE_H

#include <cstring>
#include <stdexcept>
#include <string>

namespace tools {

struct failure : std::runtime_error {
    failure(const std::string &what, const std::string &file, const std::string &why)
        : runtime_error(what + ": " + file + ": " + why)
    {
    }
    failure(const std::string &what, const std::string &file, int error) : failure(what, file, std::strerror(error)) {}
};

} // namespace tools

#endif
