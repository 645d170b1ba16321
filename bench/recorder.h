/** A recording with its journal into a sink that costs nothing, and the frames that an encoder would deliver. */
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

#include <mediafiles/builder.h>
#include <mediafiles/caretaker.h>
#include <mediafiles/movie.h>

struct kind {
    const char *name;
    mp4_track_desc desc;
    uint32_t frame_bytes;
    uint64_t interval_ns;
};

inline const kind kinds[] = {
    // 4 Mbit/s at 30 frames per second, and the same with slices of a sixteenth.
    {"video", {.type = MP4_TRACK_H264, .video = {1920, 1080, 0}}, 16667, 33'333'333},
    {"small-video", {.type = MP4_TRACK_H264, .video = {1920, 1080, 0}}, 1042, 33'333'333},
    {"audio", {.type = MP4_TRACK_AAC, .audio = {2, 16, 48000}}, 348, 21'333'333}, // 128 kbit/s
};

class recorder {
public:
    recorder(const kind &of, bool journaled) : what(of), frame(of.frame_bytes, 0xA5)
    {
        if (of.desc.type == MP4_TRACK_H264) {
            const uint8_t slice[] = {0, 0, 0, 1, 0x41};
            std::copy(std::begin(slice), std::end(slice), frame.begin());
        }
        builder = mp4_builder_create();
        journal = journaled ? mediafile_caretaker_create() : nullptr;
        sink = open("/dev/null", O_WRONLY);
        if (!builder || builder->add_track(builder, &what.desc) != 0 || builder->open(builder, sink, 65536, journal) != 0)
            fail("open");
    }

    ~recorder()
    {
        builder->destroy(builder);
        if (journal) mediafile_caretaker_destroy(journal);
        close(sink);
    }

    recorder(const recorder &) = delete;
    recorder &operator=(const recorder &) = delete;

    // One frame; its size differs from frame to frame. The journal is drained once a second.
    void add()
    {
        const uint64_t at = index * what.interval_ns;
        const mp4_frame next = {0, frame.data(), static_cast<uint32_t>(frame.size() - index % 7),
                                {static_cast<int32_t>(at / 1'000'000'000), static_cast<int32_t>(at % 1'000'000'000)},
                                index % 30 == 0};
        // A recording has a limit; the next file follows.
        if (written + next.len > MP4_MAX_RECORD_BYTES / 2) {
            if (builder->close(builder) != 0 || builder->open(builder, sink, 65536, journal) != 0) fail("next file");
            written = 0;
        }
        if (builder->add_frame(builder, &next) != 0) fail("add_frame");
        written += next.len;
        if (++index % 30 != 0 || !journal) return;
        uint32_t bytes;
        mediafile_caretaker_read(journal, &bytes);
        if (mediafile_caretaker_errcode(journal) != 0) fail("journal");
    }

private:
    [[noreturn]] static void fail(const char *step)
    {
        perror(step);
        exit(1);
    }

    const kind &what;
    std::vector<uint8_t> frame;
    mp4_builder *builder;
    mediafile_caretaker *journal;
    int sink;
    uint64_t index = 0;
    uint64_t written = 0;
};
