#include "by_hand.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/channel_layout.h>
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

#include <cstring>

namespace bench
{

namespace
{

using jobs::Demand;
using jobs::Size;

struct FreeFrame {
    void operator()(AVFrame* pSt_Frame) const { av_frame_free(&pSt_Frame); }
};
using Frame = std::unique_ptr<AVFrame, FreeFrame>;

void Describe(AVFrame& st_Frame, const Task& task)
{
    if (task.bAudio) {
        st_Frame.sample_rate = 48000;
        st_Frame.format = AV_SAMPLE_FMT_S16;
        st_Frame.nb_samples = task.size.nSamples;
        av_channel_layout_default(&st_Frame.ch_layout, 2);
    } else {
        st_Frame.width = task.size.nWidth;
        st_Frame.height = task.size.nHeight;
        st_Frame.format = task.format;
    }
}

// Where the planes of a tight block or picture lie.
void PointTo(AVFrame& st_Frame, const Task& task, unsigned char* pData)
{
    if (task.bAudio) {
        st_Frame.data[0] = pData;
        st_Frame.linesize[0] = task.size.Samples();
    } else {
        av_image_fill_arrays(st_Frame.data, st_Frame.linesize, pData, task.format, task.size.nWidth,
                             task.size.nHeight, 1);
    }
}

void CopyInto(AVFrame& st_Frame, const Task& task, const Buffer& in)
{
    if (task.bAudio) {
        std::memcpy(st_Frame.data[0], in.Data(), in.Size());
        return;
    }
    const unsigned char* p = in.Data();
    for (std::size_t i = 0; i < 3; ++i) {
        const auto n = static_cast<std::size_t>(task.size.Luma()) / (i == 0 ? 1 : 4);
        std::memcpy(st_Frame.data[i], p, n);
        p += n;
    }
}

// As the library packs: pictures row by row, whatever the frame's line sizes are.
void Pack(const AVFrame& st_Frame, const Task& task, unsigned char* pOut)
{
    if (task.bAudio) {
        std::memcpy(pOut, st_Frame.data[0], static_cast<std::size_t>(st_Frame.nb_samples) * 4);
        return;
    }
    for (int i = 0; i < 3; ++i) {
        const int nShift = i == 0 ? 0 : 1;
        const auto nWidth = static_cast<std::size_t>(st_Frame.width >> nShift);
        for (std::ptrdiff_t nRow = 0; nRow < st_Frame.height >> nShift; ++nRow, pOut += nWidth) {
            std::memcpy(pOut, st_Frame.data[i] + nRow * st_Frame.linesize[i], nWidth);
        }
    }
}

// What a path keeps between calls.
struct State {
    explicit State(const Task& task) : graph(task), own(task.InputBytes())
    {
        Describe(*in, task);
        PointTo(*in, task, own.Data());
    }
    Graph graph;
    Buffer own; // where a filter's planes are put together
    Frame in{av_frame_alloc()};
    Frame out{av_frame_alloc()};
    std::int64_t nPts = 0;
};

bool FilterStep(State& state, const Task& task, const Buffer& in, unsigned char* pOut)
{
    if (task.bWhole) {
        PointTo(*state.in, task, in.Data());
    } else {
        CopyInto(*state.in, task, in);
    }
    if (av_buffersrc_add_frame(state.graph.vec_Sources[0], state.in.get()) < 0 ||
        av_buffersink_get_frame(state.graph.pSt_Sink, state.out.get()) < 0) {
        return false;
    }
    Pack(*state.out, task, pOut);
    av_frame_unref(state.out.get());
    return true;
}

bool MixStep(State& state, const Task& task, const Buffer& in, unsigned char* pOut)
{
    for (AVFilterContext* pSt_Source : state.graph.vec_Sources) {
        const Frame frame(av_frame_alloc());
        Describe(*frame, task);
        av_frame_get_buffer(frame.get(), 1);
        if (!task.bAudio) {
            frame->pts = state.nPts;
        }
        if (!task.bAudio && task.bWhole) {
            PointTo(*frame, task, in.Data());
        } else {
            CopyInto(*frame, task, in);
        }
        if (av_buffersrc_add_frame(pSt_Source, frame.get()) < 0) {
            return false;
        }
    }
    ++state.nPts;
    const Frame frame(av_frame_alloc());
    if (av_buffersink_get_frame(state.graph.pSt_Sink, frame.get()) < 0) {
        return false;
    }
    Pack(*frame, task, pOut);
    return true;
}

bool ExpertStep(State& state, const Task& task, const Buffer& in, const Buffer& out)
{
    AVFrame& st_In = *state.in;
    AVFrame& st_Out = *state.out;
    for (AVFilterContext* pSt_Source : state.graph.vec_Sources) {
        Describe(st_In, task);
        PointTo(st_In, task, in.Data());
        // FFmpeg may read the caller's memory, but has to copy it before it writes.
        st_In.buf[0] = av_buffer_create(
            in.Data(), in.Size(), [](void*, std::uint8_t*) {}, nullptr, AV_BUFFER_FLAG_READONLY);
        st_In.pts = task.bAudio ? AV_NOPTS_VALUE : state.nPts;
        if (av_buffersrc_add_frame(pSt_Source, &st_In) < 0) {
            return false;
        }
    }
    ++state.nPts;
    av_frame_unref(&st_Out);
    if (av_buffersink_get_frame(state.graph.pSt_Sink, &st_Out) < 0) {
        return false;
    }
    if (task.bAudio) {
        Pack(st_Out, task, out.Data());
        return true;
    }
    return av_image_copy_to_buffer(out.Data(), static_cast<int>(out.Size()), st_Out.data, st_Out.linesize,
                                   task.format, st_Out.width, st_Out.height, 1) > 0;
}

// ---- Scaling -------------------------------------------------------------------------------------------------

struct Scaler {
    struct Free {
        void operator()(SwsContext* p) const { sws_freeContext(p); }
    };

    Scaler(const Conversion& c, unsigned char* pIn, unsigned char* pOut)
        : pContext(sws_getContext(c.src.nWidth, c.src.nHeight, c.srcFormat, c.dst.nWidth, c.dst.nHeight,
                                  c.dstFormat, SWS_BILINEAR, nullptr, nullptr, nullptr)),
          nRows(c.src.nHeight)
    {
        av_image_fill_arrays(pSrc, nSrcLine, pIn, c.srcFormat, c.src.nWidth, c.src.nHeight, 1);
        av_image_fill_arrays(pDst, nDstLine, pOut, c.dstFormat, c.dst.nWidth, c.dst.nHeight, 1);
    }
    bool Run() const { return sws_scale(pContext.get(), pSrc, nSrcLine, 0, nRows, pDst, nDstLine) > 0; }

    std::unique_ptr<SwsContext, Free> pContext;
    int nRows;
    std::uint8_t* pSrc[4]{};
    std::uint8_t* pDst[4]{};
    int nSrcLine[4]{};
    int nDstLine[4]{};
};

} // namespace

std::size_t Task::Inputs() const
{
    std::size_t n = 0;
    while (bMix && szDescr[3 * n] == '[') {
        ++n;
    }
    return bMix ? n : 1;
}

std::size_t Task::InputBytes() const
{
    return bAudio ? static_cast<std::size_t>(size.Samples()) : PictureBytes(format, size);
}

Graph::Graph(const Task& task, int nThreads) : m_pGraph(avfilter_graph_alloc())
{
    AVFilterGraph* const pSt_Graph = m_pGraph.get();
    pSt_Graph->nb_threads = nThreads;
    const std::string szVideo =
        "video_size=" + std::to_string(task.size.nWidth) + "x" + std::to_string(task.size.nHeight) +
        ":pix_fmt=" + std::to_string(task.format) + ":time_base=1/25:pixel_aspect=0/1";
    const char* const szArgs =
        task.bAudio ? "time_base=1/48000:sample_rate=48000:sample_fmt=s16:channel_layout=stereo"
                    : szVideo.c_str();
    AVFilterInOut* pSt_Ends[2] = {avfilter_inout_alloc(), nullptr}; // the graph's output and inputs
    const auto open = [](AVFilterInOut* pSt_End, const std::string& szLabel, AVFilterContext* pSt_Filter) {
        pSt_End->name = av_strdup(szLabel.c_str());
        pSt_End->filter_ctx = pSt_Filter;
    };
    for (std::size_t i = 0; i < task.Inputs(); ++i) {
        const std::string szLabel = task.bMix ? std::string(1, task.szDescr[3 * i + 1]) : "in";
        AVFilterContext* pSt_Source = nullptr;
        Demand(avfilter_graph_create_filter(&pSt_Source,
                                            avfilter_get_by_name(task.bAudio ? "abuffer" : "buffer"),
                                            szLabel.c_str(), szArgs, nullptr, pSt_Graph) >= 0,
               szArgs);
        vec_Sources.push_back(pSt_Source);
        AVFilterInOut* const pSt_Next = pSt_Ends[1];
        pSt_Ends[1] = avfilter_inout_alloc();
        pSt_Ends[1]->next = pSt_Next;
        open(pSt_Ends[1], szLabel, pSt_Source);
    }
    Demand(avfilter_graph_create_filter(&pSt_Sink,
                                        avfilter_get_by_name(task.bAudio ? "abuffersink" : "buffersink"),
                                        "out", nullptr, nullptr, pSt_Graph) >= 0,
           "sink");
    open(pSt_Ends[0], "out", pSt_Sink);
    Demand(avfilter_graph_parse_ptr(pSt_Graph, task.szDescr.c_str(), &pSt_Ends[0], &pSt_Ends[1], nullptr) >=
                   0 &&
               avfilter_graph_config(pSt_Graph, nullptr) >= 0,
           task.szDescr.c_str());
    avfilter_inout_free(&pSt_Ends[0]);
    avfilter_inout_free(&pSt_Ends[1]);
}

std::size_t PictureBytes(AVPixelFormat format, Size size)
{
    return static_cast<std::size_t>(av_image_get_buffer_size(format, size.nWidth, size.nHeight, 1));
}

Path Steps(const Task& task, const std::shared_ptr<Buffer>& pIn, const std::shared_ptr<Buffer>& pOut)
{
    auto pState = std::make_shared<State>(task);
    return {"steps", Repeat([=] {
                return task.bMix ? MixStep(*pState, task, *pIn, pOut->Data())
                                 : FilterStep(*pState, task, *pIn, pOut->Data());
            })};
}

Path Expert(const Task& task, const std::shared_ptr<Buffer>& pIn, const std::shared_ptr<Buffer>& pOut)
{
    auto pState = std::make_shared<State>(task);
    return {"expert", Repeat([=] { return ExpertStep(*pState, task, *pIn, *pOut); })};
}

Path Steps(const Conversion& conversion, const std::shared_ptr<Buffer>& pIn,
           const std::shared_ptr<Buffer>& pOut)
{
    auto pOwnIn = std::make_shared<Buffer>(pIn->Size());
    auto pOwnOut = std::make_shared<Buffer>(pOut->Size());
    auto pScaler = std::make_shared<Scaler>(conversion, pOwnIn->Data(), pOwnOut->Data());
    return {"steps", Repeat([=] {
                std::memcpy(pOwnIn->Data(), pIn->Data(), pIn->Size());
                const bool bOk = pScaler->Run();
                std::memcpy(pOut->Data(), pOwnOut->Data(), pOut->Size());
                return bOk;
            })};
}

Path Expert(const Conversion& conversion, const std::shared_ptr<Buffer>& pIn,
            const std::shared_ptr<Buffer>& pOut)
{
    auto pScaler = std::make_shared<Scaler>(conversion, pIn->Data(), pOut->Data());
    return {"expert", Repeat([=] { return pScaler->Run(); })};
}

} // namespace bench
