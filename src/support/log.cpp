// The bundled logger: every line goes to standard error as it is.

#include <cstdarg>
#include <cstdio>

#include <mediafiles/support/log.h>

[[gnu::weak]] void __printLog(int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
}
