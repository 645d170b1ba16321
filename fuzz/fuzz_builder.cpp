/**
 * Whatever an application records, by any calls in any order, the file holds what was given and is sound, the journal
 * names every sample of it, none before it is in the file after a flush, and a repair of any prefix of both is sound.
 *
 * The input is a program: a byte for each call, followed by its arguments.
 */

#include <mediafiles/builder.h>
#include <mediafiles/caretaker.h>

#include "fuzz.h"

using namespace fuzz;

namespace {

constexpr int64_t second = 1'000'000'000; // nanoseconds

class session {
public:
    explicit session(std::span<const uint8_t> program) : input{program} { begin_file(); }
    ~session()
    {
        end_file(true);
        builder->destroy(builder);
    }

    void run()
    {
        for (int calls = 0; !input.is_empty() && calls < 120; calls++) {
            const size_t call = input.take(), kind = call % 16;
            if (kind == 0) add_track();
            if (kind == 1) sync();
            if (kind == 2) keep(drain(journal));
            if (kind == 3) end_file(call & 16);
            if (kind == 3) begin_file();
            if (kind > 3) add_frame(call & 16);
        }
    }

private:
    struct track {
        mp4_track_desc description;
        bool ready = false;                       // the parameter sets went before
        std::vector<bytes> stored = {};           // samples
        std::vector<bool> keys = {};              // of them
        std::vector<model::sample> accepted = {}; // frames, dropped ones included, without their places
    };

    size_t take_two()
    {
        const size_t high = input.take();
        return high * 256 + input.take();
    }

    void add_track()
    {
        const size_t kind = input.take();
        const uint32_t rates[] = {8000, 4000, 1000, 64}; // 16 bits: caches of 16,000 bytes down to 128
        mp4_track_desc description = {MP4_TRACK_AAC, {.audio = {2, kind & 64 ? 16u : 0u, rates[kind / 4 % 4]}}};
        if (kind % 3 != 2) description = {kind % 3 ? MP4_TRACK_H265 : MP4_TRACK_H264, {.video = {16, 16, 0}}};
        const bool full = tracks.size() == MP4_MAX_TRACKS;
        REQUIRE(builder->add_track(builder, &description) == (full ? -1 : static_cast<int>(tracks.size())));
        if (!full) tracks.push_back({description});
    }

    void add_frame(bool key)
    {
        const size_t index = input.take() % (tracks.size() + 1), step = input.take(), length = input.take();
        /* Once a file, a gap beyond the longest duration; days of it would not fit the arithmetic. */
        const bool jump = step == 255 && !jumped;
        jumped |= jump;
        now += jump ? 30000 * second : static_cast<int64_t>(step) * 4'000'000;

        bytes sample;
        const std::string frame = index < tracks.size() ? compose(tracks[index], length, sample) : "refused";
        const exact data(bytes(frame.begin(), frame.end()));
        const mp4_time time = {static_cast<int32_t>(now / second), static_cast<int32_t>(now % second)};
        const mp4_frame given = {static_cast<int32_t>(index), data.data.get(), data.size, time, key};
        const int result = builder->add_frame(builder, &given);
        if (index == tracks.size()) return REQUIRE(result == -1 && errno == EINVAL);
        REQUIRE(result == 0);
        const auto nanoseconds = static_cast<uint32_t>(time.nanoseconds);
        tracks[index].accepted.push_back({static_cast<uint8_t>(index), 0, 0, time.seconds, nanoseconds, key});
        if (sample.empty()) return;
        tracks[index].stored.push_back(sample);
        tracks[index].keys.push_back(key);
    }

    /** Bytes without zeros, so that none of them looks like a start code. */
    std::string filler(size_t length)
    {
        std::string out;
        while (length--) out += static_cast<char>(1 + seed++ % 255);
        return out;
    }

    /** @return a frame, with the sample that has to come of it: none of a video frame without a start code */
    std::string compose(track &to, size_t length, bytes &sample)
    {
        std::string frame = filler(length % 16 == 9 || length == 255 ? length : 0);
        if (to.description.type == MP4_TRACK_AAC) {
            frame += filler(1 + length);
            sample.assign(frame.begin(), frame.end());
            return frame;
        }
        if (length == 255) return frame;
        const bool h265 = to.description.type == MP4_TRACK_H265;
        const auto add = [&](int h264_type, int h265_type, const char *fields = "") {
            std::string unit = {static_cast<char>(h265 ? h265_type << 1 : 0x60 | h264_type)};
            unit += h265 ? "\1" : fields;
            unit += filler(length % 61);
            frame += std::string(unit.size() % 2, '\0') + std::string("\0\0\1", 3) + unit;
            for (int shift = 24; shift >= 0; shift -= 8) sample.push_back(static_cast<uint8_t>(unit.size() >> shift));
            sample.insert(sample.end(), unit.begin(), unit.end());
        };
        if (!to.ready || length % 4 == 3) {
            if (h265) add(0, 32);
            add(7, 33, "\x64\x80\x28");
            add(8, 34);
        }
        if (length % 8 == 5) add(6, 39);
        add(length % 2 ? 5 : 1, length % 3 ? 19 : 21);
        to.ready = true;
        return frame;
    }

    void keep(const bytes &drained) { journaled.insert(journaled.end(), drained.begin(), drained.end()); }

    /** What a flush and a drain give is safe: no sample of the journal lies beyond the file. */
    void sync()
    {
        REQUIRE(builder->flush(builder) == 0);
        keep(drain(journal));
        const uint64_t size = file_size(*file);
        for (const model::record &record : model::read(journaled).records)
            if (record.kind == MEMENTO_SAMPLE) REQUIRE(uint64_t{record.named().offset} + record.named().size <= size);
    }

    void begin_file()
    {
        for (track &each : tracks) each = {each.description};
        journaled.clear();
        jumped = false;
        file = std::make_unique<descriptor>();
        const uint32_t caches[] = {0, 64, 512, 4096};
        REQUIRE(builder->open(builder, *file, caches[input.take() % 4], journal.get()) == 0);
    }

    void end_file(bool close)
    {
        const size_t cut_journal = take_two(), cut_media = take_two();
        if (close) {
            REQUIRE(builder->close(builder) == 0);
            keep(drain(journal));
            check_file();
        } else {
            builder->destroy(builder);
            builder = mp4_builder_create();
            for (const track &each : tracks) REQUIRE(builder->add_track(builder, &each.description) >= 0);
        }
        REQUIRE(mediafile_caretaker_errcode(journal.get()) == 0);
        const auto size = static_cast<size_t>(file_size(*file));
        check_repairs(journaled.size() - cut_journal % (journaled.size() + 1), size - cut_media % (size + 1));
    }

    void check_file()
    {
        const mp4::file read = mp4::read(file_content(*file));
        bool dropped = false; // such a frame at the end still moves the track's time on
        REQUIRE(read.tracks.size() == tracks.size());
        for (size_t i = 0; i < tracks.size(); i++) {
            const auto &samples = read.tracks[i].samples;
            dropped |= tracks[i].accepted.size() != tracks[i].stored.size();
            REQUIRE(samples.size() == tracks[i].stored.size());
            for (size_t n = 0; n < samples.size(); n++) {
                REQUIRE(samples[n].sync == tracks[i].keys[n]);
                REQUIRE(tracks[i].stored[n] == file_content(*file, samples[n].offset, samples[n].size));
            }
        }
        REQUIRE(sound_but_for(read, {dropped ? "the track plays to" : "!"}));

        /* A dropped frame leaves its time and key to the next one that is stored. */
        std::vector<size_t> named(tracks.size());
        const model::journal all = model::read(journaled);
        for (const model::record &record : all.records) {
            if (record.kind != MEMENTO_SAMPLE) continue;
            const size_t n = named.at(record.track)++;
            const mp4::sample &sample = read.tracks[record.track].samples.at(n);
            model::sample expected = tracks[record.track].accepted.at(n);
            expected.offset = static_cast<uint32_t>(sample.offset);
            expected.size = sample.size;
            REQUIRE(record.named() == expected);
        }
        REQUIRE(all.error == 0);
        for (size_t i = 0; i < tracks.size(); i++) REQUIRE(named[i] == tracks[i].stored.size());
    }

    /** As if power had failed when so many bytes of both files were on the medium. */
    void check_repairs(size_t journal_size, size_t media_size)
    {
        const bytes media = file_content(*file, 0, media_size);
        const std::span<const uint8_t> prefix(journaled.data(), journal_size);
        const model::journal content = model::read(prefix);
        REQUIRE(content.error == 0);
        for (const int version : {1, 2}) {
            const mp4::file read = check_repair(version, content, prefix, media);
            const bool straddles = !read.mdat.empty() && read.mdat[0].end > media_size; // zeros end the last sample
            REQUIRE(sound_but_for(read, {straddles ? "NAL unit lengths" : "!"}));
        }
    }

    program_bytes input;
    mp4_builder *builder = mp4_builder_create();
    const journal_ptr journal{mediafile_caretaker_create()};
    std::unique_ptr<descriptor> file;
    std::vector<track> tracks;
    bytes journaled;
    bool jumped = false;
    int64_t now = 1'700'000'000 * second;
    size_t seed = 0;
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    session({data, size}).run();
    return 0;
}
