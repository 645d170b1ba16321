/**
 * What a command says on standard error: one line each, and on a terminal a
 * progress line that gives way to them.
 */
#ifndef TOOLS_CONSOLE_H
#define TOOLS_CONSOLE_H

#include <chrono>
#include <string>

namespace tools {

class console {
public:
    /**
     * @param command  its name, which begins every problem's line
     * @param quiet    says nothing but problems; the library's lines on
     *                 standard output go nowhere
     */
    console(std::string command, bool quiet);
    ~console() { clear_progress(); }
    console(const console &) = delete;
    console &operator=(const console &) = delete;

    /** Something went wrong: "WHAT: FILE: WHY". Also said when quiet. */
    void problem(const std::string &text);

    /** Good to know, possibly of several lines. */
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
