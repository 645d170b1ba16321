/**
 * Searches a megabyte of random bytes without a start code, a number of times,
 * and prints the bytes searched in a second.
 *     search TIMES
 */
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include <mediafiles/h264-parser.h>

int main(int argc, char **argv)
{
    if (argc != 2) return 2;
    std::mt19937 random(1);
    std::vector<uint8_t> data(1 << 20);
    for (uint8_t &byte : data) byte = static_cast<uint8_t>(random());
    for (size_t i = 2; i < data.size(); ++i)
        if (data[i] == 1 && data[i - 1] == 0 && data[i - 2] == 0) data[i] = 2;

    const long times = atol(argv[1]);
    const auto begin = std::chrono::steady_clock::now();
    for (long i = 0; i < times; ++i) {
        uint32_t offset, length;
        if (h264_parser_find_start_code(data.data(), static_cast<uint32_t>(data.size()), &offset, &length)) return 1;
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    printf("%.2f\n", static_cast<double>(times) * static_cast<double>(data.size()) / took.count() / 1e9);
}
