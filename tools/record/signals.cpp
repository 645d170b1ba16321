#include "tools/record/signals.h"

#include <cerrno>

#include <sys/signalfd.h>
#include <unistd.h>

#include "tools/failure.h"

namespace tools {

signals::signals()
{
    sigset_t taken;
    sigemptyset(&taken);
    for (const int each : {SIGINT, SIGTERM, SIGHUP, event, split}) sigaddset(&taken, each);
    pthread_sigmask(SIG_BLOCK, &taken, nullptr);
    descriptor_ = signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK);
    if (descriptor_ < 0) throw failure("cannot record", "signalfd", errno);
    /* A full or broken output shows as an error of the write. */
    for (const int ignored : {SIGXFSZ, SIGPIPE}) std::signal(ignored, SIG_IGN);
}

signals::~signals()
{
    close(descriptor_);
}

int signals::take()
{
    signalfd_siginfo taken;
    return read(descriptor_, &taken, sizeof taken) == sizeof taken ? static_cast<int>(taken.ssi_signo) : 0;
}

} // namespace tools
