#include "tools/console.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <mediafiles/support/io.h>

#include "tools/failure.h"
#include "tools/print.h"

namespace tools {

console::console(std::string command, bool quiet)
    : command_(std::move(command)), quiet_(quiet), terminal_(isatty(STDERR_FILENO) == 1)
{
}

void console::problem(const std::string &text)
{
    clear_progress();
    std::fprintf(stderr, "mediafiles: %s: %s\n", command_.c_str(), printable(text).c_str());
}

bool console::result(int descriptor, const std::string &text)
{
    if (writen(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size())) return true;
    lose_result();
    return false;
}

void console::lose_result()
{
    problem(failure("cannot write the report", "standard output", errno).what() +
            std::string("; the files are not affected"));
}

void console::note(const std::string &text)
{
    if (quiet_) return;
    clear_progress();
    std::fprintf(stderr, "%s\n", text.c_str());
}

bool console::wants_progress()
{
    const auto now = std::chrono::steady_clock::now();
    if (quiet_ || !terminal_ || now < next_progress_) return false;
    next_progress_ = now + std::chrono::milliseconds(250);
    return true;
}

void console::progress(const std::string &whole)
{
    /* A line that is broken could not be cleared. */
    winsize window = {};
    const bool is_known = ioctl(STDERR_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col > 1;
    const std::string text = is_known ? whole.substr(0, window.ws_col - 1u) : whole;
    if (is_known) shown_ = std::min<size_t>(shown_, window.ws_col - 1u);
    std::fprintf(stderr, "\r%-*s", static_cast<int>(shown_), text.c_str());
    std::fflush(stderr);
    shown_ = text.size();
}

void console::clear_progress()
{
    if (shown_ == 0) return;
    std::fprintf(stderr, "\r%*s\r", static_cast<int>(shown_), "");
    shown_ = 0;
}

} // namespace tools
