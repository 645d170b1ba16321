/*
 * A program that defines the logger gets the library's lines, from the shared
 * and from the static library alike.
 *     logger_test SCRATCH_FILE
 */
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <mediafiles/caretaker.h>
#include <mediafiles/support/log.h>

static char lines[4096];

void __printLog(int level, const char *format, ...)
{
    size_t used = strlen(lines);
    va_list arguments;
    va_start(arguments, format);
    snprintf(lines + used, sizeof lines - used, "%d ", level);
    used = strlen(lines);
    vsnprintf(lines + used, sizeof lines - used, format, arguments);
    va_end(arguments);
}

int main(int argc, char **argv)
{
    FILE *file = argc == 2 ? fopen(argv[1], "wb") : NULL;
    if (!file || fwrite("\377\0\0\0", 1, 4, file) != 4 || fclose(file) != 0) return 2;
    mediafile_caretaker *journal = mediafile_caretaker_load(argv[1]);
    if (!journal || mediafile_caretaker_pop(journal) || mediafile_caretaker_errcode(journal) == 0) return 1;
    mediafile_caretaker_destroy(journal);
    remove(argv[1]);
    printf("%s", lines);
    return strstr(lines, "5 bad_msg [src/mediafiles/caretaker:mediafile_caretaker_pop:579]: ") &&
                   strstr(lines, "4 caretaker->error=")
               ? 0
               : 1;
}
