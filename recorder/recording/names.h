/**
 * The names of a recorder's files, made from a pattern and found again by it.
 *
 * A pattern is a path relative to the recorder's directory. `{number}` stands
 * for the file's number in at least 8 digits, `{number:N}` in at least N, 1 to
 * 10; %Y %m %d %H %M %S stand for the time at which the file begins, in UTC.
 * No other field exists. A pattern without a number is one recording: its
 * files are NAME, NAME-2, NAME-3 ..., counted before the extension.
 *
 * Every name of a pattern ends in ".mp4", in any case: by it, recovery knows a
 * recording whose journal is missing, and no name can be that of a journal or
 * of a temporary file. The name of one file that a user has chosen can be
 * anything that a file can be called.
 */
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mediafiles::recorder {

/** Ten digits: a file each second for three centuries. Names with a higher number are not ours. */
inline constexpr uint64_t largest_number = 9'999'999'999;
/** From a higher one numbers do not go on: what follows could not be found again. */
inline constexpr uint64_t largest_to_follow = largest_number - 1'000'000'000;

inline constexpr std::string_view default_pattern = "{number}.mp4";

class name_pattern {
public:
    /**
     * Nothing (EINVAL for the user) for
     *   a field that does not exist, a brace or percent sign that is not part of a field, a second {number};
     *   a leading "/", an empty part, control characters;
     *   a part that ends in a dot or a space (".." is one): FAT drops them, and the name is not found again;
     *   more than 8 directories, which is as deep as recovery looks;
     *   a part that can become longer than 200 bytes: a journal's suffix has to fit as well;
     *   another end than ".mp4".
     */
    static std::optional<name_pattern> parse(std::string_view pattern);

    /**
     * One recording with this name as it is, whatever its bytes: no field, no directory, any end or none. Nothing for
     * an empty name, a path, "." and "..".
     */
    static std::optional<name_pattern> of_file(std::string_view name);

    /**
     * The path of a file, relative to the directory.
     *
     * @param number   1 to largest_number
     * @param seconds  since 1970-01-01 in UTC; before it and after 9999 the nearest second in between. The files of a
     *                 pattern without {number} are all given the time of the first
     */
    std::string make(uint64_t number, int64_t seconds) const;

    /**
     * The number of a path that make() can have returned: for numbers from 1 on, and with dates and times that exist
     * and agree with each other.
     */
    std::optional<uint64_t> match(std::string_view path) const;

    /** Whether the pattern has {number}. */
    bool is_numbered() const { return numbered_; }

private:
    struct piece {
        char field; // 'Y', 'm', 'd', 'H', 'M' or 'S'; 'n': the number; 't': text
        uint8_t digits;
        std::string text;
    };

    /* The length of the piece at the beginning of what is left of a pattern; 0 when it is none. */
    size_t add_piece(std::string_view rest);

    std::vector<piece> pieces_; // without the extension
    std::string extension_;     // ".mp4" as the pattern has it; of a file's own name what follows its last dot, or none
    size_t fixed_ = 0;          // bytes of a name, its number left out
    bool numbered_ = false;
};

} // namespace mediafiles::recorder
