#include "tools/record/units.h"

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <iterator>

namespace tools {

namespace {

constexpr double most = 4.6e18; // what is counted fits into 63 bits

struct unit {
    const char *name;
    double worth;
};

constexpr unit times[] = {{"", 1e9}, {"s", 1e9}, {"ms", 1e6}, {"m", 60e9}, {"min", 60e9}, {"h", 3600e9}};
constexpr double kibi = 1024;
constexpr unit sizes[] = {{"", 1},
                          {"b", 1},
                          {"k", kibi},
                          {"kb", 1e3},
                          {"kib", kibi},
                          {"m", kibi *kibi},
                          {"mb", 1e6},
                          {"mib", kibi *kibi},
                          {"g", kibi *kibi *kibi},
                          {"gb", 1e9},
                          {"gib", kibi *kibi *kibi},
                          {"t", kibi *kibi *kibi *kibi},
                          {"tb", 1e12},
                          {"tib", kibi *kibi *kibi *kibi}};

/* A number without exponent, and where it ends. */
std::optional<double> number_at(const char *text, const char **end)
{
    const char *last = text;
    while (std::isdigit(static_cast<unsigned char>(*last)) != 0 || *last == '.') ++last;
    const std::string digits(text, last);
    char *read = nullptr;
    const double value = std::strtod(digits.c_str(), &read);
    if (last == text || *read != '\0') return std::nullopt;
    *end = last;
    return value;
}

template <size_t Count>
std::optional<int64_t> in_units(const char *text, const unit (&units)[Count])
{
    const char *end = nullptr;
    const auto number = number_at(text, &end);
    if (!number) return std::nullopt;
    while (*end == ' ') ++end;
    std::string name(end);
    for (char &each : name) each = static_cast<char>(std::tolower(static_cast<unsigned char>(each)));
    for (const unit &each : units)
        if (name == each.name && *number * each.worth < most) return std::llround(*number * each.worth);
    return std::nullopt;
}

/* "1:30" and "00:01:30.5". */
std::optional<int64_t> by_the_clock(const char *text)
{
    double sum = 0;
    for (int parts = 0; parts < 3; ++parts) {
        const char *end = nullptr;
        const auto part = number_at(text, &end);
        if (!part || (parts > 0 && *part >= 60)) return std::nullopt;
        sum = sum * 60 + *part;
        if (*end == '\0') return sum * 1e9 < most ? std::optional<int64_t>(std::llround(sum * 1e9)) : std::nullopt;
        if (*end != ':') return std::nullopt;
        text = end + 1;
    }
    return std::nullopt;
}

} // namespace

std::optional<int64_t> time_of(const std::string &text)
{
    const bool is_negative = text.starts_with('-');
    const char *digits = text.c_str() + is_negative;
    const auto time = text.find(':') != std::string::npos ? by_the_clock(digits) : in_units(digits, times);
    return time && is_negative ? -*time : time;
}

std::optional<int64_t> size_of(const std::string &text)
{
    return in_units(text.c_str(), sizes);
}

} // namespace tools
