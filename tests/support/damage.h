/** What a power cut leaves of a file whose last writes no sync had made durable. */
#pragma once

#include <string>

#include "hex.h"

/** A file, with damage to what is not durable in a run of units: lost, zero or junk. */
inline bytes damaged(bytes now, const bytes &durable, size_t begin, size_t end, const std::string &way)
{
    const bool tail = way == "lost" && end >= now.size();
    for (size_t at = begin; at < std::min(end, now.size()); at++)
        if (const bool old = at < durable.size(); !old || now[at] != durable[at])
            now[at] = way == "junk"          ? uint8_t((at + now.size()) * 2654435761u >> 13)
                      : way == "lost" && old ? durable[at]
                                             : uint8_t(0);
    if (tail) now.resize(std::max(begin, durable.size()));
    return now;
}
