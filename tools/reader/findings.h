/** How the reader records the problems of a file. */
#ifndef TOOLS_READER_FINDINGS_H
#define TOOLS_READER_FINDINGS_H

#include <cstdint>
#include <sstream>
#include <string>

#include "tools/reader/mp4-file.h"

namespace mp4 {

constexpr size_t max_problems = 200;

std::string join(const auto &...parts)
{
    std::ostringstream text;
    (text << ... << parts);
    return text.str();
}

/** One kind of problem among the samples of a track: the first is reported, the others are counted. */
struct tally {
    uint64_t count = 0, offset = 0;
    std::string first;

    void add(uint64_t at, const auto &...parts)
    {
        if (count++) return;
        offset = at;
        first = join(parts...);
    }
};

/** Base of the reader and the checker, which list problems in file::problems. */
class findings {
protected:
    explicit findings(file &result) : out(result) {}

    void report(bool is_fault, uint64_t offset, const auto &...parts)
    {
        const std::string whose = subject ? join("track ", subject->id, ": ") : "";
        if (out.problems.size() < max_problems)
            out.problems.push_back({is_fault, offset, join(whose, parts...)});
        else if (is_fault && out.problems.size() == max_problems)
            out.problems.push_back({true, offset, "there are more faults, which are not listed"});
    }
    void fault(uint64_t offset, const auto &...parts) { report(true, offset, parts...); }
    /** What QuickTime files do by rules of their own is a remark in them, and a fault in others. */
    void departure(uint64_t offset, const auto &...parts) { report(out.major_brand != "qt  ", offset, parts...); }
    void remark(uint64_t offset, const auto &...parts) { report(false, offset, parts...); }
    void report(bool is_fault, const tally &t)
    {
        if (t.count) report(is_fault, t.offset, t.first, t.count > 1 ? join(" (and ", t.count - 1, " more)") : "");
    }

    file &out;
    const track *subject = nullptr; // the track that problems are about
};

} // namespace mp4

#endif
