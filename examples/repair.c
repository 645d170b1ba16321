/*
 * Completes a recording that was cut off, from the journal beside it.
 *
 *     repair OUT.mp4
 */
#include <stdio.h>

#include <mediafiles/fix.h>

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s OUT.mp4\n", argv[0]);
        return 2;
    }
    char journal[4096];
    snprintf(journal, sizeof journal, "%s.journal", argv[1]);

    mp4_fix_info info;
    if (mp4_fix(argv[1], journal, NULL, &info) != 0) {
        perror(argv[1]);
        return 1; /* can be called again once the cause is gone */
    }
    for (uint32_t i = 0; i < info.trackCount; i++) printf("track %u: %u frames\n", i, info.tracks[i].frameCount);
    remove(journal); /* the file is complete without it */
    return 0;
}
