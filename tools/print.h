/** Formatted text as a string. */
#ifndef TOOLS_PRINT_H
#define TOOLS_PRINT_H

#include <cstdarg>
#include <cstdio>
#include <string>

namespace tools {

/** Like sprintf, for numbers and short words: longer text is cut, so file names are appended apart. */
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
