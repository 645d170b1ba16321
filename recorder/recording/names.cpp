#include "names.h"

#include <algorithm>
#include <array>

namespace mediafiles::recorder {

namespace {

constexpr size_t most_directories = 8;
constexpr size_t longest_part = 200; // bytes; file systems have 255
constexpr uint8_t default_digits = 8, most_digits = 10;
constexpr size_t extension_size = 4;
constexpr std::string_view fields = "YmdHMS";

/* In the order of `fields`; -1 is not known. */
using calendar = std::array<int64_t, fields.size()>;

bool is_leap(int64_t year)
{
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

int64_t days_in(int64_t year, int64_t month)
{
    if (month == 2) return is_leap(year) ? 29 : 28;
    return month == 4 || month == 6 || month == 9 || month == 11 ? 30 : 31;
}

/* The Gregorian calendar, also before it was made. Months are counted from March on, so that a leap day is a year's last. */
calendar calendar_of(int64_t seconds)
{
    constexpr int64_t day = 86400, last = 253'402'300'799; // of the year 9999
    const int64_t time = std::clamp<int64_t>(seconds, 0, last);
    constexpr int64_t era_days = 146097;      // of 400 years
    const int64_t days = time / day + 719468; // since 1 March of the year 0
    const int64_t era = days / era_days, in_era = days % era_days;
    const int64_t year = (in_era - in_era / 1460 + in_era / 36524 - in_era / (era_days - 1)) / 365;
    const int64_t in_year = in_era - (365 * year + year / 4 - year / 100);
    const int64_t month = (5 * in_year + 2) / 153;
    return {era * 400 + year + (month >= 10),
            month < 10 ? month + 3 : month - 9,
            in_year - (153 * month + 2) / 5 + 1,
            time % day / 3600,
            time % 3600 / 60,
            time % 60};
}

bool exists(const calendar &time)
{
    const auto [year, month, day, hour, minute, second] = time;
    const int64_t some_year = year < 0 ? 2000 : year; // a leap year
    return (year < 0 || year >= 1970) && (month < 0 || (month >= 1 && month <= 12)) &&
           (day < 0 || (day >= 1 && day <= days_in(some_year, month < 0 ? 1 : month))) && hour < 24 && minute < 60 &&
           second < 60;
}

void append_number(std::string &to, uint64_t value, size_t digits)
{
    char text[20];
    char *const end = text + sizeof text;
    char *at = end;
    do *--at = static_cast<char>('0' + value % 10);
    while (value /= 10);
    const auto length = static_cast<size_t>(end - at);
    if (length < digits) to.append(digits - length, '0');
    to.append(at, end);
}

/* Digits alone, at most as many as a number of 64 bits always has room for. */
std::optional<uint64_t> number_of(std::string_view text)
{
    if (text.empty() || text.size() > 18) return std::nullopt;
    uint64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + static_cast<uint64_t>(c - '0');
    }
    return value;
}

/* As append_number writes it. */
std::optional<uint64_t> padded_number(std::string_view text, size_t digits)
{
    if (text.size() < digits || (text.size() > digits && text[0] == '0')) return std::nullopt;
    return number_of(text);
}

bool ends_in_mp4(std::string_view pattern)
{
    if (pattern.size() < extension_size) return false;
    const std::string_view end = pattern.substr(pattern.size() - extension_size);
    const auto is = [](char c, char small) { return c == small || c == small - 'a' + 'A'; };
    return end[0] == '.' && is(end[1], 'm') && is(end[2], 'p') && end[3] == '4';
}

struct field {
    size_t length; // of its text
    uint8_t digits;
};

/* "{number}" or "{number:N}" at the beginning. */
std::optional<field> number_field(std::string_view text)
{
    constexpr std::string_view plain = "{number}", sized = "{number:";
    if (text.starts_with(plain)) return field{plain.size(), default_digits};
    if (!text.starts_with(sized)) return std::nullopt;
    const size_t close = text.find('}');
    if (close == text.npos) return std::nullopt;
    const auto digits = number_of(text.substr(sized.size(), close - sized.size()));
    if (!digits || *digits < 1 || *digits > most_digits || text[sized.size()] == '0') return std::nullopt;
    return field{close + 1, static_cast<uint8_t>(*digits)};
}

bool has_sound_parts(std::string_view path)
{
    size_t parts = 0;
    for (size_t begin = 0; begin <= path.size(); ++parts) {
        const size_t end = std::min(path.find('/', begin), path.size());
        const std::string_view part = path.substr(begin, end - begin);
        if (part.empty() || part.size() > longest_part || part.ends_with('.') || part.ends_with(' ')) return false;
        begin = end + 1;
    }
    return parts <= most_directories + 1;
}

} // namespace

size_t name_pattern::add_piece(std::string_view rest)
{
    const auto c = static_cast<unsigned char>(rest[0]);
    if (c == '%') {
        if (rest.size() < 2 || fields.find(rest[1]) == fields.npos) return 0;
        pieces_.push_back({rest[1], static_cast<uint8_t>(rest[1] == 'Y' ? 4 : 2), {}});
        fixed_ += pieces_.back().digits;
        return 2;
    }
    if (c == '{') {
        const auto number = number_field(rest);
        if (!number || numbered_) return 0;
        pieces_.push_back({'n', number->digits, {}});
        numbered_ = true;
        return number->length;
    }
    if (c == '}' || c < ' ' || c == 0x7F) return 0;
    if (pieces_.empty() || pieces_.back().field != 't') pieces_.push_back({'t', 0, {}});
    pieces_.back().text.push_back(rest[0]);
    ++fixed_;
    return 1;
}

std::optional<name_pattern> name_pattern::parse(std::string_view pattern)
{
    if (!ends_in_mp4(pattern)) return std::nullopt;
    name_pattern out;
    out.extension_ = pattern.substr(pattern.size() - extension_size);
    out.fixed_ = extension_size;
    for (std::string_view rest = pattern.substr(0, pattern.size() - extension_size); !rest.empty();) {
        const size_t length = out.add_piece(rest);
        if (length == 0) return std::nullopt;
        rest.remove_prefix(length);
    }
    const std::string first = out.make(1, 0), longest = out.make(largest_number, 0);
    if (first.size() - (first.rfind('/') + 1) == extension_size || !has_sound_parts(longest)) return std::nullopt;
    return out;
}

std::optional<name_pattern> name_pattern::of_file(std::string_view name)
{
    if (name.empty() || name.find('/') != name.npos || name == "." || name == "..") return std::nullopt;
    const size_t dot = name.rfind('.');
    const size_t stem = dot == 0 || dot == name.npos ? name.size() : dot; // a dot in front hides a file
    name_pattern out;
    out.pieces_.push_back({'t', 0, std::string(name.substr(0, stem))});
    out.extension_ = name.substr(stem);
    out.fixed_ = name.size();
    return out;
}

std::string name_pattern::make(uint64_t number, int64_t seconds) const
{
    const calendar time = calendar_of(seconds);
    std::string name;
    for (const piece &each : pieces_) {
        if (each.field == 't')
            name += each.text;
        else if (each.field == 'n')
            append_number(name, number, each.digits);
        else
            append_number(name, static_cast<uint64_t>(time[fields.find(each.field)]), each.digits);
    }
    if (!numbered_ && number > 1) {
        name += '-';
        append_number(name, number, 1);
    }
    return name += extension_;
}

std::optional<uint64_t> name_pattern::match(std::string_view path) const
{
    // All but the number has its length, so each piece has its place.
    if (path.size() < fixed_ || !path.ends_with(extension_)) return std::nullopt;
    const size_t variable = path.size() - fixed_;
    std::optional<uint64_t> number = 1;
    calendar time = {-1, -1, -1, -1, -1, -1};
    for (const piece &each : pieces_) {
        const size_t length = each.field == 't' ? each.text.size() : each.field == 'n' ? variable : each.digits;
        const std::string_view here = path.substr(0, length);
        path.remove_prefix(length);
        if (each.field == 't') {
            if (here != each.text) return std::nullopt;
        } else if (each.field == 'n') {
            number = padded_number(here, each.digits);
        } else {
            const auto value = number_of(here);
            int64_t &known = time[fields.find(each.field)];
            if (!value || (known >= 0 && known != static_cast<int64_t>(*value))) return std::nullopt;
            known = static_cast<int64_t>(*value);
        }
    }
    if (!numbered_ && variable != 0) {
        number = path[0] == '-' ? padded_number(path.substr(1, variable - 1), 1) : std::nullopt;
        if (number && *number < 2) return std::nullopt;
    }
    if (!number || *number < 1 || *number > largest_number || !exists(time)) return std::nullopt;
    return number;
}

} // namespace mediafiles::recorder
