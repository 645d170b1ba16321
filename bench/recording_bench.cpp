/** Time of one frame through builder and journal. */
#include <benchmark/benchmark.h>

#include "recorder.h"

static void frames(benchmark::State &state, const kind *of, bool journaled)
{
    recorder recording(*of, journaled);
    for (int i = 0; i < 10'000; ++i) recording.add(); // warm
    for (auto _ : state) recording.add();
    state.SetBytesProcessed(state.iterations() * of->frame_bytes);
}

int main(int argc, char **argv)
{
    for (const kind &of : kinds)
        for (bool journaled : {true, false})
            benchmark::RegisterBenchmark((std::string(of.name) + (journaled ? "/journal" : "/no-journal")).c_str(),
                                         frames, &of, journaled);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
