/** What a service tells systemd: nothing where it was not started by it, or the program was built without libsystemd. */
#ifndef TOOLS_RECORD_SERVICE_MANAGER_H
#define TOOLS_RECORD_SERVICE_MANAGER_H

#include <chrono>
#include <optional>
#include <string>

#ifdef MEDIAFILES_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

namespace tools::service_manager {

/** @param state  as sd_notify(3) takes it */
inline void notify([[maybe_unused]] const std::string &state)
{
#ifdef MEDIAFILES_SYSTEMD
    sd_notify(0, state.c_str());
#endif
}

/** How often the watchdog is to be told that all is well: twice in its time. */
inline std::optional<std::chrono::microseconds> watchdog_interval()
{
#ifdef MEDIAFILES_SYSTEMD
    uint64_t microseconds = 0;
    if (sd_watchdog_enabled(0, &microseconds) > 0) return std::chrono::microseconds(microseconds / 2);
#endif
    return std::nullopt;
}

} // namespace tools::service_manager

#endif
