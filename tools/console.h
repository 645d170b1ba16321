/**
 * What a command prints: its result on standard output; on standard error one
 * line for each message, and on a terminal a progress line that is cleared for
 * them.
 */
#ifndef TOOLS_CONSOLE_H
#define TOOLS_CONSOLE_H

#include <chrono>
#include <string>

namespace tools {

class console {
public:
    /**
     * @param command  its name, which starts every problem's line
     * @param quiet    prints problems only
     */
    console(std::string command, bool quiet);
    ~console() { clear_progress(); }
    console(const console &) = delete;
    console &operator=(const console &) = delete;

    /** An error, "WHAT: FILE: WHY". Printed when quiet, too. */
    void problem(const std::string &text);

    /** The command's result. False, and a problem, when it cannot be written whole. */
    bool result(int descriptor, const std::string &text);
    /** It could not be written: errno says why. */
    void lose_result();

    /** Information, possibly of several lines. */
    void note(const std::string &text);

    /** Whether a progress line should be shown now: on a terminal, a few times a second. */
    bool wants_progress();
    void progress(const std::string &text);
    void clear_progress();

private:
    std::string command_;
    bool quiet_;
    bool terminal_;
    size_t shown_ = 0; // characters of the progress line
    std::chrono::steady_clock::time_point next_progress_;
};

} // namespace tools

#endif
