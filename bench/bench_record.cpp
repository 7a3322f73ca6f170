// Whole recordings, this library beside FFmpeg's own MP4 muxer and a bare fwrite, in CPU time.
// Run with --benchmark_repetitions=7 --benchmark_enable_random_interleaving=true and compare the
// medians: the machine's speed drifts, the ratios hold.
#include "workload.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>

namespace {

using bench::Stream;
using bench::Way;

const bench::Frames& FramesOf(const Stream& stream)
{
    static std::map<const char*, bench::Frames> made;
    return made.try_emplace(stream.name, stream).first->second;
}

// From the first frame to the last, then the close.
void Record(benchmark::State& state, const Stream& stream, Way way, std::size_t count)
{
    const bench::Frames& frames = FramesOf(stream);
    const std::string path = bench::OutputPath();
    for (auto _ : state) {
        const auto recorder = bench::Open(way, stream, path);
        bench::Feed(*recorder, stream, frames, count);
        recorder->Close();
    }
    std::remove(path.c_str());
    state.SetItemsProcessed(static_cast<std::int64_t>(count) * state.iterations());
}

// The close alone.
void Close(benchmark::State& state, const Stream& stream, Way way, std::size_t count)
{
    const bench::Frames& frames = FramesOf(stream);
    const std::string path = bench::OutputPath();
    for (auto _ : state) {
        state.PauseTiming();
        const auto recorder = bench::Open(way, stream, path);
        bench::Feed(*recorder, stream, frames, count);
        state.ResumeTiming();
        recorder->Close();
    }
    std::remove(path.c_str());
}

constexpr std::size_t kMinute = 60 * 60;

void Register(const char* name, void (*run)(benchmark::State&, const Stream&, Way, std::size_t),
              const Stream& stream, std::size_t count, bool withFwrite)
{
    const std::pair<const char*, Way> ways[] = {
        {"library", Way::kLibrary}, {"lavf", Way::kLavf}, {"fwrite", Way::kFwrite}};
    for (const auto& [wayName, way] : ways) {
        if (way == Way::kFwrite && !withFwrite)
            continue;
        benchmark::RegisterBenchmark((std::string(name) + "/" + wayName).c_str(),
                                     [=, &stream](benchmark::State& state) {
                                         run(state, stream, way, count);
                                     })
            ->Unit(benchmark::kMillisecond)
            ->Iterations(1);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    Register("hd", Record, bench::kHd, 5 * kMinute, true);
    Register("uhd", Record, bench::kUhd, 10 * 60, true);
    Register("tiny", Record, bench::kTiny, 120 * kMinute, false);
    Register("tiny_close", Close, bench::kTiny, 120 * kMinute, false);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
