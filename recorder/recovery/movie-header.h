// A reader of the movie header of a file that the core has finished, in
// windows: it answers whether the header is sound, whether its samples cover
// the media without a gap, and whether a journal speaks of the same samples.
//
// It shares nothing with the code that writes headers. Boxes that it does not
// know are passed over, so a file to which another program has added some
// stays sound (ISO/IEC 14496-12 8).
#pragma once

#include <cstdint>
#include <optional>

#include "codec.h"
#include "window.h"

namespace mediafiles::recovery {

struct extent {
    uint64_t offset; // in the file
    uint64_t size;   // bytes
};

// A table of a track: where its entries begin in the file, and how many there are.
struct header_table {
    uint64_t offset = 0;
    uint32_t count = 0;
    bool present = false;
};

struct header_track {
    const codec *kind = nullptr;
    uint32_t timescale = 0;
    uint64_t duration = 0;    // mdhd, ticks of the timescale
    uint64_t delay = 0;       // of an empty edit, ticks of the movie's timescale
    uint64_t entry = 0;       // body of the sample entry: offset in the file
    uint64_t config = 0;      // body of avcC or hvcC: likewise
    uint32_t config_size = 0; // bytes
    header_table stts, stss, stsc, stco, stsz;
    uint32_t common_size = 0; // stsz: of all samples; 0 when the table lists them
};

// The samples of one track, one after the other.
class track_places {
public:
    track_places(const mediafiles_source &media, const header_track &track, uint32_t window_size)
        : track_(track), sizes_(media, window_size), chunks_(media, window_size), runs_(media, window_size)
    {
    }

    // false after the last sample, and where the tables contradict each other: then is_sound is false.
    bool next(extent &out);
    // The next samples of a chunk at once, where they have one size: their table has no entries that would bound them.
    bool next_run(extent &out);
    bool is_sound() const { return sound_; }
    // Whether exactly as many chunks were used as there are.
    bool is_complete() const { return sample_ == track_.stsz.count && chunk_ == track_.stco.count && left_ == 0; }
    bool out_of_memory() const { return sizes_.out_of_memory() || chunks_.out_of_memory() || runs_.out_of_memory(); }

private:
    bool take(extent &out, bool run);
    bool begin_chunk();
    bool begin_run();
    bool fail() { return sound_ = false; }

    const header_track &track_;
    window sizes_, chunks_, runs_;
    uint32_t sample_ = 0;    // the next one
    uint32_t chunk_ = 0;     // chunks begun
    uint32_t run_ = 0;       // entries of stsc begun
    uint32_t per_chunk_ = 0; // samples, of the current run
    uint32_t next_run_ = 1;  // number of the chunk with which the next run begins
    uint32_t left_ = 0;      // samples of the current chunk
    uint64_t offset_ = 0;    // of the next sample
    bool sound_ = true;
};

class movie_header {
public:
    explicit movie_header(const mediafiles_source &media) : media_(media), boxes_(media, 65536) {}

    // Whether a sound moov fills those bytes of the file.
    bool read(uint64_t begin, uint64_t end);

    // Whether whole boxes fill those bytes, and the type of one is none of the core's: another program has written the
    // header. To be asked where it is not sound.
    bool is_of_another_program(uint64_t begin, uint64_t end);

    // Whether the samples of all tracks follow each other from the first byte to the last, without a gap.
    bool covers(uint64_t begin, uint64_t end);

    // Before samples are compared. They are given in the order of a journal.
    void begin_places();
    // Whether that is the next sample of the track.
    bool has_next(uint32_t track, uint64_t offset, uint32_t size);

    // Whether decoders get this parameter set.
    bool has_set(uint32_t track, const uint8_t *unit, uint32_t length);

    uint32_t tracks() const { return count_; }
    const header_track &track(uint32_t index) const { return tracks_[index]; }
    bool out_of_memory() const { return out_of_memory_; }

private:
    struct box {
        char type[4];
        uint64_t begin, end; // of the body
        bool is(const char *name) const;
    };
    struct box_range {
        uint64_t begin, end;
    };
    template <class Visit>
    bool for_each_box(box_range range, Visit visit);
    bool is_whole(const box &outer, bool &unknown);
    bool read_track(const box &trak);
    bool read_edits(header_track &track, const box &edts);
    bool read_media(header_track &track, const box &mdia);
    bool read_tables(header_track &track, const box &minf);
    bool read_table(header_track &track, const box &table);
    bool read_description(header_track &track, const box &stsd);
    bool count_table(header_table &out, const box &table, uint32_t header, uint32_t entry);
    bool is_sound(const header_track &track);
    bool durations_add_up(const header_track &track);
    bool sync_samples_ascend(const header_track &track);
    template <class Visit>
    bool for_each_set(const header_track &track, Visit visit);
    uint64_t be(uint64_t offset, uint32_t width, bool &there);

    mediafiles_source media_;
    window boxes_;
    header_track tracks_[MP4_MAX_TRACKS];
    uint32_t count_ = 0;
    uint32_t timescale_ = 0; // of the movie
    std::optional<track_places> places_[MP4_MAX_TRACKS];
    bool out_of_memory_ = false;
};

} // namespace mediafiles::recovery
