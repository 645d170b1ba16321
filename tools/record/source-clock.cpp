#include "tools/record/source-clock.h"

#include <algorithm>

namespace tools {

namespace {

/* Times that go back by less are those of a source that counts badly; such a frame lasts no time. */
constexpr int64_t smallest_step = second / 10;

/* A longer pause is a step: for formats whose times may jump, and for those in which a sample of this length fits. */
constexpr int64_t longest_pause = 10 * second, longest_sample = 6 * (3600 * second);

/* How far two live sources that share a clock may be apart, with what delays them on their way. */
constexpr int64_t most_apart = 5 * second;

/* How far the times of a source that was opened again may be from the moment, to count as going on. */
constexpr int64_t most_off = 2 * second;

int64_t between(steady::time_point from, steady::time_point to)
{
    return std::chrono::nanoseconds(to - from).count();
}

int64_t magnitude(int64_t value)
{
    return value < 0 ? -value : value;
}

} // namespace

int64_t common_clock::at(steady::time_point moment) const
{
    return between(zero_, moment);
}

bool common_clock::shares_clock(const connection &source) const
{
    if (!reference_ || !source.is_stamped || source.is_live != reference_->is_live) return false;
    if (source.is_live) return magnitude(source.edge_time + reference_->offset - at(source.edge_arrival)) < most_apart;
    const auto ends_before = [](int64_t start, std::optional<int64_t> duration, int64_t other) {
        return duration && start + *duration <= other;
    };
    return !ends_before(source.start, source.duration, reference_->start) &&
           !ends_before(reference_->start, reference_->duration, source.start);
}

void common_clock::begin(std::span<const connection *const> there, bool several)
{
    several_ = several;
    zero_ = steady::now();
    if (!several) return;
    for (const connection *each : there)
        if (each->is_live)
            zero_ = std::min(zero_, each->edge_arrival - std::chrono::nanoseconds(each->edge_time - each->start));
    const auto stamped = std::ranges::find(there, true, &connection::is_stamped);
    if (stamped == there.end()) return;
    const connection &first = **stamped;
    reference_ = {-first.start, first.start, first.duration, first.is_live};
    if (first.is_live) zero_ = first.edge_arrival - std::chrono::nanoseconds(first.edge_time - first.start);
    /* The recording begins with the earliest of them. */
    int64_t earliest = first.start;
    for (const connection *each : there)
        if (shares_clock(*each)) earliest = std::min(earliest, each->start);
    reference_->offset = -earliest;
    zero_ -= std::chrono::nanoseconds(first.start - earliest);
}

int64_t common_clock::offset_of(const connection &source) const
{
    if (!several_) return 0;
    if (shares_clock(source)) return reference_->offset;
    return source.is_live ? at(source.edge_arrival) - source.edge_time : -source.start;
}

int64_t source_clock::furthest() const
{
    int64_t end = latest_.value_or(0);
    for (const stream_times &each : streams_)
        if (each.last) end = std::max(end, each.recorded + each.usual);
    return end;
}

/* The first connection has its place among the sources; a later one goes on where its time says, or the moment. */
void source_clock::connect(const frame &first, const common_clock &common)
{
    const connection &now = *first.from;
    if (!latest_) {
        offset_ = common.offset_of(now);
    } else {
        const int64_t end = furthest();
        const int64_t expected = *latest_ + between(latest_arrival_, now.edge_arrival) - now.edge_time;
        const bool goes_on = now.is_stamped && magnitude(offset_ - expected) < most_off && first.time + offset_ >= end;
        if (!goes_on) offset_ = std::max(expected, end - first.time);
        ++epoch_;
    }
    connection_ = first.from;
    streams_.assign(now.streams.size(), {});
}

/* Whether a frame that much after the one before does so on the same clock. */
bool source_clock::follows(const stream_times &stream, int64_t delta, const frame &next) const
{
    const int64_t passed = next.from->is_live ? between(stream.arrival, next.arrival) : 0;
    return delta > -smallest_step && delta <= (next.from->may_jump ? longest_pause : longest_sample) + passed;
}

source_clock::mapped source_clock::map(const frame &next, const common_clock &common)
{
    const bool is_paced = std::ranges::any_of(streams_, [](const stream_times &each) { return each.usual > 0; });
    const int64_t end = furthest();
    if (next.from != connection_) connect(next, common);
    stream_times &stream = streams_[next.stream];
    mapped result{};
    if (!stream.last) {
        stream.offset = offset_;
        stream.epoch = epoch_;
    } else if (const int64_t delta = next.time - *stream.last; !follows(stream, delta, next)) {
        const int64_t in_newest = next.time + offset_ - stream.recorded;
        if (stream.epoch == epoch_ || !follows(stream, in_newest, next)) {
            const int64_t passed = next.from->is_live ? between(stream.arrival, next.arrival) : 0;
            offset_ = std::max(furthest(), stream.recorded + passed) - next.time;
            ++epoch_;
            result.step = delta;
        }
        stream.offset = offset_;
        stream.epoch = epoch_;
    } else if (delta > 0) {
        stream.usual = delta;
    }
    stream.last = next.time;
    stream.arrival = next.arrival;
    result.time = stream.recorded = next.time + stream.offset;
    latest_ = std::max(latest_.value_or(result.time), result.time);
    latest_arrival_ = next.arrival;
    if (is_paced) result.gap = std::max<int64_t>(result.time - end, 0);
    return result;
}

} // namespace tools
