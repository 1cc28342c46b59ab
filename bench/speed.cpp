// The speed of the library's five jobs beside other ways of doing them, on Google Benchmark.
//
//   speed [--quick] [--benchmark_... options]

#include "compare.h"

#include <benchmark/benchmark.h>

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavutil/avutil.h>
#include <libavutil/log.h>
#include <libavutil/pixfmt.h>
}

#include <csignal>
#include <cstring>
#include <limits>
#include <malloc.h>
#include <string>
#include <vector>

using bench::Conversion;
using bench::EffortFor;
using bench::Job;
using bench::Mode;
using bench::RegisterComparison;
using bench::Size;

namespace
{

// Cheap on purpose: what the library adds is least hidden behind a filter that does little.
constexpr const char* kFilters = "hflip";

constexpr Size kSizes[] = {{16, 16}, {64, 64}, {640, 360}, {1280, 720}, {1920, 1080}, {3840, 2160}};

void RegisterAudio()
{
    for (const int nSamples : {64, 1024, 16384}) {
        const std::string szSize = std::to_string(nSamples);
        RegisterComparison("audio_filter/" + szSize, bench::EffortForBlocks(),
                           [=] { return bench::AudioFilter(nSamples); });
        RegisterComparison("audio_mix/" + szSize, bench::EffortForBlocks(),
                           [=] { return bench::AudioMix(nSamples, 2); });
    }
}

void RegisterVideo(const Size& size)
{
    RegisterComparison("video_filter_whole/" + Text(size), EffortFor(size), [=] {
        Job job = bench::VideoFilter(size, Mode::kWhole, kFilters);
        // A row of 16 pixels would measure the command's start and its locks, not its filtering.
        if (size.nWidth >= 640) {
            job.vec_Paths.push_back(bench::FfmpegOverPipes(size, kFilters, job));
        }
        return job;
    });
    RegisterComparison("video_filter_planes/" + Text(size), EffortFor(size),
                       [=] { return bench::VideoFilter(size, Mode::kPlanes, kFilters); });
    RegisterComparison("video_mix_whole/" + Text(size), EffortFor(size),
                       [=] { return bench::VideoMix(size, Mode::kWhole); });
    RegisterComparison("video_mix_planes/" + Text(size), EffortFor(size),
                       [=] { return bench::VideoMix(size, Mode::kPlanes); });
}

void RegisterScale(const std::string& szName, const Conversion& conversion)
{
    RegisterComparison(szName + "/" + Text(conversion.src), EffortFor(conversion.src), [=] {
        Job job = bench::Scale(conversion);
        bench::AddRivals(job, conversion);
        return job;
    });
}

void RegisterScaling(const Size& size)
{
    const Size half{size.nWidth / 2, size.nHeight / 2};
    // The chroma rows of 8x8 are too short for the scaler to work without padding.
    if (size.nWidth >= 64) {
        RegisterScale("scale_half", {AV_PIX_FMT_YUV420P, size, AV_PIX_FMT_YUV420P, half});
    }
    RegisterScale("scale_rgb24", {AV_PIX_FMT_YUV420P, size, AV_PIX_FMT_RGB24, size});
    // 16x16 has chroma rows of 8 bytes: there the library goes over padded rows, as it has to.
    if (size.nWidth >= 64) {
        RegisterScale("scale_equal", {AV_PIX_FMT_YUV420P, size, AV_PIX_FMT_YUV420P, size});
    }
    if (size.nWidth == 1920) {
        RegisterScale("scale_gbrp", {AV_PIX_FMT_YUV420P, size, AV_PIX_FMT_GBRP, size});
        RegisterScale("scale_double", {AV_PIX_FMT_YUV420P, {960, 540}, AV_PIX_FMT_YUV420P, size});
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc > 1 && std::strcmp(argv[1], "--quick") == 0) {
        bench::g_bQuick = true;
        argv[1] = argv[0];
        ++argv;
        --argc;
    }
    av_log_set_level(AV_LOG_ERROR);
    // Freed memory stays with the process. Otherwise the allocator gives large pictures' memory back
    // between the paths, and whichever allocates next pays for getting it anew: 3,000 page faults and
    // twice the time at 3840x2160, a lottery that says nothing about the paths.
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));

    RegisterAudio();
    for (const Size& size : kSizes) {
        RegisterVideo(size);
        RegisterScaling(size);
    }
    bench::RegisterQuality();
    bench::RegisterFilterTable();
    bench::RegisterGrowth();

    benchmark::AddCustomContext("ffmpeg", av_version_info());
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    // More than one process-wide run would only repeat the rounds.
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
