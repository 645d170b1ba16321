/** What the strict reader makes of files, faults on standard error and samples on standard output: check-mp4 FILE... */
#include <cstdio>

#include "tools/reader/reader.h"

int main(int argc, char **argv)
{
    bool sound = argc > 1;
    for (int i = 1; i < argc; ++i) {
        const mp4::file file = mp4::read(std::string(argv[i]));
        sound = sound && file.sound();
        for (const mp4::problem &problem : file.problems)
            if (problem.fault)
                fprintf(stderr, "%s: %ju: %s\n", argv[i], uintmax_t{problem.offset}, problem.text.c_str());
        for (size_t track = 0; track < file.tracks.size(); ++track)
            for (const mp4::sample &sample : file.tracks[track].samples)
                printf("%s\t%zu %ju %u %d\n", argv[i], track, uintmax_t{sample.offset}, sample.size, sample.sync);
    }
    return sound ? 0 : 1;
}
