/** Ends a poll(2) of another thread. */
#ifndef TOOLS_RECORD_WAKER_H
#define TOOLS_RECORD_WAKER_H

#include <cerrno>

#include <sys/eventfd.h>
#include <unistd.h>

#include "tools/failure.h"

namespace tools {

class waker {
public:
    waker() : descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    {
        if (descriptor_ < 0) throw failure("cannot record", "eventfd", errno);
    }
    ~waker() { close(descriptor_); }
    waker(const waker &) = delete;
    waker &operator=(const waker &) = delete;

    /** Readable from wake to drain. */
    int descriptor() const { return descriptor_; }
    void wake() { eventfd_write(descriptor_, 1); }
    void drain()
    {
        eventfd_t count;
        eventfd_read(descriptor_, &count);
    }

private:
    int descriptor_;
};

} // namespace tools

#endif
