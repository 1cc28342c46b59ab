// The smallest inputs, one call after the other, for counting instructions: percall.sh runs this under
// callgrind. Each path's calls end up in a dump of their own, under the path's name.

#include "job.h"

extern "C" {
#include <libavutil/log.h>
#include <libavutil/pixfmt.h>
}

#include <cstdio>
#include <valgrind/callgrind.h>

namespace
{

constexpr int kJobs = 100;

bool Count(const std::string& szJob, const bench::Job& job)
{
    for (std::size_t i = 0; i < 2; ++i) { // the library and the steps
        const bench::Path& path = job.vec_Paths[i];
        const std::string szName = szJob + "/" + path.szName;
        // The first calls set things up: lazy binding, frame pools.
        if (!path.Run(5)) {
            static_cast<void>(std::fprintf(stderr, "%s failed\n", szName.c_str()));
            return false;
        }
        CALLGRIND_START_INSTRUMENTATION;
        CALLGRIND_ZERO_STATS;
        const bool bOk = path.Run(kJobs);
        CALLGRIND_DUMP_STATS_AT(szName.c_str());
        CALLGRIND_STOP_INSTRUMENTATION;
        if (!bOk) {
            return false;
        }
    }
    return true;
}

} // namespace

int main()
{
    using bench::Mode;
    const bench::Size size{16, 16};
    av_log_set_level(AV_LOG_ERROR);
    const bool bOk =
        Count("audio_filter/64", bench::AudioFilter(64)) && Count("audio_mix/64", bench::AudioMix(64, 2)) &&
        Count("video_filter_whole/16x16", bench::VideoFilter(size, Mode::kWhole, "hflip")) &&
        Count("video_filter_planes/16x16", bench::VideoFilter(size, Mode::kPlanes, "hflip")) &&
        Count("video_mix_whole/16x16", bench::VideoMix(size, Mode::kWhole)) &&
        Count("video_mix_planes/16x16", bench::VideoMix(size, Mode::kPlanes)) &&
        Count("scale_rgb24/16x16", bench::Scale({AV_PIX_FMT_YUV420P, size, AV_PIX_FMT_RGB24, size}));
    return bOk ? 0 : 1;
}
