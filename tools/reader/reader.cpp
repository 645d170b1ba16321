/**
 * The reader makes two passes over a file. First, here, the boxes: `rules` lists
 * which box may be where, how often, and which parser reads it; a parser stores
 * what it finds and checks what concerns its box alone. Then, in check.cpp, the
 * whole.
 *
 * No value of a file is used before it is checked. A cursor never
 * leaves its box. Boxes nest only where `rules` has a parent for them, and
 * there no type is its own ancestor, so the table bounds the depth. The size
 * of the file bounds memory: a table entry takes bytes of its own.
 */
#include "tools/reader/reader.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/reader/byte-source.h"
#include "tools/reader/check.h"
#include "tools/reader/findings.h"

namespace mp4 {
namespace {

constexpr size_t max_boxes = 1 << 15;
constexpr uint32_t one = 0x00010000; // 1.0 in 16.16

class reader : findings {
public:
    reader(byte_source &source, file &result) : findings(result), in(source) {}

    void run()
    {
        out.size = in.size;
        box root{"", 0, in.size, 0, 0, 0, {}};
        cursor whole(in, 0, in.size);
        children(whole, root);
        out.boxes = std::move(root.children);
        check(in, out);
        if (in.failed) fault(in.size, "the file could not be read to its end");
    }

private:
    struct rule {
        const char *parent, *type; // parent "" is the file itself
        uint32_t least, most;      // how many the parent holds; most 0 for any number
        void (reader::*parse)(cursor &, box &);
        int newest = -1;                           // version, of a full box
        uint32_t flags_wanted = 0, flags_free = 0; // of a full box
    };
    static const rule rules[];

    /* Fields */

    /** Passes over creation_time and modification_time. @return the width of a time */
    static size_t times(cursor &c, const box &b)
    {
        const size_t width = b.version ? 8 : 4;
        c.part(2 * width);
        return width;
    }
    /** A field with a fixed value: another is a fault, or a remark where the standard gives a default. */
    void fixed(cursor &c, const box &b, size_t width, uint64_t value, const char *field, bool must = true)
    {
        const uint64_t at = c.at, found = c.be(width);
        if (!c.ran_out && found != value) report(must, at, b.type, ": ", field, " is ", found, " instead of ", value);
    }
    void zeros(cursor &c, const box &b, uint64_t count)
    {
        const uint64_t at = c.at;
        if (std::ranges::count(c.take(count), 0) != static_cast<ptrdiff_t>(count) && !c.ran_out)
            departure(at, b.type, ": reserved bytes are not 0");
    }
    /** @return the bits of a byte below those that have to be ones */
    uint8_t below_ones(cursor &c, const box &b, int ones)
    {
        const uint64_t at = c.at;
        const uint8_t found = c.u8();
        if (!c.ran_out && (found & ones) != ones) fault(at, b.type, ": reserved bits are not ones");
        return static_cast<uint8_t>(found & ~ones);
    }
    void matrix(cursor &c, const box &b)
    {
        for (const uint32_t unity : {one, 0u, 0u, 0u, one, 0u, 0u, 0u, 0x40000000u})
            fixed(c, b, 4, unity, "matrix", false);
    }
    template <class Entry>
    void table(cursor &c, const box &b, size_t width, std::vector<Entry> &entries, const auto &read_entry)
    {
        const uint64_t at = c.at, count = c.u32(), room = std::min(c.left() / width, max_samples);
        if (count > room) fault(at, b.type, " claims ", count, " entries, but has room for ", room);
        entries.reserve(static_cast<size_t>(std::min(count, room)));
        while (entries.size() < std::min(count, room)) entries.push_back(read_entry());
    }

    /* Boxes */

    void children(cursor &c, box &parent);

    void ftyp(cursor &c, box &b)
    {
        if (b.offset) fault(b.offset, "ftyp is not the first box");
        out.major_brand = c.four();
        out.minor_version = c.u32();
        while (c.left() >= 4) out.compatible_brands.push_back(c.four());
    }
    void mdat(cursor &c, box &)
    {
        out.mdat.push_back({c.at, c.end});
        c.at = c.end;
    }
    void mvhd(cursor &c, box &b)
    {
        const size_t time = times(c, b);
        out.timescale = c.u32();
        out.duration = c.be(time);
        fixed(c, b, 4, one, "rate", false);
        fixed(c, b, 2, 0x0100, "volume", false);
        zeros(c, b, 10);
        matrix(c, b);
        zeros(c, b, 24);
        out.next_track_id = c.u32();
        if (!out.timescale) fault(b.offset, "mvhd: timescale is 0");
    }
    void trak(cursor &c, box &b)
    {
        subject = current = &out.tracks.emplace_back();
        current->offset = b.offset;
        children(c, b);
        subject = nullptr;
    }
    void tkhd(cursor &c, box &b)
    {
        const size_t time = times(c, b);
        current->id = c.u32();
        zeros(c, b, 4);
        current->track_duration = c.be(time);
        zeros(c, b, 8);
        c.part(4); // layer, alternate_group
        current->volume = c.u16();
        zeros(c, b, 2);
        matrix(c, b);
        current->width = c.u32();
        current->height = c.u32();
    }
    void elst(cursor &c, box &b)
    {
        const bool wide = b.version;
        table(c, b, wide ? 20 : 12, current->edits, [&] {
            const uint64_t at = c.at, duration = c.be(wide ? 8 : 4);
            const int64_t time = wide ? static_cast<int64_t>(c.be(8)) : static_cast<int32_t>(c.u32());
            const edit e{duration, time, c.u32()};
            if (e.media_time < -1) fault(at, "elst: media_time ", e.media_time, " is before the media");
            if (e.rate != one) remark(at, "elst: media_rate is not 1");
            return e;
        });
        if (!current->edits.empty() && current->edits.back().media_time == -1)
            fault(b.offset, "elst: the last edit is empty");
    }
    void mdhd(cursor &c, box &b)
    {
        const size_t time = times(c, b);
        current->timescale = c.u32();
        current->media_duration = c.be(time);
        const uint16_t language = c.u16();
        for (const int shift : {10, 5, 0}) current->language += static_cast<char>((language >> shift & 31) + 0x60);
        fixed(c, b, 2, 0, "pre_defined");
        if (!current->timescale) fault(b.offset, "mdhd: timescale is 0");
        if (language >> 15 || std::ranges::any_of(current->language, [](char l) { return l < 'a' || l > 'z'; }))
            departure(b.offset, "mdhd: language ", language, " is not three letters");
    }
    void hdlr(cursor &c, box &b)
    {
        const std::string component = c.four(); // pre_defined; QuickTime's component type is at home here too
        if (component != "mhlr" && component != "dhlr" && component != std::string(4, '\0'))
            fault(b.offset, "hdlr: pre_defined is not 0");
        current->handler = c.four();
        zeros(c, b, 12);
        c.at = std::max(c.at, c.end - 1); // the end of the name
        if (c.u8()) departure(b.offset, "hdlr: the name does not end with 0");
    }
    void media_header(cursor &c, box &b)
    {
        if (!current->media_header.empty()) fault(b.offset, "minf holds a second media header, ", b.type);
        current->media_header = b.type;
        if (b.type == "vmhd") c.part(8); // graphicsmode, opcolor
        if (b.type == "smhd") c.part(4); // balance, reserved
    }
    void counted_children(cursor &c, box &b)
    {
        const uint32_t count = c.u32();
        children(c, b);
        if (count != b.children.size())
            fault(b.offset, b.type, ": entry_count is ", count, ", entries are ", b.children.size());
        if (count > 1) remark(b.offset, b.type, ": only the first entry is used");
        if (b.type == "stsd" && !b.children.empty()) current->entry = b.children.front().type;
    }
    void url(cursor &, box &) {} // all is in its flags

    /* Sample entries */

    void sample_entry(cursor &c, box &b)
    {
        if (!current->entry.empty()) return static_cast<void>(c.at = c.end); // the second of several
        current->entry = b.type;
        zeros(c, b, 6);
        fixed(c, b, 2, 1, "data_reference_index");
        if (b.type == "mp4a") {
            zeros(c, b, 8);
            current->channels = c.u16();
            current->sample_bits = c.u16();
            zeros(c, b, 4);
            current->sample_rate = c.u32();
        } else {
            zeros(c, b, 16);
            current->entry_width = c.u16();
            current->entry_height = c.u16();
            fixed(c, b, 4, 0x00480000, "horizresolution", false);
            fixed(c, b, 4, 0x00480000, "vertresolution", false);
            zeros(c, b, 4);
            fixed(c, b, 2, 1, "frame_count", false);
            if (c.u8() > 31) fault(b.offset, b.type, ": compressorname leaves its 32 bytes");
            c.part(31);
            fixed(c, b, 2, 0x0018, "depth", false);
            fixed(c, b, 2, 0xFFFF, "pre_defined");
        }
        children(c, b);
    }
    std::vector<bytes> parameter_sets(cursor &c, const box &b, uint32_t count, uint8_t type)
    {
        std::vector<bytes> sets;
        while (count-- && !c.ran_out) {
            const uint64_t at = c.at;
            const bytes &unit = sets.emplace_back(c.take(c.u16()));
            if (unit.empty())
                remark(at, b.type, ": a parameter set (NAL unit type ", +type, ") is empty");
            else if (const int found = b.type == "hvcC" ? unit[0] >> 1 & 63 : unit[0] & 31; found != type)
                fault(at, b.type, ": a parameter set (NAL unit type ", +type, ") is of type ", found);
        }
        return sets;
    }
    uint8_t length_size(cursor &c, const box &b, int ones)
    {
        const int size = (below_ones(c, b, ones) & 3) + 1;
        if (size == 3) fault(b.offset, b.type, ": NAL unit lengths of 3 bytes are not allowed");
        return static_cast<uint8_t>(size);
    }
    void avcc(cursor &c, box &b)
    {
        avc_config &config = current->avc.emplace();
        fixed(c, b, 1, 1, "configurationVersion");
        config.profile = c.u8();
        config.compatibility = c.u8();
        config.level = c.u8();
        config.length_size = length_size(c, b, 0xFC);
        config.sps = parameter_sets(c, b, below_ones(c, b, 0xE0), 7);
        config.pps = parameter_sets(c, b, c.u8(), 8);
        const uint8_t stated[] = {config.profile, config.compatibility, config.level};
        for (const bytes &sps : config.sps)
            if (sps.size() >= 4 && !std::equal(stated, stated + 3, sps.begin() + 1))
                fault(b.offset, "avcC: profile or level is not that of the sequence parameter set");
        constexpr uint8_t extended[] = {100, 110, 122, 144}; // profiles with more fields here
        if (std::ranges::find(extended, config.profile) == std::end(extended) || c.ran_out) return;
        if (!c.left()) return remark(b.offset, "avcC: chroma format and bit depths are left out");
        for (const int ones : {0xFC, 0xF8, 0xF8}) below_ones(c, b, ones); // chroma_format, bit depths
        parameter_sets(c, b, c.u8(), 13);
    }
    void hvcc(cursor &c, box &b)
    {
        hevc_config &config = current->hevc.emplace();
        fixed(c, b, 1, 1, "configurationVersion");
        config.profile = c.u8();
        config.compatibility = c.u32();
        config.constraints = c.be(6);
        config.level = c.u8();
        /* min_spatial_segmentation_idc (2 bytes), parallelismType, chromaFormat, bit depths of luma and chroma */
        for (const int ones : {0xF0, 0x00, 0xFC, 0xFC, 0xF8, 0xF8}) below_ones(c, b, ones);
        c.u16(); // avgFrameRate
        config.length_size = length_size(c, b, 0);
        for (uint8_t arrays = c.u8(); arrays && !c.ran_out; arrays--) {
            const uint8_t head = c.u8(), type = head & 63;
            if (head & 0x40) fault(b.offset, "hvcC: the reserved bit of an array is not 0");
            config.arrays.push_back({(head & 0x80) != 0, type, parameter_sets(c, b, c.u16(), type)});
        }
    }
    /**
     * Descriptors (ISO/IEC 14496-1, 7.2.6): a tag, a size of up to four times seven bits, a body that may hold more
     * of them. Those of iods describe the movie, those of esds (with es) a track.
     */
    void descriptors(cursor &c, const box &b, es_descriptor *es, int depth = 3)
    {
        while (c.left()) {
            const uint64_t at = c.at;
            const uint8_t tag = c.u8();
            uint32_t size = 0, byte = 0x80;
            for (int i = 0; i < 4 && byte & 0x80; i++) size = size << 7 | ((byte = c.u8()) & 0x7F);
            if (byte & 0x80 || size > c.left()) fault(at, b.type, ": descriptor ", +tag, " leaves what holds it");
            cursor body = c.part(size);
            if (!es && (tag == 0x02 || tag == 0x10)) { // initial object descriptor
                if (body.u16() & 0x20) continue;       // a URL instead of all else
                body.part(5);                          // profiles and levels
            } else if (!es && tag == 0x0E) {           // ES_ID_Inc
                out.iods_tracks.push_back(body.u32());
            } else if (es && tag == 0x03) { // ES_Descriptor
                es->es_id = body.u16();
                const uint8_t flags = body.u8();
                if (flags & 0x80) body.part(2);         // dependsOn_ES_ID
                if (flags & 0x40) body.part(body.u8()); // URL
                if (flags & 0x20) body.part(2);         // OCR_ES_Id
            } else if (es && tag == 0x04) {             // DecoderConfigDescriptor
                es->object_type = body.u8();
                es->stream_type = body.u8() >> 2;
                es->buffer_size = static_cast<uint32_t>(body.be(3));
                es->max_bitrate = body.u32();
                es->average_bitrate = body.u32();
            } else {
                if (es && tag == 0x05) es->config = body.take(body.left()); // DecoderSpecificInfo
                if (es && tag == 0x06) fixed(body, b, 1, 2, "SLConfigDescriptor's predefined");
                body.at = body.end;
            }
            if (depth) descriptors(body, b, es, depth - 1);
            if (body.ran_out) fault(at, b.type, ": descriptor ", +tag, " ends before its last field");
        }
    }
    void iods(cursor &c, box &b) { descriptors(c, b, nullptr); }
    void esds(cursor &c, box &b) { descriptors(c, b, &current->es.emplace()); }

    /* Sample tables */

    void stts(cursor &c, box &b)
    {
        table(c, b, 8, current->stts, [&] { return stts_run{c.u32(), c.u32()}; });
    }
    void stss(cursor &c, box &b)
    {
        table(c, b, 4, current->stss.emplace(), [&] { return c.u32(); });
    }
    void stsc(cursor &c, box &b)
    {
        table(c, b, 12, current->stsc, [&] { return stsc_run{c.u32(), c.u32(), c.u32()}; });
    }
    void stsz(cursor &c, box &b)
    {
        current->sample_size = c.u32();
        if (!current->sample_size) table(c, b, 4, current->sample_sizes, [&] { return c.u32(); });
        current->sample_count = current->sample_size ? c.u32() : static_cast<uint32_t>(current->sample_sizes.size());
    }
    void chunk_offsets(cursor &c, box &b)
    {
        if (!current->chunk_offsets.empty()) fault(b.offset, "stbl holds both stco and co64");
        current->chunk_offsets.clear();
        const size_t width = b.type == "co64" ? 8 : 4;
        table(c, b, width, current->chunk_offsets, [&] { return c.be(width); });
    }
    void ctts(cursor &c, box &b)
    {
        current->reordered = true;
        remark(b.offset, "composition offsets (ctts) are not read");
        c.at = c.end;
    }

    byte_source &in;
    track *current = nullptr; // the track that is read
    size_t boxes = 0;
};

const reader::rule reader::rules[] = {
    {"", "ftyp", 1, 1, &reader::ftyp},
    {"", "mdat", 1, 0, &reader::mdat},
    {"", "moov", 1, 1, &reader::children},
    {"moov", "mvhd", 1, 1, &reader::mvhd, 1},
    {"moov", "iods", 0, 1, &reader::iods, 0},
    {"moov", "trak", 0, 0, &reader::trak},
    {"trak", "tkhd", 1, 1, &reader::tkhd, 1, 0, 0xF},
    {"trak", "edts", 0, 1, &reader::children},
    {"edts", "elst", 1, 1, &reader::elst, 1},
    {"trak", "mdia", 1, 1, &reader::children},
    {"mdia", "mdhd", 1, 1, &reader::mdhd, 1},
    {"mdia", "hdlr", 1, 1, &reader::hdlr, 0},
    {"mdia", "minf", 1, 1, &reader::children},
    {"minf", "vmhd", 0, 1, &reader::media_header, 0, 1},
    {"minf", "smhd", 0, 1, &reader::media_header, 0},
    {"minf", "nmhd", 0, 1, &reader::media_header, 0},
    {"minf", "dinf", 1, 1, &reader::children},
    {"dinf", "dref", 1, 1, &reader::counted_children, 0},
    {"dref", "url ", 0, 0, &reader::url, 0, 1}, // flag 1: the media are in this file
    {"minf", "stbl", 1, 1, &reader::children},
    {"stbl", "stsd", 1, 1, &reader::counted_children, 0},
    {"stsd", "avc1", 0, 0, &reader::sample_entry},
    {"stsd", "avc3", 0, 0, &reader::sample_entry},
    {"stsd", "hvc1", 0, 0, &reader::sample_entry},
    {"stsd", "hev1", 0, 0, &reader::sample_entry},
    {"stsd", "mp4a", 0, 0, &reader::sample_entry},
    {"avc1", "avcC", 1, 1, &reader::avcc},
    {"avc3", "avcC", 1, 1, &reader::avcc},
    {"hvc1", "hvcC", 1, 1, &reader::hvcc},
    {"hev1", "hvcC", 1, 1, &reader::hvcc},
    {"mp4a", "esds", 1, 1, &reader::esds, 0},
    {"stbl", "stts", 0, 1, &reader::stts, 0},
    {"stbl", "ctts", 0, 1, &reader::ctts, 1},
    {"stbl", "stss", 0, 1, &reader::stss, 0},
    {"stbl", "stsc", 1, 1, &reader::stsc, 0},
    {"stbl", "stsz", 1, 1, &reader::stsz, 0},
    {"stbl", "stco", 0, 1, &reader::chunk_offsets, 0},
    {"stbl", "co64", 0, 1, &reader::chunk_offsets, 0},
};

void reader::children(cursor &c, box &parent)
{
    const std::string name = parent.type.empty() ? "the file" : parent.type;
    const auto printable = [](char letter) { return (letter >= ' ' && letter <= '~') || letter == '\xA9'; };
    std::array<uint32_t, std::size(rules)> seen{};
    while (c.left()) {
        const uint64_t room = c.left();
        box b{"", c.at, 0, 8, 0, 0, {}};
        b.size = c.u32();
        b.type = c.four();
        if (c.ran_out || !std::ranges::all_of(b.type, printable)) {
            c.ran_out = false; // of the children, not of the fields of their parent
            const bool in_entry = name == "mp4a" || name == "avc1" || name == "hvc1" || name == "hev1";
            report(!in_entry || out.major_brand != "qt  ", b.offset, room, " bytes at the end of ", name,
                   " are no box");
            break;
        }
        if (b.size == 0) { /* to the end of the file: allowed, but an unfinished recording has it, too */
            if (parent.type.empty() && !out.tracks.empty())
                remark(b.offset, b.type, ": the size is 0, it has no end");
            else
                fault(b.offset, b.type, ": the size is 0, it was never finished");
            b.cut = out.tracks.empty();
            b.size = room;
        } else if (b.size == 1) {
            b.size = c.be(8);
            b.header = 16;
        }
        if (b.size < b.header || ++boxes > max_boxes) {
            fault(b.offset, b.type, boxes > max_boxes ? ": too many boxes to read" : ": the size is too small");
            break;
        }
        if (b.size > room) {
            fault(b.offset, b.type, ": size ", b.size, " leaves ", name, ", where ", room, " bytes are left");
            b.cut = true;
            b.size = room;
        }
        c.at = b.offset + b.size;
        for (const rule &r : rules) {
            if (parent.type != r.parent || b.type != r.type) continue;
            if (seen[static_cast<size_t>(&r - rules)]++ && r.most) {
                fault(b.offset, name, " holds a second ", b.type);
                continue;
            }
            cursor body(in, b.offset + b.header, c.at);
            if (r.newest >= 0) {
                b.version = body.u8();
                b.flags = static_cast<uint32_t>(body.be(3));
                if ((b.flags & ~r.flags_free) != r.flags_wanted)
                    fault(b.offset, b.type, ": flags ", b.flags, " are wrong");
                if (b.version > r.newest) fault(b.offset, b.type, ": version ", +b.version, " is unknown");
                if (b.version > r.newest) continue;
            }
            (this->*r.parse)(body, b);
            if (body.ran_out)
                fault(b.offset, b.type, " ends before its last field");
            else if (body.left())
                fault(body.at, b.type, ": ", body.left(), " bytes after its last field");
        }
        parent.children.push_back(std::move(b));
    }
    c.at = c.end;
    for (const rule &r : rules)
        if (parent.type == r.parent && seen[static_cast<size_t>(&r - rules)] < r.least)
            report(name != "mp4a" || out.major_brand != "qt  ", parent.offset, name, " holds no ", r.type);
}

file read_from(byte_source &&in)
{
    file out{};
    try {
        reader(in, out).run();
    } catch (const std::exception &) { // memory ran out: the tables of the file are larger than this machine
        out.tracks.clear();
        out.problems.push_back({true, 0, "there is not enough memory to read this file"});
    }
    return out;
}

} // namespace

file read(std::span<const uint8_t> data)
{
    return read_from(byte_source(data));
}

file read(const std::string &path)
{
    struct stat status {};
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); // a pipe must not block before it is refused
    const bool regular = fd >= 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    const char *why = fd < 0 ? std::strerror(errno) : "it is not a regular file";
    file out = read_from(byte_source(fd, regular ? static_cast<uint64_t>(status.st_size) : 0));
    if (!regular) out.problems = {{true, 0, join("the file cannot be read: ", why)}};
    if (fd >= 0) close(fd);
    return out;
}

} // namespace mp4
