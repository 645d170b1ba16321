#include "fuzz.h"

#include <algorithm>
#include <cstdarg>

#include <mediafiles/support/log.h>

extern "C" {

uint32_t __logLevels[256];

void __printLog(int, const char *format, ...)
{
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
}

int LLVMFuzzerInitialize(int *, char ***)
{
    std::fill(std::begin(__logLevels), std::end(__logLevels), 1);
    return freopen("/dev/null", "w", stdout) ? 0 : 1;
}

} // extern "C"

namespace fuzz {

bool sound_but_for(const mp4::file &file, const std::vector<std::string_view> &excused)
{
    bool sound = true;
    for (const mp4::problem &problem : file.problems) {
        const auto covers = [&](std::string_view text) { return problem.text.find(text) != std::string::npos; };
        if (!problem.fault || std::any_of(excused.begin(), excused.end(), covers)) continue;
        fprintf(stderr, "%s\n", problem.text.c_str());
        sound = false;
    }
    return sound;
}

void check_boxes(const std::vector<mp4::box> &boxes, uint64_t begin, uint64_t end)
{
    for (const mp4::box &box : boxes) {
        REQUIRE(box.offset >= begin && box.offset <= end && box.size >= box.header && box.size <= end - box.offset);
        begin = box.offset + box.size;
        check_boxes(box.children, box.offset + box.header, begin);
    }
}

recorded_file record(const mp4_track_desc &track, std::span<const uint8_t> frame, int times)
{
    const descriptor file;
    const exact data(bytes(frame.begin(), frame.end()));
    const journal_ptr journal(mediafile_caretaker_create());
    const builder_ptr owner(mp4_builder_create());
    mp4_builder *const builder = owner.get();
    REQUIRE(builder->add_track(builder, &track) == 0);
    REQUIRE(builder->open(builder, file, 0, journal.get()) == 0);
    for (int i = 0; i < times; i++) {
        const mp4_frame next = {0, data.data.get(), data.size, {i, 0}, 1};
        REQUIRE(builder->add_frame(builder, &next) == 0);
    }
    REQUIRE(builder->close(builder) == 0);
    recorded_file out;
    out.journal = drain(journal);
    const bytes content = file_content(file);
    out.read = mp4::read(content);
    REQUIRE(out.read.mdat.size() == 1 && out.read.boxes.size() == 3 && out.read.tracks.size() == 1);
    const auto [begin, end] = out.read.mdat[0];
    out.media.assign(content.begin() + static_cast<ptrdiff_t>(begin), content.begin() + static_cast<ptrdiff_t>(end));
    return out;
}

mp4::file check_repair(int version, const model::journal &content, std::span<const uint8_t> journal,
                       std::span<const uint8_t> media)
{
    const auto complain = [](const char *check, const std::string &what) {
        fprintf(stderr, "%s: %s\n", check, what.c_str());
        abort();
    };
    const auto fix = version == 1 ? mp4_fix : mp4_fix2;
    model::judge(fix, version, content, journal, media, false, complain);
    return model::judge(fix, version, content, journal, media, true, complain).file;
}

} // namespace fuzz
