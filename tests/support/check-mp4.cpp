/** Says what the strict reader finds wrong with a file: check-mp4 FILE */
#include <cstdio>

#include "tools/mp4-reader.h"

int main(int argc, char **argv)
{
    if (argc != 2) return 2;
    const mp4::file file = mp4::read(std::string(argv[1]));
    for (const mp4::problem &problem : file.problems)
        if (problem.fault)
            fprintf(stderr, "%s: %ju: %s\n", argv[1], uintmax_t{problem.offset}, problem.text.c_str());
    return file.sound() ? 0 : 1;
}
