/** Formatted text as a string. */
#ifndef TOOLS_PRINT_H
#define TOOLS_PRINT_H

#include <cstdarg>
#include <cstdint>
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

/** "1 frame", "2 frames". */
inline std::string counted(uint64_t count, const char *what)
{
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

/**
 * On one line, without what a terminal would obey: names on a card may hold anything. Control characters, and those
 * that UTF-8 has in two bytes, become question marks.
 */
inline std::string printable(std::string text)
{
    const auto byte = [&text](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0xFF; };
    for (size_t i = 0; i < text.size(); ++i) {
        if (byte(i) < 0x20 || byte(i) == 0x7F) text[i] = '?';
        if (byte(i) == 0xC2 && byte(i + 1) >= 0x80 && byte(i + 1) < 0xA0) text.replace(i, 2, "?");
    }
    return text;
}

} // namespace tools

#endif
