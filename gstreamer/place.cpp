#include "place.h"

#include <stdexcept>

namespace mediafiles::gstreamer {

namespace {

constexpr unsigned long most_digits = 10;

/* The directory that has to exist ends before the first field. */
place split(const std::string &path, size_t field)
{
    const size_t slash = path.rfind('/', field);
    if (slash == path.npos) return {".", path};
    return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

/* The digits of a printf conversion that ends in d: none, or 0 and their number. */
unsigned long digits_of(const std::string &conversion)
{
    if (conversion.empty()) return 1;
    const bool is_number = conversion.size() <= 3 && conversion.find_first_not_of("0123456789") == conversion.npos;
    if (!is_number || conversion[0] != '0' || conversion.size() < 2 || conversion[1] == '0') return 0;
    return std::stoul(conversion);
}

} // namespace

place place_of_location(const std::string &location)
{
    if (location.find_first_of("{}") != location.npos)
        throw std::invalid_argument("a location has no braces: fields like {number} are for the property pattern");
    const size_t field = location.find('%');
    const size_t end = field == location.npos ? field : location.find('d', field);
    if (end == location.npos || location.find('%', field + 1) != location.npos)
        throw std::invalid_argument("a location has exactly one field for the number, like %05d");
    const unsigned long digits = digits_of(location.substr(field + 1, end - field - 1));
    if (digits < 1 || digits > most_digits)
        throw std::invalid_argument("the number in a location is %d, or %0Nd with N from 1 to 10");
    return split(location.substr(0, field) + "{number:" + std::to_string(digits) + "}" + location.substr(end + 1),
                 field);
}

place place_of_pattern(const std::string &pattern)
{
    return split(pattern, pattern.find_first_of("{%"));
}

} // namespace mediafiles::gstreamer
