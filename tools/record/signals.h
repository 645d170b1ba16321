/** The signals that a recording obeys, taken from a descriptor: no handler runs. */
#ifndef TOOLS_RECORD_SIGNALS_H
#define TOOLS_RECORD_SIGNALS_H

#include <csignal>

namespace tools {

class signals {
public:
    /** Blocks them in this thread and in those that it starts. */
    signals();
    ~signals();
    signals(const signals &) = delete;
    signals &operator=(const signals &) = delete;

    /** Readable when one has come. */
    int descriptor() const { return descriptor_; }
    /** The next one that has come, or 0. */
    int take();

    static bool ends(int signal) { return signal == SIGINT || signal == SIGTERM || signal == SIGHUP; }
    static constexpr int event = SIGUSR1; // keep what is recorded now
    static constexpr int split = SIGUSR2; // begin a new file

private:
    int descriptor_;
};

} // namespace tools

#endif
