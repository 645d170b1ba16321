#include "mediafiles/mp4/codec/start-code.h"

namespace mediafiles {

start_code find_start_code(const uint8_t *data, uint32_t len)
{
    if (len < 3) return {0, 0};
    // A byte above 1 can be no part of a code, so that the third byte of a
    // position often rules out the next two as well.
    uint32_t p = 0;
    while (p < len - 2) {
        const uint8_t third = data[p + 2];
        if (third > 1)
            p += 3;
        else if (third == 1 && data[p] == 0 && data[p + 1] == 0)
            return p > 0 && data[p - 1] == 0 ? start_code{p - 1, 4} : start_code{p, 3};
        else
            ++p;
    }
    return {len - 2, 0};
}

} // namespace mediafiles
