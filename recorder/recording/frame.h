/**
 * What a pushed frame is, and its bytes as a sample has them.
 *
 * Video comes as Annex-B byte stream (ISO/IEC 14496-10 and 23008-2, Annex B):
 * a whole access unit, or a part of one. Its sample is each NAL unit, whatever
 * it is, after its length in 4 bytes; start codes, and zeros that are no part
 * of a NAL unit, are all that goes. Sound loses its ADTS header (adts.h).
 *
 * Looking and storing are two steps: the first needs no room and says how much
 * is needed and whether the frame can be stored at all; the second is the copy
 * that a recorder makes anyway. Both take the pieces of a frame as they lie in
 * the caller's memory, cut anywhere. Neither allocates, waits or keeps a state.
 */
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include <sys/uio.h>

#include <mediafiles/movie.h>

namespace mediafiles::recorder {

using frame_pieces = std::span<const iovec>;

/** Why a frame cannot be stored. */
enum class frame_fault : uint8_t {
    none,
    empty,            // no byte; one byte of sound
    too_large,        // its sample would have 2^31 bytes or more
    no_start_code,    // video that does not begin with a start code
    truncated_header, // a start code, and then less than a NAL unit's header
    bad_set,          // a parameter set whose number cannot be read
    bad_adts,         // an ADTS header that is cut, or has another length than the frame
    other_format,     // an ADTS header of another profile, rate or channel count than the track's, or several blocks
};

struct frame_facts {
    frame_fault fault = frame_fault::none;
    uint32_t stored_size = 0; // bytes of the sample

    bool key = false;            // has an IDR (H.264) or IRAP (H.265) picture; sound always
    bool recovery_point = false; // has an SEI message of that kind: ANY_START may begin here
    bool has_sets = false;       // has a parameter set: see set_reader
    /**
     * Has slices; without, what came is the beginning of an access unit (parameter sets, SEI, AUD) or its end, never a
     * whole one. Sound always.
     */
    bool has_slices = false;
    bool begins_picture = false; // its first slice is a picture's first; else it goes on with one. Sound always

    /* Where the first NAL units lie in the frame, so that storing need not search again; of sound, the payload. */
    static constexpr uint32_t most_noted = 16;
    struct extent {
        uint32_t begin, size;
    } noted[most_noted];
    uint32_t unit_count = 0; // all of them
};

/** Only the codec, and for sound rate and channels, of the track matter. With a fault nothing else is said. */
frame_facts look_at_frame(const mp4_track_desc &, frame_pieces);

/**
 * Writes facts.stored_size bytes. The same track and pieces as those that were looked at, which had no fault. Where their
 * bytes have changed since, it writes no more than that.
 */
void store_frame(const mp4_track_desc &, frame_pieces, const frame_facts &, uint8_t *to);

struct parameter_set {
    uint8_t kind; // MEMENTO_VPS, MEMENTO_SPS or MEMENTO_PPS, also what the journal calls it
    uint8_t id;   // its own number: up to 15 (VPS, and SPS of H.265), 31 (SPS), 63 (PPS of H.265) or 255 (PPS)
    std::span<const uint8_t> unit; // NAL unit without start code or length; in the sample
};

/** The parameter sets of a sample as it is stored, in their order. Those of H.265's upper layers are left out. */
class set_reader {
public:
    set_reader(const mp4_track_desc &track, std::span<const uint8_t> sample) : type_(track.type), rest_(sample) {}
    std::optional<parameter_set> next();

private:
    uint32_t type_;
    std::span<const uint8_t> rest_;
};

} // namespace mediafiles::recorder
