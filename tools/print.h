/** Formatted text as a string. */
#ifndef TOOLS_PRINT_H
#define TOOLS_PRINT_H

#include <cstdarg>
#include <cstdio>
#include <string>

namespace tools {

/** As sprintf; a line's numbers, no file names: longer text is cut. */
[[gnu::format(printf, 1, 2)]] inline std::string print(const char *format, ...)
{
    char text[160];
    va_list values;
    va_start(values, format);
    std::vsnprintf(text, sizeof text, format, values);
    va_end(values);
    return text;
}

} // namespace tools

#endif
