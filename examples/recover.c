/*
 * What a device does at boot: recordings that a power cut has interrupted
 * become files that play.
 *
 *     recover DIRECTORY...
 */
#include <stdio.h>
#include <string.h>

#include <mediafiles/recovery.h>

static int say(void *failures, const mediafiles_report *report)
{
    static const char *const results[] = {"",         "repaired", "salvaged", "finished", "empty, removed",
                                          "not ours", "refused",  "failed"};
    printf("%s: %s", report->path, results[report->result]);
    if (report->reason != MEDIAFILES_REASON_NONE) printf(": %s", mediafiles_reason_text(report->reason));
    if (report->error != 0) printf(" (%s)", strerror(report->error));
    putchar('\n');
    if (report->result == MEDIAFILES_REFUSED || report->result == MEDIAFILES_FAILED) ++*(int *)failures;
    return 0;
}

int main(int argc, char **argv)
{
    int failures = 0;
    if (mediafiles_recover((const char *const *)argv + 1, (size_t)argc - 1, NULL, say, &failures) == 0)
        return failures != 0;
    perror("recover");
    return 1;
}
