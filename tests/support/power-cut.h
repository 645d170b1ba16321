/**
 * Small recordings with every write that they make to the media file and to the journal file, and what a power cut may
 * leave of both. A case's ID begins with the recording's name:
 *
 *     NAME-media-K         the first K bytes of the media file, as it was before it was closed if K reaches no further;
 *                          the whole journal
 *     NAME-moment-K        the first K bytes of the media file, and the journal as it was durable at that moment
 *     NAME-journal-K       the first K bytes of the journal; the whole media file before it was closed
 *     NAME-pair-A-B        the media file after write A, the journal after append B
 *     NAME-media-WAY-T-SIZE-A-B    after write or append T; what no sync had made durable in the media file's units A
 *                          to B - 1, each of SIZE bytes, is lost, zero or junk
 *     NAME-journal-WAY-T-SIZE-A-B  the same of the journal
 */
#pragma once

#include <algorithm>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "damage.h"
#include "descriptors.h"
#include "faults.h"
#include "places.h"
#include "recording.h"
#include "repair-model.h"

using model::sample, model::second;

/** What stood in both files after a write, an append or a sync, and what of it was durable. */
struct state {
    bytes media, journal;
    size_t media_at, journal_at;           // the states in which the files came to hold this
    size_t media_durable, journal_durable; // and what is durable of it
    size_t promised;                       // samples that rounds of syncs had made durable
};

struct track_recipe {
    const char *stream; // of testdata/
    uint32_t limit;     // bytes of a picture or audio frame that are left, for many frames in few bytes; 0: all
    mp4_track_desc desc;
};
struct recipe {
    const char *name;
    std::vector<track_recipe> tracks;
    uint32_t cache; // of the file stream
    size_t frames;  // of all tracks, in the order of their times
    size_t round;   // frames between two rounds of syncs
    int files;      // recorded in a row with one builder and one journal
};

struct recording {
    std::string name;
    std::vector<mp4_track_desc> tracks;
    std::vector<sample> samples; // in the order of the file
    std::vector<state> states;
    bytes open; // the media file before it was closed
};

enum class fault { none, order, cut, key }; // the journal goes first, no truncation, each append loses a key flag

struct frame {
    uint8_t track;
    uint64_t time;
    int32_t key;
    std::string data;
};

/** A frame with its picture, or audio, cut to a limit, and without SEI units that no record can hold. */
inline std::string shorten(const std::string &unit, uint32_t type, uint32_t limit)
{
    static const std::string code("\0\0\1", 3);
    std::string out = type == MP4_TRACK_AAC ? limit ? unit.substr(7, limit) : unit : ""; // 7: ADTS
    for (size_t at = type == MP4_TRACK_AAC ? unit.npos : unit.find(code), next; at != unit.npos; at = next) {
        next = unit.find(code, at + 3);
        const std::string part = unit.substr(at, next == unit.npos ? next : next - at);
        const bool hevc = type == MP4_TRACK_H265;
        const int nal = hevc ? part[3] >> 1 & 63 : part[3] & 31;
        if (limit && nal < (hevc ? 32 : 6)) return out + part.substr(0, 3 + limit);
        if (!hevc || nal != 39 || part.size() < 500) out += part;
    }
    return out;
}

/** The frames of all tracks in the order of their times; each track begins 13 ms after the one before. */
inline std::vector<frame> frames_of(const recipe &p, const std::string &streams, uint32_t longer)
{
    std::vector<frame> all;
    for (size_t t = 0; t < p.tracks.size(); t++) {
        const auto &[name, limit, desc] = p.tracks[t];
        const std::string path = streams + "/" + name;
        std::ifstream in(path, std::ios::binary), manifest(path.substr(0, path.rfind('.')) + ".units.tsv");
        const std::string stream{std::istreambuf_iterator<char>(in), {}};
        std::string line;
        size_t index, offset, length;
        frame f = {uint8_t(t), 0, 0, ""};
        for (std::getline(manifest, line); manifest >> index >> offset >> length >> f.time >> f.key;) {
            std::getline(manifest, line);
            if (index == p.frames) break;
            f.time += t * 13'000'000;
            f.data = shorten(stream.substr(offset, length), desc.type, limit ? limit + longer : 0);
            all.push_back(f);
        }
    }
    std::ranges::stable_sort(all, {}, &frame::time);
    all.resize(std::min(all.size(), p.frames));
    return all;
}

/** Records the files of a recipe, and drains the journal as docs/journal.md asks for it. */
inline std::vector<recording> recordings_of(const recipe &p, const std::string &streams, fault built_in)
{
    const auto check = [&](bool good) {
        if (!good) throw std::runtime_error(std::string("cannot record ") + p.name);
    };
    const journal_ptr caretaker(mediafile_caretaker_create());
    const builder_ptr b(mp4_builder_create());
    for (const track_recipe &t : p.tracks) check(b->add_track(b.get(), &t.desc) >= 0);

    std::vector<recording> all;
    for (uint32_t number = 0; number < uint32_t(p.files); number++) {
        recording r;
        r.name = p.name + (p.files > 1 ? "." + std::to_string(number + 1) : "");
        for (const track_recipe &t : p.tracks) r.tracks.push_back(t.desc);
        r.states.push_back({});
        const auto next_state = [&r]() -> state & { return r.states.push_back(r.states.back()), r.states.back(); };
        const descriptor file;
        faults::injection watch;
        watch.wrote = [&](int, size_t) {
            state &now = next_state();
            now.media = file_content(file);
            now.media_at = r.states.size() - 1;
        };
        const auto sync_media = [&] {
            check(b->flush(b.get()) == 0);
            state &now = next_state();
            now.media_durable = now.media_at;
        };
        const auto append_journal = [&] {
            bytes data = drain(caretaker);
            size_t key = built_in == fault::key ? 0 : data.size(); // of the first sample that has the flag
            while (key < data.size() && !(data[key] == MEMENTO_SAMPLE && data[key + 24]))
                key += (7u + data[key + 2] + data[key + 3] * 256u) & ~3u;
            if (key < data.size()) data[key + 24] = 0;
            state &appended = next_state();
            overlay(appended.journal, appended.journal.size(), data);
            appended.journal_at = r.states.size() - 1;
            state &synced = next_state();
            synced.journal_durable = synced.journal_at;
        };
        check(b->open(b.get(), file, p.cache, caretaker.get()) == 0);
        const std::vector<frame> frames = frames_of(p, streams, number * 7);
        for (const frame &f : frames) {
            const uint64_t at = (1'700'000'000 + number * 1000) * second + f.time;
            const mp4_time time = {int32_t(at / second), int32_t(at % second)};
            const mp4_frame given = {f.track, f.data.data(), uint32_t(f.data.size()), time, f.key};
            check(b->add_frame(b.get(), &given) == 0);
            r.samples.push_back({f.track, 0, 0, time.seconds, uint32_t(time.nanoseconds), f.key});
            if (r.samples.size() % p.round != 0 && r.samples.size() != frames.size()) continue;
            if (built_in == fault::order) append_journal();
            sync_media();
            if (built_in != fault::order) append_journal();
            r.states.back().promised = r.samples.size();
        }
        r.open = file_content(file);
        check(b->close(b.get()) == 0 && mediafile_caretaker_errcode(caretaker.get()) == 0);

        // The strict reader finds where the samples of the finished file lie.
        const mp4::file finished = mp4::read(file_content(file));
        size_t next[8] = {};
        for (size_t i = 0; i < frames.size(); i++) {
            const auto &table = finished.tracks.at(frames[i].track).samples;
            const mp4::sample &s = table.at(next[frames[i].track]++);
            const auto offset = size_t(s.offset);
            r.samples[i].offset = uint32_t(offset);
            r.samples[i].size = s.size;
            const std::string &data = frames[i].data;
            const size_t tail = std::min<size_t>(s.size - 4, 16); // start codes turn into lengths
            check(s.sync == (frames[i].key != 0) && s.size + 16 > data.size() && offset + s.size <= r.open.size() &&
                  memcmp(&data[data.size() - tail], &r.open[offset + s.size - tail], tail) == 0);
        }
        std::ranges::sort(r.samples, {}, &sample::offset);
        check(finished.sound());
        all.push_back(std::move(r));
    }
    return all;
}

struct power_cut {
    bytes media, journal;
    bool possible;   // the order of writes and syncs allows it
    size_t promised; // samples that rounds of syncs had made durable
    bool spoilt;     // the journal holds zeros or junk
    std::string id = {};
};

/** Offers every case of a recording, its ID and how to make it; media of at most 8 KB is cut at every byte. */
template <class Offer>
void offer_cases(const recording &r, const Offer &offer)
{
    const std::vector<state> &states = r.states;
    const size_t all = r.samples.size();
    const bytes &closed = states.back().media, &journal = states.back().journal;
    const auto id = [&r](const std::string &kind, auto... number) {
        return ((r.name + "-" + kind) + ... + ("-" + std::to_string(number)));
    };

    for (size_t k = 0; r.open.size() <= 8192 && k <= closed.size(); k++) {
        const bytes &media = k <= r.open.size() ? r.open : closed;
        offer(id("media", k), [&] { return power_cut{first(media, k), journal, k >= r.open.size(), all, false}; });
        if (k > r.open.size() || k % 5 != 0) continue;
        offer(id("moment", k), [&] {
            const state &now = *std::ranges::find_if(states, [k](const state &s) { return s.media.size() >= k; });
            return power_cut{first(media, k), states[now.journal_durable].journal, true, now.promised, false};
        });
    }
    for (size_t k = 0; k <= journal.size(); k++)
        offer(id("journal", k), [&] { return power_cut{r.open, first(journal, k), k == journal.size(), all, false}; });
    for (size_t a = 0; a < states.size(); a++)
        for (size_t b = 0; b < states.size(); b++) {
            if (states[a].media_at != a || states[b].journal_at != b) continue;
            offer(id("pair", a, b), [&] {
                const bool possible = states[b].media_durable <= a && states[a].journal_durable <= b;
                return power_cut{states[a].media, states[b].journal, possible, states[std::max(a, b)].promised, false};
            });
        }
    for (size_t t = 0; t < states.size(); t++)
        for (const bool media : {true, false})
            for (const size_t unit : {size_t{512}, size_t{4096}}) {
                const state &s = states[t];
                const bytes &now = media ? s.media : s.journal;
                const bytes &durable = media ? states[s.media_durable].media : states[s.journal_durable].journal;
                const size_t units = (now.size() + unit - 1) / unit;
                for (size_t from = 0; from < units && now != durable; from++)
                    for (const size_t to : {from + 1, units})
                        for (const std::string way : {"lost", "zero", "junk"})
                            offer(id((media ? "media-" : "journal-") + way, t, unit, from, to), [&] {
                                const bytes bad = damaged(now, durable, from * unit, to * unit, way);
                                const bool spoilt = !media && (way != "lost" || to < units);
                                return media ? power_cut{bad, s.journal, true, s.promised, spoilt}
                                             : power_cut{s.media, bad, true, s.promised, spoilt};
                            });
            }
}
