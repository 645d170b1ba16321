/** What the reader finds in an MP4 file: its boxes, its tracks and samples, and what is wrong with it. */
#ifndef TOOLS_READER_MP4_FILE_H
#define TOOLS_READER_MP4_FILE_H

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace mp4 {

using bytes = std::vector<uint8_t>;

struct problem {
    bool fault;      // the file breaks a standard or contradicts itself; else a remark: unusual, but playable
    uint64_t offset; // in the file, of the field or box that the text speaks of
    std::string text;
};

/** A box as it lies in the file; one that leaves its parent is cut to what is left of the parent. */
struct box {
    std::string type;          // four characters
    uint64_t offset;           // of its first byte in the file
    uint64_t size;             // bytes, header included
    uint32_t header;           // bytes: 8, or 16 with a 64-bit size
    uint8_t version;           // of a full box that is parsed, else 0
    uint32_t flags;            // likewise
    std::vector<box> children; // of the containers and sample entries that are parsed; others are leaves
    bool cut = false;          // it is not all there, or was never given a size
};

struct range {
    uint64_t begin, end; // file offsets; end is the byte after the last
};

struct edit {
    uint64_t duration;  // ticks of the movie timescale
    int64_t media_time; // ticks of the track's timescale; -1 for an empty edit
    uint32_t rate;      // 16.16
};

struct stts_run {
    uint32_t count, delta;
};

struct stsc_run {
    uint32_t first_chunk, samples_per_chunk, description; // first_chunk and description count from 1
};

struct sample {
    uint64_t offset;   // in the file
    uint64_t time;     // decoding time, ticks of the track's timescale, without edits
    uint32_t size;     // bytes
    uint32_t duration; // ticks
    uint32_t chunk;    // index in chunk_offsets
    bool sync;
};

/** avcC (ISO/IEC 14496-15, 5.3.3.1) */
struct avc_config {
    uint8_t profile, compatibility, level;
    uint8_t length_size; // bytes of a NAL unit's length prefix
    std::vector<bytes> sps, pps;
};

/** hvcC (ISO/IEC 14496-15, 8.3.3.1) */
struct hevc_config {
    struct array {
        bool complete;
        uint8_t nal_type;
        std::vector<bytes> units;
    };
    uint8_t profile; // profile space, tier flag and profile, as stored
    uint32_t compatibility;
    uint64_t constraints; // 48 bits
    uint8_t level;
    uint8_t length_size; // bytes of a NAL unit's length prefix
    std::vector<array> arrays;
};

/** What esds says (ISO/IEC 14496-1, 7.2.6.5) */
struct es_descriptor {
    uint16_t es_id;
    uint8_t object_type, stream_type;
    uint32_t buffer_size, max_bitrate, average_bitrate;
    bytes config; // AudioSpecificConfig
};

struct track {
    uint64_t offset; // of trak
    uint32_t id;
    uint64_t track_duration; // tkhd, ticks of the movie timescale
    uint16_t volume;         // 8.8
    uint32_t width, height;  // tkhd, 16.16
    std::vector<edit> edits;

    uint32_t timescale;       // ticks per second
    uint64_t media_duration;  // mdhd, ticks of timescale
    std::string language;     // three letters
    std::string handler;      // vide, soun, ...
    std::string media_header; // vmhd, smhd or nmhd

    std::string entry; // type of the first sample entry: avc1, hev1, mp4a, ...
    uint16_t entry_width, entry_height;
    uint16_t channels, sample_bits;
    uint32_t sample_rate; // 16.16
    std::optional<avc_config> avc;
    std::optional<hevc_config> hevc;
    std::optional<es_descriptor> es;

    /* The tables as stored; a table that claims more than its box holds ends with the box. */
    std::vector<stts_run> stts;
    std::optional<std::vector<uint32_t>> stss; // absent: every sample is a sync sample
    std::vector<stsc_run> stsc;
    uint32_t sample_size;  // stsz: common to all samples, 0 when sample_sizes lists them
    uint32_t sample_count; // stsz
    std::vector<uint32_t> sample_sizes;
    std::vector<uint64_t> chunk_offsets; // stco or co64
    bool reordered;                      // has ctts

    std::vector<sample> samples; // as many as all tables agree on; empty when they make no sense
};

struct file {
    uint64_t size; // bytes
    std::vector<box> boxes;
    std::vector<problem> problems; // the first 200; then one that says so, if faults were left out

    std::string major_brand;
    uint32_t minor_version;
    std::vector<std::string> compatible_brands;
    std::vector<range> mdat; // payloads

    uint32_t timescale; // mvhd, ticks per second
    uint64_t duration;  // mvhd, ticks of timescale
    uint32_t next_track_id;
    std::vector<uint32_t> iods_tracks; // track IDs that iods lists
    std::vector<track> tracks;

    /** No fault was found; remarks do not count. */
    bool sound() const { return std::ranges::none_of(problems, &problem::fault); }
};

} // namespace mp4

#endif
