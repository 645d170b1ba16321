/**
 * Records a number of frames and nothing else: the difference between two
 * lengths is what a frame costs once a recording is warm.
 *     steady KIND journal|no-journal FRAMES
 */
#include <cstring>

#include "recorder.h"

int main(int argc, char **argv)
{
    for (const kind &of : kinds) {
        if (argc != 4 || strcmp(argv[1], of.name) != 0) continue;
        recorder recording(of, strcmp(argv[2], "journal") == 0);
        for (long i = atol(argv[3]); i > 0; --i) recording.add();
        return 0;
    }
    return 2;
}
