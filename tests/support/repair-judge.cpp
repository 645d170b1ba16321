#include "repair-judge.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include <mediafiles/caretaker.h>

#include "descriptors.h"

namespace model {

static std::vector<size_t> users;

repaired judge(const fixer &fix, int version, const journal &content, std::span<const uint8_t> stored,
               std::span<const uint8_t> media, bool with_file, const complaint &complain)
{
    const auto expect = [&](bool good, const char *check, const std::string &what) {
        if (!good) complain(check, what);
        return good;
    };
    const descriptor log, file;
    fill(log, stored);
    fill(file, media);
    const int next_descriptor = free_descriptor();
    repaired out = {repair(content, with_file ? media.size() : UINT32_MAX, version)};
    const result &due = out.due;
    mp4_fix_info info = {};
    users.clear();
    const int result = fix(
        with_file ? path_of(file).c_str() : nullptr, path_of(log).c_str(),
        [](const memento *record) { users.push_back(record->length); }, &info);
    const int error = result == 0 ? 0 : result == -1 ? errno : INT_MIN;
    expect(free_descriptor() == next_descriptor, "leak", "a descriptor");
    if (!expect(error == due.error, "result", std::to_string(error) + " instead of " + std::to_string(due.error)))
        return out;
    expect(users == due.users, "users", "not the records of the application");
    std::vector<std::vector<sample>> kept_by(due.tracks.size());
    for (const sample &each : due.kept) kept_by[each.track].push_back(each);
    if (due.finished) expect(info.trackCount == due.tracks.size(), "info", "not the tracks of the journal");
    for (size_t i = 0; due.finished && i < info.trackCount; i++)
        expect(info.tracks[i].frameCount == kept_by[i].size() &&
                   memcmp(&info.tracks[i].desc, &due.tracks[i], sizeof info.tracks[i].desc) == 0,
               "info", "another track " + std::to_string(i));
    if (!with_file) return out;

    bytes wanted(media.begin(), media.end());
    if (!due.finished) {
        overlay(wanted, 0, hex("00000018 'ftypmp42' 00*4 'mp42isom' 00000000 'mdat'"));
        expect(file_content(file) == wanted, "refused", "more than the head has changed");
        return out;
    }
    expect(file_size(file) == info.fileSize && info.fileSize > due.end, "structure", "another size");
    if (file_size(file) >= 16 << 20) return out;
    out.content = file_content(file);
    wanted.resize(due.end); // with zeros for what is not there
    const auto begin = std::min<size_t>(head, due.end);
    expect(out.content.size() >= due.end &&
               std::equal(wanted.begin() + long(begin), wanted.end(), out.content.begin() + long(begin)),
           "media", "other bytes");
    out.file = mp4::read(out.content);
    if (!expect(out.file.boxes.size() == 3 && out.file.boxes[2].offset == due.end &&
                    out.file.tracks.size() == due.tracks.size(),
                "structure", "not head, media and moov in their places"))
        return out;
    for (size_t i = 0; i < due.tracks.size(); i++)
        expect(std::ranges::equal(out.file.tracks[i].samples, kept_by[i],
                                  [](const mp4::sample &got, const sample &s) {
                                      return got.offset == s.offset && got.size == s.size && got.sync == (s.key != 0);
                                  }),
               "prefix", "not the samples that the journal names");
    return out;
}

} // namespace model
