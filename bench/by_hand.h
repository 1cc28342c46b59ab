// The jobs on FFmpeg directly.
#pragma once

#include "measure.h"
#include "tests/support/jobs.h"

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

namespace bench
{

// A filter or mix: 16-bit stereo at 48 kHz, or tight pictures at 25 a second. All inputs are given the same.
struct Task {
    bool bAudio;
    bool bMix; // or a filter, which only pictures have
    jobs::Size size;
    std::string szDescr; // from [in], or from inputs of one letter each, to [out]
    AVPixelFormat format = AV_PIX_FMT_YUV420P;
    bool bWhole = true; // a picture is handed in as one, or plane by plane

    std::size_t Inputs() const;
    std::size_t InputBytes() const;
};

class Graph
{
  public:
    explicit Graph(const Task& task, int nThreads = 1);

    std::vector<AVFilterContext*> vec_Sources;
    AVFilterContext* pSt_Sink = nullptr;

  private:
    struct Free {
        void operator()(AVFilterGraph* pSt_Graph) const { avfilter_graph_free(&pSt_Graph); }
    };
    std::unique_ptr<AVFilterGraph, Free> m_pGraph;
};

// The FFmpeg calls that the library makes, one by one, without handle, lock and error report.
Path Steps(const Task& task, const std::shared_ptr<Buffer>& pIn, const std::shared_ptr<Buffer>& pOut);
// Nothing copied that need not be, from the caller's buffer into the caller's buffer.
Path Expert(const Task& task, const std::shared_ptr<Buffer>& pIn, const std::shared_ptr<Buffer>& pOut);

// Scaling: tight pictures, bilinearly.
struct Conversion {
    AVPixelFormat srcFormat;
    jobs::Size src;
    AVPixelFormat dstFormat;
    jobs::Size dst;
};
std::size_t PictureBytes(AVPixelFormat format, jobs::Size size);
Path Steps(const Conversion& conversion, const std::shared_ptr<Buffer>& pIn,
           const std::shared_ptr<Buffer>& pOut);
Path Expert(const Conversion& conversion, const std::shared_ptr<Buffer>& pIn,
            const std::shared_ptr<Buffer>& pOut);

} // namespace bench
