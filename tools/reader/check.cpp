/**
 * The tables are joined into samples, and samples, durations and edits are
 * compared with each other and with mdat. The size of the file bounds the
 * work: a sample takes a byte of media or a table entry of its own (see
 * `budget`), and no byte of media is walked twice.
 */
#include "tools/reader/check.h"

#include <algorithm>
#include <cmath>
#include <set>

#include "tools/reader/findings.h"

namespace mp4 {
namespace {

/** The first box of that type, however deep, or nullptr. */
const box *find(const std::vector<box> &boxes, const std::string &type)
{
    for (const box &b : boxes) {
        if (b.type == type) return &b;
        if (const box *inner = find(b.children, type)) return inner;
    }
    return nullptr;
}

class checker : findings {
public:
    checker(byte_source &source, file &result)
        : findings(result), in(source), moov(find(result.boxes, "moov")), budget(std::min(in.size, max_samples))
    {
    }

    void run()
    {
        if (const box *moof = find(out.boxes, "moof")) {
            remark(moof->offset, "movie fragments (moof) are not read");
            fragmented = true;
        }
        for (track &t : out.tracks) {
            subject = &t;
            join_tables(t);
            check_kind(t);
            if (!t.timescale || !out.timescale || t.samples.size() != t.sample_count) continue;
            check_media_duration(t);
            check_progress(t);
            check_track_duration(t);
        }
        subject = nullptr;
        check_movie();
        check_layout();
    }

private:
    /** @return the box of that type in the track, or nullptr */
    const box *inside(const track &t, const char *type) const
    {
        return find(std::ranges::lower_bound(moov->children, t.offset, {}, &box::offset)->children, type);
    }
    uint64_t where(const track &t, const char *type) const
    {
        const box *b = inside(t, type);
        return b ? b->offset : t.offset;
    }

    /** Joins stts, stsc, stsz, stco and stss into samples, as far as they go together. */
    void join_tables(track &t)
    {
        const uint64_t count = t.sample_count;
        const uint64_t stsc_at = where(t, "stsc"), stts_at = where(t, "stts"), stss_at = where(t, "stss");
        const size_t chunks = t.chunk_offsets.size();
        /* Both are mandatory, but say nothing where there are no samples. */
        if (!inside(t, "stts")) report(count != 0, t.offset, "stbl holds no stts");
        if (!inside(t, "stco") && !inside(t, "co64")) report(count != 0, t.offset, "stbl holds no stco");

        uint64_t timed = 0, placed = 0;
        tally empty_runs, order;
        for (const stts_run &run : t.stts) {
            timed += run.count;
            if (!run.count) empty_runs.add(stts_at, "stts: a run of no samples");
        }
        report(true, empty_runs);
        if (timed != count) fault(stts_at, "stts times ", timed, " samples, stsz has ", count);

        const box *stsd = inside(t, "stsd");
        const auto next = [&](size_t i) { return i + 1 < t.stsc.size() ? t.stsc[i + 1].first_chunk : chunks + 1; };
        for (size_t i = 0; i < t.stsc.size(); i++) {
            const auto &[first, per_chunk, description] = t.stsc[i];
            if (first == 0 || (i == 0 && first != 1) || next(i) <= first)
                return fault(stsc_at, "stsc: chunk ", first, " cannot be followed by ", next(i), ", of ", chunks);
            if (!per_chunk || !description || !stsd || description > stsd->children.size())
                return fault(stsc_at, "stsc: ", per_chunk, " samples of sample description ", description);
            placed += uint64_t{next(i) - first} * per_chunk;
        }
        if (placed != count || (chunks && !count))
            fault(stsc_at, "stsc places ", placed, " samples in ", chunks, " chunks, stsz has ", count);

        const uint64_t usable = std::min({count, timed, placed});
        if (usable > budget) return fault(where(t, "stsz"), "there can be no ", usable, " samples in this file");
        budget -= usable;
        t.samples.reserve(static_cast<size_t>(usable));
        uint64_t time = 0, in_run = 0;
        for (size_t i = 0, run = 0; i < t.stsc.size(); i++)
            for (size_t chunk = t.stsc[i].first_chunk - 1; chunk < next(i) - 1; chunk++) {
                uint64_t offset = t.chunk_offsets[chunk];
                for (uint32_t n = 0; n < t.stsc[i].samples_per_chunk && t.samples.size() < usable; n++) {
                    for (; in_run == t.stts[run].count; in_run = 0) run++;
                    const uint32_t size = t.sample_size ? t.sample_size : t.sample_sizes[t.samples.size()];
                    const uint32_t duration = t.stts[run].delta;
                    t.samples.push_back({offset, time, size, duration, static_cast<uint32_t>(chunk), !t.stss});
                    offset += size;
                    time += duration;
                    in_run++;
                }
            }
        for (uint32_t previous = 0; const uint32_t number : t.stss.value_or(std::vector<uint32_t>())) {
            if (number <= previous || number > count)
                order.add(stss_at, "stss: sample ", number, " after ", previous, ", of ", count);
            else if (number <= usable)
                t.samples[number - 1].sync = true;
            previous = number;
        }
        report(true, order);
    }

    /** Handler, headers and sample entry have to speak of the same kind of track. */
    void check_kind(const track &t)
    {
        const bool video = t.handler == "vide", audio = t.handler == "soun";
        if (((t.avc || t.hevc) && !video) || (t.es && !audio) || t.media_header.empty() ||
            (video && t.media_header != "vmhd") || (audio && t.media_header != "smhd"))
            departure(t.offset, "handler ", t.handler, ", ", t.media_header, " and ", t.entry, " do not go together");
        if (t.volume != (audio ? 0x0100 : 0)) remark(where(t, "tkhd"), "tkhd: volume is ", t.volume);
        if (!t.avc && !t.hevc && !t.es)
            remark(where(t, "stsd"), "stsd: the sample entry ", t.entry, " is not read");
        else if (t.width != uint32_t{t.entry_width} << 16 || t.height != uint32_t{t.entry_height} << 16)
            remark(where(t, "tkhd"), "tkhd: width and height are not those of the sample entry");
        if ((t.avc || t.hevc) && (!t.entry_width || !t.entry_height))
            fault(t.offset, t.entry, ": the picture has no size");
        const auto none = [](const std::vector<bytes> &sets) { return std::ranges::all_of(sets, &bytes::empty); };
        if (t.entry == "avc1" && t.avc && !t.samples.empty() && (none(t.avc->sps) || none(t.avc->pps)))
            fault(where(t, "avcC"), "avcC has no parameter sets for the samples");
        if (!t.es) return;
        const uint64_t esds_at = where(t, "esds");
        if (t.es->es_id && t.es->es_id != (t.id & 0xFFFF))
            fault(esds_at, "esds: ES_ID ", t.es->es_id, " is not the track's");
        if (t.es->stream_type != 5) fault(esds_at, "esds: stream type ", +t.es->stream_type, " is not audio");
        if (t.es->object_type != 0x40) return; // not MPEG-4 audio: MP3 and others need no configuration
        if (t.es->config.size() < 2) return fault(esds_at, "esds: there is no AudioSpecificConfig");
        /* ISO/IEC 14496-3, 1.6.2.1: object type (2 is AAC LC), 5 bits; rate index, 4; channels, 4 */
        constexpr uint32_t rates[16] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                        22050, 16000, 12000, 11025, 8000,  7350};
        const int config = t.es->config[0] << 8 | t.es->config[1], channels = config >> 3 & 15;
        const uint64_t rate = rates[config >> 7 & 15];
        if (config >> 11 != 2) return;
        if (rate != t.timescale || rate << 16 != t.sample_rate || (channels == 7 ? 8 : channels) != t.channels)
            remark(esds_at, "esds: ", channels, " channels at ", rate, " Hz, unlike mp4a or the timescale");
    }

    static uint64_t duration_of(const std::vector<sample> &samples)
    {
        return samples.empty() ? 0 : samples.back().time + samples.back().duration;
    }

    /** mdhd counts the samples and, as this recorder does, the start delay, which elst gives in coarser ticks. */
    void check_media_duration(const track &t)
    {
        const bool delayed = !t.edits.empty() && t.edits[0].media_time == -1;
        const double ticks = 1.0 * t.timescale / out.timescale; // of the track in one of the movie
        const double delay = delayed ? static_cast<double>(t.edits[0].duration) * ticks : 0;
        const auto counts = [&](uint64_t samples) {
            if (!delayed || t.media_duration < samples) return t.media_duration == samples;
            const double more = static_cast<double>(t.media_duration - samples);
            return more >= delay - 1 && more <= delay + ticks + 1;
        };
        const uint64_t all = duration_of(t.samples);
        if (counts(all) || (t.reordered && t.media_duration > all)) return;
        if (t.media_duration == all) return remark(where(t, "mdhd"), "mdhd: the duration leaves out the start delay");
        const uint64_t first = t.samples.empty() ? 0 : t.samples[0].duration;
        report(!counts(all - first), where(t, "mdhd"), "mdhd: duration ", t.media_duration,
               " is not that of the samples, ", all, " (the first ", first, delayed ? "), after the delay" : ")");
    }

    /** Samples in a row that last no time play as one: their source's clock has stood still, or stepped back. */
    void check_progress(const track &t)
    {
        constexpr size_t many = 5;
        size_t run = 0, longest = 0;
        uint64_t at = 0;
        for (const sample &s : t.samples) {
            run = s.duration == 0 ? run + 1 : 0;
            if (run <= longest) continue;
            longest = run;
            at = s.time;
        }
        if (longest >= many && t.timescale != 0)
            remark(where(t, "stts"), "the time stands still for ", longest, " samples at ",
                   static_cast<double>(at) / t.timescale, " s");
    }

    /** tkhd is the sum of the edits, and these play all samples, each of whose durations is rounded to a tick. */
    void check_track_duration(const track &t)
    {
        uint64_t edited = t.edits.empty() ? t.track_duration : 0;
        double played = t.edits.empty() ? static_cast<double>(edited) / out.timescale : 0;
        for (const edit &e : t.edits) {
            edited += e.duration;
            if (e.media_time < 0) continue;
            const double begin = static_cast<double>(e.media_time) / t.timescale;
            played = std::max(played, begin + static_cast<double>(e.duration) / out.timescale);
        }
        const uint64_t difference = std::max(edited, t.track_duration) - std::min(edited, t.track_duration);
        if (difference) /* who rounds each edit by itself is off by one for each */
            report(difference > t.edits.size(), where(t, "tkhd"), "tkhd: duration ", t.track_duration,
                   " is not the sum of the edits, ", edited);
        const double samples_end = static_cast<double>(duration_of(t.samples)) / t.timescale;
        const double slack = (static_cast<double>(t.samples.size()) / 2 + 1) / t.timescale + 1.0 / out.timescale;
        if (std::abs(played - samples_end) > slack && !t.reordered)
            report(played > samples_end || t.edits.empty(), where(t, t.edits.empty() ? "tkhd" : "elst"),
                   "the track plays to ", played, " s of its media, the samples end at ", samples_end, " s");
    }

    void check_movie()
    {
        std::set<uint32_t> ids;
        uint64_t longest = 0;
        for (const track &t : out.tracks) {
            longest = std::max(longest, t.track_duration);
            if (!t.id || !ids.insert(t.id).second) fault(t.offset, "track ID ", t.id, " is 0 or used twice");
        }
        const box *header = find(out.boxes, "mvhd"), *list = find(out.boxes, "iods");
        if (header && out.duration != longest)
            fault(header->offset, "mvhd: duration ", out.duration, " is not the longest track's, ", longest);
        if (header && !ids.empty() && out.next_track_id <= *ids.rbegin())
            /* Writers of fragments store it before they know the tracks; it concerns whoever adds one. */
            report(!fragmented, header->offset, "mvhd: next_track_ID ", out.next_track_id,
                   " is not above all track IDs");
        for (const uint32_t id : out.iods_tracks)
            if (!ids.contains(id)) fault(list->offset, "iods: there is no track ", id);
    }

    /** Compares all chunks, in file order, with mdat and each other; a chunk's samples follow each other without a gap. */
    void check_layout()
    {
        struct chunk {
            uint64_t begin, length;
            size_t track, first, count;
        };
        struct tallies {
            tally outside, overlap, lengths, empty;
        };
        std::vector<chunk> chunks;
        for (size_t i = 0; i < out.tracks.size(); i++)
            for (size_t n = 0; n < out.tracks[i].samples.size(); n++) {
                const sample *s = &out.tracks[i].samples[n];
                if (n == 0 || s->chunk != s[-1].chunk) chunks.push_back({s->offset, 0, i, n, 0});
                chunks.back().length += s->size;
                chunks.back().count++;
            }
        std::ranges::stable_sort(chunks, {}, &chunk::begin);

        std::vector<tallies> found(out.tracks.size());
        uint64_t used_end = 0, unused = 0;
        for (const range &r : out.mdat) unused += r.end - r.begin;
        for (const chunk &c : chunks) {
            const track &t = out.tracks[c.track];
            const uint64_t number = uint64_t{t.samples[c.first].chunk} + 1;
            const auto mdat = std::ranges::upper_bound(out.mdat, c.begin, {}, &range::begin); // the one after it
            if (mdat == out.mdat.begin() || c.begin > mdat[-1].end || c.length > mdat[-1].end - c.begin) {
                found[c.track].outside.add(c.begin, "chunk ", number, ", of ", c.length, " bytes, is outside mdat");
            } else if (c.begin < used_end) {
                found[c.track].overlap.add(c.begin, "chunk ", number, " overlaps another");
            } else {
                used_end = c.begin + c.length;
                unused -= c.length;
                /* Only here, where no byte is met twice, does the file's size bound the work. */
                for (size_t n = c.first; n < c.first + c.count; n++)
                    check_units(t, n, found[c.track].lengths, found[c.track].empty);
            }
        }
        for (size_t i = 0; i < found.size(); i++) {
            subject = &out.tracks[i];
            for (const tally *t : {&found[i].outside, &found[i].overlap, &found[i].lengths}) report(true, *t);
            report(false, found[i].empty);
        }
        subject = nullptr;
        if (unused && !fragmented) remark(out.mdat.front().begin, unused, " bytes of mdat belong to no sample");
    }

    /** The NAL units of an H.264 or H.265 sample fill it, each after its length (ISO/IEC 14496-15, 4.3.3). */
    void check_units(const track &t, size_t index, tally &lengths, tally &empty)
    {
        const size_t width = t.avc ? t.avc->length_size : t.hevc ? t.hevc->length_size : 0;
        const sample &s = t.samples[index];
        if (!s.size) empty.add(s.offset, "sample ", index + 1, " is empty");
        cursor c(in, s.offset, s.offset + s.size);
        while (width && c.left()) {
            const uint64_t at = c.at, length = c.be(width);
            if (c.ran_out || length > c.left())
                return lengths.add(at, "sample ", index + 1, ": NAL unit lengths do not add up to its size, ", s.size);
            if (!length) empty.add(at, "sample ", index + 1, " has a NAL unit of length 0");
            c.at += length;
        }
    }

    byte_source &in;
    const box *moov; // there is one when there are tracks
    bool fragmented = false;
    uint64_t budget; // samples still allowed: each takes a byte of media or a table entry of its own
};

} // namespace

void check(byte_source &in, file &out)
{
    checker(in, out).run();
}

} // namespace mp4
