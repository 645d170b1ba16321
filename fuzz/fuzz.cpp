#include "fuzz.h"

#include <algorithm>
#include <cstdarg>

#include <mediafiles/builder.h>
#include <mediafiles/caretaker.h>
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

bool sound_but_for(const mp4::file &file, std::initializer_list<std::string_view> excused)
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

recorded_file record(const mp4_track_desc &track, std::span<const uint8_t> frame, int times)
{
    const descriptor file;
    const exact data(bytes(frame.begin(), frame.end()));
    const journal_ptr journal(mediafile_caretaker_create());
    mp4_builder *builder = mp4_builder_create();
    REQUIRE(builder->add_track(builder, &track) == 0);
    REQUIRE(builder->open(builder, file, 0, journal.get()) == 0);
    for (int i = 0; i < times; i++) {
        const mp4_frame next = {0, data.data.get(), data.size, {i, 0}, 1};
        REQUIRE(builder->add_frame(builder, &next) == 0);
    }
    REQUIRE(builder->close(builder) == 0);
    builder->destroy(builder);
    recorded_file out;
    out.journal = drain(journal);
    const bytes content = file_content(file);
    out.read = mp4::read(content);
    REQUIRE(out.read.mdat.size() == 1 && out.read.boxes.size() == 3 && out.read.tracks.size() == 1);
    const auto [begin, end] = out.read.mdat[0];
    out.media.assign(content.begin() + static_cast<ptrdiff_t>(begin), content.begin() + static_cast<ptrdiff_t>(end));
    return out;
}

} // namespace fuzz
