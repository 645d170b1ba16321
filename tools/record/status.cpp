#include "tools/record/status.h"

#include <cerrno>
#include <cstdio>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mediafiles/support/io.h>

#include "tools/failure.h"
#include "tools/json.h"
#include "tools/print.h"

namespace tools {

namespace {

constexpr const char *cannot_write = "cannot write the status";

const char *name(source_state state)
{
    switch (state) {
    case source_state::opening:
        return "waiting";
    case source_state::reading:
        return "reading";
    case source_state::ended:
        return "ended";
    case source_state::lost:
        return "lost";
    }
    return "";
}

std::string now()
{
    const std::time_t seconds = std::time(nullptr);
    std::tm utc = {};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

std::string write_to(const std::string &path, int descriptor, const std::string &line)
{
    const bool is_written = writen(descriptor, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    return is_written ? "" : failure(cannot_write, path, errno).what();
}

/* With the flags that a reader who is not there does not hold up. */
std::string write_into(const std::string &path, int flags, const std::string &line, const std::string &shown)
{
    const int descriptor = open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK | flags, 0644);
    if (descriptor < 0) return errno == ENXIO ? "" : failure(cannot_write, shown, errno).what();
    std::string why = write_to(shown, descriptor, line);
    close(descriptor);
    return why;
}

} // namespace

std::string to_line(const recording_status &status)
{
    ordered_json sources = ordered_json::array();
    uint64_t reconnects = 0;
    for (const auto &[sum, state] : status.sources) {
        reconnects += sum.connections > 1 ? sum.connections - 1 : 0;
        sources.push_back({{"name", sum.name},
                           {"state", name(state)},
                           {"connections", sum.connections},
                           {"stalls", sum.stalls},
                           {"steps", sum.steps}});
    }
    const ordered_json line = {
        {"time", now()},
        {"state", status.is_recording ? "recording" : "waiting"},
        {"sources", sources},
        {"frames", status.frames},
        {"bytes", status.bytes},
        {"bit_rate", static_cast<uint64_t>(status.bit_rate)},
        {"dropped", status.dropped},
        {"refused", status.refused},
        {"reconnects", reconnects},
        {"lag_s", status.lag},
        {"queue_bytes", status.queue_bytes},
        {"queue_most_bytes", status.queue_most},
        {"worst_write_s", status.worst_write},
        {"worst_sync_s", status.worst_sync},
        {"unsafe_s", status.unsafe},
        {"free_bytes", status.free_bytes},
        {"file", or_null(status.file)},
    };
    return json_text(line, one_line) + "\n";
}

std::string in_words(const recording_status &status)
{
    size_t reading = 0;
    for (const source_status &each : status.sources) reading += each.state == source_state::reading;
    return (status.is_recording ? "recording " + status.file : std::string("waiting")) +
           print("; %zu of %zu sources, %.1f Mbit/s, %ju frames dropped", reading, status.sources.size(),
                 status.bit_rate / 1e6, uintmax_t{status.dropped});
}

std::string status_file::write(const std::string &line) const
{
    if (path_ == "-") return write_to("standard output", output_, line);
    struct stat status;
    if (stat(path_.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) return write_into(path_, 0, line, path_);
    const std::string made = path_ + ".new";
    if (std::string why = write_into(made, O_CREAT | O_TRUNC | O_NOFOLLOW, line, path_); !why.empty()) return why;
    return std::rename(made.c_str(), path_.c_str()) == 0 ? "" : failure(cannot_write, path_, errno).what();
}

} // namespace tools
