#include "queue.h"

#include <algorithm>
#include <cstring>

namespace mediafiles::recorder {

namespace {

constexpr uint64_t rounded(uint64_t bytes)
{
    return (bytes + sizeof(queue::entry) - 1) / sizeof(queue::entry) * sizeof(queue::entry);
}

} // namespace

/* The header of one frame of the full size, and room for start codes of three bytes, which grow by one. */
queue::queue(uint64_t bytes, uint64_t kept, uint32_t video, uint32_t leader, capture_line line)
    : video_(video), leader_(leader), kept_(kept),
      memory_(static_cast<size_t>(rounded(bytes + kept + spare) / sizeof(entry))),
      capacity_(memory_.size() * sizeof(entry)),
      largest_((kept == 0 ? capacity_ : (capacity_ - kept) / 2) / sizeof(entry) * sizeof(entry) - sizeof(entry)),
      line_(line)
{
}

queue::entry *queue::find_room(uint32_t track, uint64_t room)
{
    for (;;) {
        if (begin_ == end_) begin_ = next_ = end_ = (end_ + capacity() - 1) / capacity() * capacity();
        if (entry *const found = room_at_end(room)) return found;
        if (is_video(track) || !drop_newest_group()) return nullptr;
    }
}

/* Where the next entry begins; padding up to the end of the ring is made on the way. */
queue::entry *queue::room_at_end(uint64_t room)
{
    const uint64_t size = sizeof(entry) + rounded(room);
    const uint64_t left = capacity() - end_ % capacity(), free = capacity() - (end_ - begin_);
    if (size <= left) return size <= free ? &at(end_) : nullptr;
    if (left + size > free) return nullptr;
    at(end_) = {static_cast<uint32_t>(left), 0, padding, 0, 0, 0, 0, {}};
    end_ += left;
    return &at(end_);
}

/* What find_room finds without taking anything away. */
bool queue::has_room(uint64_t room) const
{
    const uint64_t size = sizeof(entry) + rounded(room);
    if (begin_ == end_) return true;
    const uint64_t left = capacity() - end_ % capacity(), free = capacity() - (end_ - begin_);
    return size <= left ? size <= free : left + size <= free;
}

void queue::append(entry &filled)
{
    filled.size = static_cast<uint32_t>(sizeof(entry) + rounded(filled.length));
    end_ += filled.size;
}

void queue::drop(uint32_t track, int64_t time)
{
    track_state &state = tracks_[track];
    state.is_dropping = true;
    if (state.dropped.count == 0) {
        state.dropped.from = time;
        state.is_torn = is_video(track) && time == state.last;
    }
    ++state.dropped.count;
    state.dropped.to = time;
}

void queue::skip_padding(uint64_t &position)
{
    while (position < end_ && at(position).track == padding) position += at(position).size;
}

/*
 * Takes the video of one track away from the start of the newest group on that
 * no thread has seen, or from its first frame, and closes the ranks. An entry
 * never moves towards the end: where one does not fit before the end of the
 * ring, it lay at or after the ring's beginning before.
 */
bool queue::drop_newest_group()
{
    const uint64_t begin = std::max(next_, seen_);
    uint64_t from = UINT64_MAX;
    bool is_group = false;
    for (uint64_t position = begin; position < end_; position += at(position).size) {
        const entry &each = at(position);
        if (each.track == padding || !is_video(each.track)) continue;
        if (!starts_group(each) && from != UINT64_MAX) continue;
        if (is_group && !starts_group(each)) continue;
        is_group = starts_group(each);
        from = position;
    }
    if (from == UINT64_MAX) return false;

    const uint32_t track = at(from).track;
    const uint64_t end = end_;
    gap newer = tracks_[track].dropped; // these were dropped after what goes now
    tracks_[track].dropped = {};
    tracks_[track].last = tracks_[track].seen;
    for (uint64_t position = begin; position < from; position += at(position).size)
        if (at(position).track == track) tracks_[track].last = at(position).time;

    end_ = from;
    for (uint64_t position = from; position < end;) {
        const entry header = at(position);
        if (header.track == track) {
            drop(track, header.time);
            if (header.flags & frame_after_tear) tracks_[track].is_torn = true; // by frames that went before
        } else if (header.track != padding) {
            entry *const to = room_at_end(header.length);
            std::memmove(static_cast<void *>(to), &at(position), sizeof(entry) + header.length);
            append(*to);
        }
        position += header.size;
    }
    if (newer.count != 0) {
        tracks_[track].dropped.count += newer.count;
        tracks_[track].dropped.to = newer.to;
    }
    return true;
}

bool queue::note_use()
{
    const uint64_t used = end_ - begin_;
    most_used_ = std::max(most_used_, used);
    if (is_stalled_ || used <= part_in_use(2)) return false;
    return is_stalled_ = true;
}

template <class IsDue>
void queue::sleep(std::unique_lock<light_lock> &guard, clock::time_point until, IsDue is_due)
{
    for (bool is_time_left = true; is_time_left && !is_due();) {
        taker_.lie_down();
        guard.unlock();
        is_time_left = taker_.sleep(until);
        guard.lock();
        taker_.get_up();
    }
    is_woken_ = false;
}

bool queue::await(clock::time_point deadline, bool all)
{
    if (given_ < reserved_) return true;
    std::unique_lock guard(lock_);
    awaits_all_ = all;
    sleep(guard, deadline, [this] {
        skip_padding(next_);
        return next_ < end_ || is_woken_ || is_closed_;
    });
    return reserve();
}

bool queue::rest()
{
    std::unique_lock guard(lock_);
    sleep(guard, clock::time_point::max(), [this] { return is_woken_ || is_closed_; });
    return false;
}

/* Entries up to one of the leading track are for the thread that takes them: it needs no lock for each. */
bool queue::reserve()
{
    skip_padding(next_);
    given_ = next_;
    for (uint32_t count = 0; count < most_reserved && next_ < end_; ++count) {
        const entry &each = at(next_);
        if (next_ >= seen_ && each.track != padding) tracks_[each.track].seen = each.time;
        next_ += each.size;
        if (each.track == leader_) break;
    }
    reserved_ = next_;
    seen_ = std::max(seen_, next_);
    return given_ < reserved_;
}

queue::taken queue::next()
{
    if (given_ == reserved_) {
        const std::lock_guard guard(lock_);
        reserve();
    }
    while (given_ < reserved_ && at(given_).track == padding) given_ += at(given_).size;
    if (given_ == reserved_) return {};
    taken found = {&at(given_), given_};
    given_ += found.frame->size;
    found.has_next = given_ < reserved_;
    return found;
}

bool queue::release(uint64_t position)
{
    bool goes_on, is_awaited;
    {
        const std::lock_guard guard(lock_);
        begin_ = std::min(position, given_ < reserved_ ? given_ : next_);
        goes_on = is_stalled_ && end_ - begin_ <= part_in_use(4);
        if (goes_on) is_stalled_ = false;
        is_awaited = awaiting_room_ != 0;
    }
    if (is_awaited) released_.notify_all();
    return goes_on;
}

queue::wait queue::await_room(uint64_t room, clock::time_point until)
{
    std::unique_lock guard(lock_);
    room = std::min(room, largest());
    const auto is_due = [&] { return is_closed_ || (end_ - begin_ <= part_in_use(2) && has_room(room)); };
    if (!is_due()) { // what was not taken takes room
        is_woken_ = true;
        if (taker_.call()) taker_.wake();
    }
    ++awaiting_room_;
    bool is_over = true;
    if (until == clock::time_point::max())
        released_.wait(guard, is_due);
    else
        is_over = released_.wait_until(guard, until, is_due);
    --awaiting_room_;
    return !is_over ? wait::timed_out : is_closed_ ? wait::closed : wait::over;
}

void queue::rewind(uint64_t position)
{
    const std::lock_guard guard(lock_);
    next_ = given_ = reserved_ = position;
}

queue::moment queue::now()
{
    const std::lock_guard guard(lock_);
    return {end_, line_.elapsed()};
}

void queue::wake()
{
    bool wakes;
    {
        const std::lock_guard guard(lock_);
        is_woken_ = true;
        wakes = taker_.call();
    }
    if (wakes) taker_.wake();
}

void queue::close()
{
    bool wakes;
    {
        const std::lock_guard guard(lock_);
        is_closed_ = true;
        wakes = taker_.call();
    }
    if (wakes) taker_.wake();
    released_.notify_all();
}

bool queue::is_closed()
{
    const std::lock_guard guard(lock_);
    return is_closed_;
}

bool queue::is_drained()
{
    const std::lock_guard guard(lock_);
    skip_padding(next_);
    return is_closed_ && given_ == reserved_ && next_ == end_;
}

gap queue::open_gap(uint32_t track)
{
    const std::lock_guard guard(lock_);
    return tracks_[track].dropped;
}

queue::use queue::in_use()
{
    const std::lock_guard guard(lock_);
    use found = {end_ - begin_, most_used_, 0};
    for (const track_state &each : tracks_) found.dropped += each.dropped.count;
    return found;
}

} // namespace mediafiles::recorder
