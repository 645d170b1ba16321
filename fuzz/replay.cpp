/** Runs a fuzz target over files and directories of files, without a fuzzing engine: replay-NAME PATH... */
#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz.h"

int main(int argc, char **argv)
{
    int inputs = 0;
    const auto run = [&](const std::filesystem::path &path) {
        std::ifstream in(path, std::ios::binary);
        const bytes content{std::istreambuf_iterator<char>(in), {}};
        fprintf(stderr, "%s\n", path.c_str());
        LLVMFuzzerTestOneInput(content.data(), content.size());
        inputs++;
    };
    LLVMFuzzerInitialize(&argc, &argv);
    for (int i = 1; i < argc; i++)
        if (!std::filesystem::is_directory(argv[i]))
            run(argv[i]);
        else
            for (const auto &entry : std::filesystem::directory_iterator(argv[i])) run(entry.path());
    fprintf(stderr, "%d inputs\n", inputs);
    return inputs ? 0 : 1;
}
