// Whole recordings, this library beside FFmpeg's own MP4 muxer and a bare fwrite, in CPU time.
// Run with --benchmark_repetitions=7 --benchmark_enable_random_interleaving=true and compare the
// medians: the machine's speed drifts, the ratios hold.
#include "workload.h"

#include <benchmark/benchmark.h>
#include <kv_mp4.h>

#include <cstdio>
#include <filesystem>
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

// The repair of a recording that died, from its log; or the copy of that log.
void Repair(benchmark::State& state, std::size_t count, bool copyOnly)
{
    namespace fs = std::filesystem;
    const bench::Frames& frames = FramesOf(bench::kHd);
    const fs::path path = bench::OutputPath();
    const fs::path info = path.string() + ".info";
    const fs::path kept = path.string() + ".kept";
    const auto recorder = bench::Open(Way::kInfo, bench::kHd, path);
    bench::Feed(*recorder, bench::kHd, frames, count);
    fs::copy_file(info, kept, fs::copy_options::overwrite_existing);
    const auto size = fs::file_size(path);
    recorder->Close();  // deletes the log
    fs::resize_file(path, size);
    fs::copy_file(kept, info);
    for (auto _ : state) {
        if (copyOnly)
            fs::copy_file(info, kept, fs::copy_options::overwrite_existing);
        else if (mp4_repair_file_ex(path.c_str(), 0) != MP4_OK)
            state.SkipWithError("the repair failed");
    }
    state.counters["log"] = static_cast<double>(fs::file_size(info));
    for (const fs::path& file : {path, info, kept})
        fs::remove(file);
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
    const std::pair<const char*, Way> modes[] = {{"modes/plain", Way::kLibrary},
                                                 {"modes/safe", Way::kSafe},
                                                 {"modes/info", Way::kInfo},
                                                 {"modes/both", Way::kBoth}};
    for (const auto& [name, way] : modes) {
        benchmark::RegisterBenchmark(name, [way](benchmark::State& state) {
            Record(state, bench::kHd, way, 60 * kMinute);
        })->Unit(benchmark::kMillisecond)->Iterations(1);
    }
    for (const std::size_t hours : {1u, 10u}) {
        for (const bool copyOnly : {false, true}) {
            const std::string name = (copyOnly ? "copy_log/" : "repair/") + std::to_string(hours);
            benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
                Repair(state, hours * 60 * kMinute, copyOnly);
            })->Unit(benchmark::kMillisecond)->Iterations(1);
        }
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
