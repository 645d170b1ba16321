#include "tools/record/sources.h"

#include <algorithm>
#include <utility>

namespace tools {

namespace {

using namespace std::chrono_literals;

/* How long the others wait for a source without a frame. */
constexpr auto longest_wait = 500ms;

bool is_over(const source &each)
{
    return each.state() == source_state::ended || each.state() == source_state::lost;
}

} // namespace

sources::sources(std::span<const input_options> options, bool retry)
    : options_(options), clocks_(options.size()), fronts_(options.size())
{
    for (const input_options &each : options) sources_.push_back(std::make_unique<source>(each, retry, waker_));
    for (auto &each : sources_) each->start();
}

sources::~sources()
{
    for (auto &each : sources_) each->cancel(); // all at once, then each is waited for
}

std::vector<const connection *> sources::there()
{
    std::vector<const connection *> result;
    for (auto &each : sources_) {
        const frame *first = each->front();
        result.push_back(first ? first->from.get() : nullptr);
    }
    return result;
}

void sources::begin()
{
    auto open = there();
    std::erase(open, nullptr);
    common_.begin(open, sources_.size() > 1);
}

const frame *sources::front(size_t index)
{
    frame *first = sources_[index]->front();
    if (!first || fronts_[index].is_mapped) return first;
    const source_clock::mapped time = clocks_[index].map(*first, common_);
    first->time = time.time + options_[index].offset;
    fronts_[index] = {true, time};
    return first;
}

std::optional<source_frame> sources::take()
{
    const auto now = steady::now();
    due_ = steady::time_point::max();
    std::optional<size_t> earliest;
    int64_t time = 0;
    for (size_t i = 0; i < sources_.size(); ++i) {
        if (const frame *first = front(i)) {
            if (earliest && first->time >= time) continue;
            earliest = i;
            time = first->time;
        } else if (sources_[i]->state() == source_state::reading) {
            const auto until = sources_[i]->last_frame() + longest_wait;
            if (now < until) due_ = std::min(due_, until);
        }
    }
    if (!earliest || due_ != steady::time_point::max()) return std::nullopt;
    const merged seen = std::exchange(fronts_[*earliest], {});
    return source_frame{*earliest, sources_[*earliest]->take(), seen.time};
}

bool sources::ended()
{
    return std::ranges::all_of(sources_, [](auto &each) { return is_over(*each) && !each->front(); });
}

} // namespace tools
