// Filter graphs built on FFmpeg directly, for the paths beside the library.
#pragma once

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
}

#include <memory>
#include <string>
#include <vector>

namespace bench
{

struct FreeFrame {
    void operator()(AVFrame* pSt_Frame) const { av_frame_free(&pSt_Frame); }
};
using Frame = std::unique_ptr<AVFrame, FreeFrame>;
Frame NewFrame();

struct FreeGraph {
    void operator()(AVFilterGraph* pSt_Graph) const { avfilter_graph_free(&pSt_Graph); }
};

inline constexpr int kDefaultThreads = 0; // FFmpeg's own choice: one per processor

// Sources with their labels and arguments -> description -> the sink "out".
struct GraphSource {
    std::string szLabel;
    std::string szArgs;
};
struct Graph {
    Graph(bool bAudio, const std::vector<GraphSource>& vec_Wanted, const std::string& szDescr,
          int nThreads);

    std::unique_ptr<AVFilterGraph, FreeGraph> pGraph;
    std::vector<AVFilterContext*> vec_Sources;
    AVFilterContext* pSt_Sink = nullptr;
};

// Hands the caller's memory to FFmpeg, which may read it but has to copy it before it writes.
AVBufferRef* Wrap(unsigned char* pData, std::size_t nSize);

} // namespace bench
