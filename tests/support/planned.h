/** A plan of bytes in memory, and the file that it would make. Some of the bytes may be unreadable, or absent. */
#pragma once

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>
#include <span>

#include <mediafiles/recovery.h>

#include "hex.h"

struct planned {
    struct input {
        std::span<const uint8_t> content;
        uint64_t size = content.size();                  // beyond the content there are zeros
        mediafiles_range bad = {UINT64_MAX, UINT64_MAX}; // cannot be read
        std::function<void(uint64_t)> reading = nullptr; // called with each read's offset
        std::span<const uint8_t> end = {};               // the last bytes
        uint64_t reads = 0, moved = 0, largest = 0;      // calls, bytes of all, of the largest

        mediafiles_source source() { return {this, size, read}; }

    private:
        static int64_t read(void *context, uint64_t at, void *to, uint32_t count)
        {
            input &self = *static_cast<input *>(context);
            if (self.reading) self.reading(at);
            self.reads++;
            uint64_t stop = std::min(self.size, at + count);
            if (at >= stop) return 0;
            if (at >= self.bad.begin && at < self.bad.end) return errno = EIO, -1;
            if (at < self.bad.begin) stop = std::min(stop, self.bad.begin);
            const auto got = static_cast<size_t>(stop - at);
            auto *out = static_cast<uint8_t *>(to);
            std::fill_n(out, got, uint8_t(0));
            const auto lay = [&](uint64_t begin, std::span<const uint8_t> data) {
                const uint64_t from = std::max(at, begin), until = std::min(stop, begin + data.size());
                if (from < until) std::copy_n(&data[size_t(from - begin)], size_t(until - from), out + (from - at));
            };
            lay(0, self.content);
            lay(self.size - self.end.size(), self.end);
            self.moved += got;
            self.largest = std::max<uint64_t>(self.largest, count);
            return static_cast<int64_t>(got);
        }
    };

    mediafiles_plan_info info = {};
    std::vector<mediafiles_range> ranges = {};
    bytes file = {}; // as it is afterwards, where a plan changes it; empty beyond the size that was asked for

    bool keeps() const { return info.result == MEDIAFILES_REPAIRED || info.result == MEDIAFILES_SALVAGED; }

    planned(input &media, input *journal, uint32_t options, uint64_t most = 100'000'000)
    {
        const mediafiles_source from = media.source(), beside = journal ? journal->source() : mediafiles_source{};
        const std::unique_ptr<mediafiles_plan, decltype(&mediafiles_plan_destroy)> plan(
            mediafiles_plan_create(&from, journal ? &beside : nullptr, options), mediafiles_plan_destroy);
        if (!plan) return; // out of memory: a result of 0
        info.size = sizeof info;
        mediafiles_plan_get(plan.get(), &info);
        ranges.resize(info.ranges);
        for (uint32_t i = 0; i < info.ranges; i++)
            if (mediafiles_plan_range(plan.get(), i, &ranges[i]) != 0) std::abort();
        mediafiles_range range;
        uint8_t head[MEDIAFILES_HEAD_SIZE];
        if (mediafiles_plan_range(plan.get(), info.ranges, &range) == 0 ||
            (mediafiles_plan_head(plan.get(), head) == 0) != keeps())
            std::abort();
        const mediafiles_sink append = [](void *context, const void *data, size_t count) {
            auto &out = static_cast<planned *>(context)->file;
            const auto *begin = static_cast<const uint8_t *>(data);
            out.insert(out.end(), begin, begin + count);
            return 0;
        };
        if (!keeps() && mediafiles_plan_tail(plan.get(), append, this) == 0) std::abort();
        if (!keeps() || info.media_end > most) return;
        file.assign(media.content.begin(), media.content.end());
        file.resize(static_cast<size_t>(info.media_end));
        std::copy(std::begin(head), std::end(head), file.begin());
        if (mediafiles_plan_tail(plan.get(), append, this) != 0) std::abort();
        if (file.size() != info.file_size) std::abort();
    }
};

inline planned plan_of(const bytes &media, const bytes *journal, uint32_t options = 0)
{
    planned::input from = {media}, beside = {journal ? std::span<const uint8_t>(*journal) : std::span<const uint8_t>()};
    return planned(from, journal ? &beside : nullptr, options);
}
