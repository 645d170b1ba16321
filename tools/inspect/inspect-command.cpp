#include <algorithm>
#include <array>
#include <new>

#include <fcntl.h>

#include <mediafiles/recovery.h>

#include "tools/command.h"
#include "tools/console.h"
#include "tools/failure.h"
#include "tools/inspect/inspect.h"
#include "tools/json.h"

namespace tools {

namespace {

constexpr const char *cannot_read = "cannot read";

/* The options as given on the command line. */
struct inspect_line {
    std::string path;
    bool json = false;
    bool check = false;
};

constexpr const char *examples = R"(Examples:
  mediafiles inspect out.mp4
  mediafiles inspect out.mp4.journal | tail
  mediafiles inspect out.mp4 --check --json

Exit codes: 0 it was shown, 1 it cannot be read or, with --check, has a fault,
2 wrong usage.)";

void describe(CLI::App &line, inspect_line &given)
{
    line.footer(examples);
    line.add_option("PATH", given.path, "An MP4 file or a journal")->required();
    line.add_flag("--json", given.json, "Print a JSON object instead of text");
    line.add_flag("--check", given.check, "End with 1 when the file has a fault");
}

/* By the type of its first box: those that ISO/IEC 14496-12 has in a file, and two that QuickTime adds. */
bool begins_mp4(std::span<const uint8_t> begin)
{
    constexpr std::array<const char *, 14> types = {"ftyp", "styp", "moov", "mdat", "moof", "free", "skip",
                                                    "meta", "sidx", "ssix", "pdin", "uuid", "wide", "pnot"};
    return begin.size() >= 8 &&
           std::ranges::any_of(types, [&](const char *type) { return std::equal(type, type + 4, begin.begin() + 4); });
}

bool inspect(const inspect_line &given, std::FILE *to)
{
    const open_file file(cannot_read, given.path, O_RDONLY);
    std::vector<uint8_t> begin(std::min<uint64_t>(file.size(), 1 << 16));
    if (begin.empty()) throw failure(cannot_read, given.path, "it is empty");
    if (!file.read(0, begin)) throw failure(cannot_read, given.path, "it became shorter while it was read");
    if (mediafiles_is_journal(begin.data(), begin.size())) return inspect_journal(file, given.json, to);
    if (begins_mp4(begin)) return inspect_mp4(file, given.json, to);
    throw failure(cannot_read, given.path,
                  std::ranges::count(begin, 0) == static_cast<ptrdiff_t>(begin.size())
                      ? "it begins with zeros, as a file does that a power cut has emptied"
                      : "it begins neither as an MP4 file nor as a journal");
}

void print_error(const inspect_line &given, const char *error, std::FILE *to)
{
    const ordered_json result = {{"path", given.path}, {"kind", nullptr}, {"error", error}};
    std::fprintf(to, "%s\n", json_text(result).c_str());
}

int run(const inspect_line &given, int result_descriptor)
{
    console console("inspect", false);
    std::FILE *const to = fdopen(result_descriptor, "w");
    bool sound = false, shown = false;
    try {
        if (!to) throw failure("cannot write", "standard output", errno);
        sound = inspect(given, to);
        shown = true;
    } catch (const failure &cause) {
        console.problem(cause.what());
        if (to && given.json) print_error(given, cause.what(), to);
    } catch (const std::bad_alloc &) {
        console.problem(failure(cannot_read, given.path, "there is not enough memory for it").what());
    }
    if (to && (std::ferror(to) != 0 || std::fclose(to) != 0)) {
        console.problem(result_lost);
        return failed;
    }
    return shown && (sound || !given.check) ? done : failed;
}

} // namespace

command add_inspect_command(CLI::App &program)
{
    CLI::App *line = program.add_subcommand("inspect", "Show what an MP4 file or a journal holds, and its faults");
    auto given = std::make_shared<inspect_line>();
    describe(*line, *given);
    return {line, [given](int result_descriptor) { return run(*given, result_descriptor); }};
}

} // namespace tools
