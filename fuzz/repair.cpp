#include "repair.h"

#include <mediafiles/fix.h>

using model::head;

namespace fuzz {

static std::vector<size_t> users;

mp4::file check_repair(int version, const model::journal &content, std::span<const uint8_t> journal,
                       std::span<const uint8_t> media)
{
    const descriptor log, file;
    fill(log, journal);
    fill(file, media);
    const int next_descriptor = free_descriptor();
    const auto fix = version == 1 ? mp4_fix : mp4_fix2;
    const mp4_fix_callback user = [](const memento *record) { users.push_back(record->length); };
    mp4::file read = {};
    for (const bool with_file : {false, true}) {
        const auto size = static_cast<uint32_t>(media.size());
        const model::result expected = model::repair(content, with_file ? size : UINT32_MAX, version);
        std::vector<std::vector<model::sample>> kept_by(expected.tracks.size());
        for (const model::sample &sample : expected.kept) kept_by[sample.track].push_back(sample);
        mp4_fix_info info = {};
        users.clear();
        const int result = fix(with_file ? path_of(file).c_str() : nullptr, path_of(log).c_str(), user, &info);
        REQUIRE(expected.error ? result == -1 && errno == expected.error : result == 0);
        REQUIRE(users == expected.users && free_descriptor() == next_descriptor);
        if (expected.finished) {
            REQUIRE(info.trackCount == expected.tracks.size());
            for (size_t i = 0; i < info.trackCount; i++) {
                REQUIRE(info.tracks[i].frameCount == kept_by[i].size());
                REQUIRE(memcmp(&info.tracks[i].desc, &expected.tracks[i], sizeof info.tracks[i].desc) == 0);
            }
        }
        if (!with_file) continue;

        const uint32_t kept = expected.finished ? std::min(expected.end, size) : size;
        REQUIRE(file_size(file) == (expected.finished ? info.fileSize : std::max(size, head)));
        if (kept > head) REQUIRE(text(file_content(file, head, kept - head)) == text(media.subspan(head, kept - head)));
        if (!expected.finished) continue;
        REQUIRE(text(file_content(file, expected.end + 4, 4)) == "moov" &&
                big(file_content(file, 24, 4).data()) == expected.end - 24);
        if (file_size(file) >= 1 << 20) continue;

        const bytes finished = file_content(file);
        for (uint32_t at = std::max(size, head); at < expected.end; at++) REQUIRE(finished[at] == 0);
        read = mp4::read(finished);
        REQUIRE(read.boxes.size() == 3 && read.tracks.size() == expected.tracks.size());
        for (size_t i = 0; i < read.tracks.size(); i++) {
            const auto &samples = read.tracks[i].samples;
            REQUIRE(samples.size() == kept_by[i].size());
            for (size_t n = 0; n < samples.size(); n++) {
                const model::sample &sample = kept_by[i][n];
                REQUIRE(samples[n].offset == sample.offset && samples[n].size == sample.size);
                REQUIRE(samples[n].sync == (sample.key != 0));
            }
        }
    }
    return read;
}

} // namespace fuzz
