/**
 * A builder with its tracks and its journal, made once and used for one file
 * after another: making a track prints a line and takes memory.
 */
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <new>

#include <mediafiles/builder.h>
#include <mediafiles/caretaker.h>
#include <mediafiles/movie.h>

namespace mediafiles::recorder {

class muxer {
public:
    muxer() : journal_(mediafile_caretaker_create()), builder_(mp4_builder_create())
    {
        slots_.fill(-1);
        if (!builder_ || !journal_) throw std::bad_alloc();
    }

    mp4_builder *builder() const { return builder_.get(); }
    mediafile_caretaker *journal() const { return journal_.get(); }

    /** Whether a track has its place in the files: its description is complete. */
    bool has(uint32_t track) const { return slots_[track] >= 0; }
    /** The track's index in the movie. */
    int slot(uint32_t track) const { return slots_[track]; }

    /** @return 0; -1 with errno */
    int add(uint32_t track, const mp4_track_desc &desc)
    {
        slots_[track] = builder_->add_track(builder_.get(), &desc);
        return slots_[track] < 0 ? -1 : 0;
    }

    const mp4_track_desc &description(uint32_t track) const { return builder_->movie->track_desc[slots_[track]]; }

private:
    struct release {
        void operator()(mp4_builder *builder) const { builder->destroy(builder); }
        void operator()(mediafile_caretaker *journal) const { mediafile_caretaker_destroy(journal); }
    };
    std::unique_ptr<mediafile_caretaker, release> journal_; // borrowed by the builder
    std::unique_ptr<mp4_builder, release> builder_;
    std::array<int, MP4_MAX_TRACKS> slots_;
};

} // namespace mediafiles::recorder
