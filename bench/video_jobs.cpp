#include "graph.h"
#include "job.h"

#include "Telvane_AVFilter.hpp"

#include <cstring>

namespace bench
{

namespace
{

constexpr int kFormat = AV_PIX_FMT_YUV420P;

// The three planes of a tight yuv420p picture with even sides.
struct Planes {
    unsigned char* p[3];
    int n[3];
};
Planes PlanesOf(unsigned char* pPicture, const Size& size)
{
    const int nLuma = size.nWidth * size.nHeight;
    return {{pPicture, pPicture + nLuma, pPicture + (nLuma * 5) / 4}, {nLuma, nLuma / 4, nLuma / 4}};
}

std::shared_ptr<Buffer> NewPicture(const Size& size)
{
    auto pPicture = std::make_shared<Buffer>(PictureSize(kFormat, size));
    FillNoise(*pPicture);
    return pPicture;
}

std::string SourceArgs(const Size& size)
{
    return "video_size=" + Text(size) + ":pix_fmt=" + std::to_string(kFormat) +
           ":time_base=1/25:pixel_aspect=0/1";
}

AVFILTER_VIDEO_INFO Stream(const Size& size, int nInputId)
{
    AVFILTER_VIDEO_INFO st_Info{};
    Label(nInputId).copy(st_Info.szName, sizeof(st_Info.szName) - 1);
    st_Info.nWidth = size.nWidth;
    st_Info.nHeight = size.nHeight;
    st_Info.nTimeBase = 25;
    st_Info.nPixelFormat = kFormat;
    st_Info.nInputId = nInputId;
    return st_Info;
}

void Describe(AVFrame& st_Frame, const Size& size)
{
    st_Frame.width = size.nWidth;
    st_Frame.height = size.nHeight;
    st_Frame.format = kFormat;
}

void CopyPlanes(AVFrame& st_Frame, const Planes& planes)
{
    for (int i = 0; i < 3; ++i) {
        std::memcpy(st_Frame.data[i], planes.p[i], static_cast<std::size_t>(planes.n[i]));
    }
}

void Point(AVFrame& st_Frame, const Planes& planes)
{
    for (int i = 0; i < 3; ++i) {
        st_Frame.data[i] = planes.p[i];
    }
}

// Row by row, whatever the frame's line sizes are.
void PackRows(const AVFrame& st_Frame, unsigned char* pOut)
{
    for (int i = 0; i < 3; ++i) {
        const int nShift = i == 0 ? 0 : 1;
        const auto nWidth = static_cast<std::size_t>(st_Frame.width >> nShift);
        for (int nRow = 0; nRow < st_Frame.height >> nShift; ++nRow) {
            std::memcpy(pOut, st_Frame.data[i] + static_cast<std::ptrdiff_t>(nRow) * st_Frame.linesize[i],
                        nWidth);
            pOut += nWidth;
        }
    }
}

// What an expert does: one copy for a plane whose rows are contiguous.
void PackPlanes(const AVFrame& st_Frame, unsigned char* pOut)
{
    av_image_copy_to_buffer(pOut, static_cast<int>(PictureSize(kFormat, {st_Frame.width, st_Frame.height})),
                            st_Frame.data, st_Frame.linesize, static_cast<AVPixelFormat>(kFormat),
                            st_Frame.width, st_Frame.height, 1);
}

// A frame over the caller's tight picture, which keeps the memory alive by nothing but the caller's word.
void WrapPicture(AVFrame& st_Frame, const Buffer& picture, const Size& size)
{
    Describe(st_Frame, size);
    av_image_fill_arrays(st_Frame.data, st_Frame.linesize, picture.Data(),
                         static_cast<AVPixelFormat>(kFormat), size.nWidth, size.nHeight, 1);
    st_Frame.buf[0] = Wrap(picture.Data(), picture.Size());
}

std::vector<std::uint8_t> SinkBytes(const AVFrame& st_Frame)
{
    std::vector<std::uint8_t> vec_Bytes(PictureSize(kFormat, {st_Frame.width, st_Frame.height}));
    PackRows(st_Frame, vec_Bytes.data());
    return vec_Bytes;
}

struct FilterHandle {
    unsigned long long hHandle = 0;
    FilterHandle() = default;
    FilterHandle(const FilterHandle&) = delete;
    FilterHandle& operator=(const FilterHandle&) = delete;
    ~FilterHandle() { AVFilter_Video_Destroy(hHandle); }
};
struct MixHandle {
    unsigned long long hHandle = 0;
    MixHandle() = default;
    MixHandle(const MixHandle&) = delete;
    MixHandle& operator=(const MixHandle&) = delete;
    ~MixHandle() { AVFilter_Video_MIXDestroy(hHandle); }
};

// What the paths on FFmpeg keep between calls.
struct State {
    State(const std::vector<GraphSource>& vec_Sources, const std::string& szDescr, int nThreads)
        : graph(false, vec_Sources, szDescr, nThreads)
    {
    }
    Graph graph;
    Frame in = NewFrame();
    Frame out = NewFrame();
    int nPts = 0;
};

struct FilterInput {
    Size size;
    Mode mode;
    std::string szDescr;
    std::shared_ptr<Buffer> pIn;
    std::shared_ptr<Buffer> pOut;
};

Path FilterSteps(const std::string& szName, const FilterInput& input, int nThreads)
{
    auto pState = std::make_shared<State>(std::vector<GraphSource>{{"in", SourceArgs(input.size)}},
                                          input.szDescr, nThreads);
    const std::shared_ptr<Buffer> pOut = input.pOut;
    auto pOwn = NewPicture(input.size);
    Describe(*pState->in, input.size);
    av_image_fill_arrays(pState->in->data, pState->in->linesize, pOwn->Data(),
                         static_cast<AVPixelFormat>(kFormat), input.size.nWidth, input.size.nHeight, 1);
    const Planes planes = PlanesOf(input.pIn->Data(), input.size);
    return {szName, Repeat([=, mode = input.mode, pIn = input.pIn] {
                static_cast<void>(pOwn); // the frame's planes lie in it
                AVFrame& st_In = *pState->in;
                AVFrame& st_Out = *pState->out;
                if (mode == Mode::kWhole) {
                    Point(st_In, planes);
                } else {
                    CopyPlanes(st_In, planes);
                }
                if (av_buffersrc_add_frame(pState->graph.vec_Sources[0], &st_In) < 0 ||
                    av_buffersink_get_frame(pState->graph.pSt_Sink, &st_Out) < 0) {
                    return false;
                }
                PackRows(st_Out, pOut->Data());
                av_frame_unref(&st_Out);
                return true;
            }),
            BytesOf(pOut)};
}

Path FilterExpert(const std::string& szName, const FilterInput& input, bool bInPlace)
{
    auto pState =
        std::make_shared<State>(std::vector<GraphSource>{{"in", SourceArgs(input.size)}}, input.szDescr, 1);
    const std::shared_ptr<Buffer> pOut = input.pOut;
    return {szName, Repeat([=, size = input.size, pIn = input.pIn] {
                AVFrame& st_In = *pState->in;
                AVFrame& st_Out = *pState->out;
                WrapPicture(st_In, *pIn, size);
                av_frame_unref(&st_Out);
                if (av_buffersrc_add_frame(pState->graph.vec_Sources[0], &st_In) < 0 ||
                    av_buffersink_get_frame(pState->graph.pSt_Sink, &st_Out) < 0) {
                    return false;
                }
                if (!bInPlace) {
                    PackPlanes(st_Out, pOut->Data());
                }
                return true;
            }),
            bInPlace ? std::function([=] { return SinkBytes(*pState->out); }) : BytesOf(pOut)};
}

struct MixInput {
    std::vector<Size> vec_Sizes;
    Mode mode;
    std::string szDescr;
    std::vector<std::shared_ptr<Buffer>> vec_In;
    std::shared_ptr<Buffer> pOut;
};

std::shared_ptr<State> NewMixState(const MixInput& input, int nThreads)
{
    std::vector<GraphSource> vec_Sources;
    for (std::size_t i = 0; i < input.vec_Sizes.size(); ++i) {
        vec_Sources.push_back({Label(static_cast<int>(i)), SourceArgs(input.vec_Sizes[i])});
    }
    return std::make_shared<State>(vec_Sources, input.szDescr, nThreads);
}

Path MixSteps(const std::string& szName, const MixInput& input, int nThreads)
{
    auto pState = NewMixState(input, nThreads);
    return {szName, Repeat([=] {
                for (std::size_t i = 0; i < input.vec_Sizes.size(); ++i) {
                    AVFrame* pSt_Frame = av_frame_alloc();
                    Describe(*pSt_Frame, input.vec_Sizes[i]);
                    av_frame_get_buffer(pSt_Frame, 1);
                    const Planes planes = PlanesOf(input.vec_In[i]->Data(), input.vec_Sizes[i]);
                    if (input.mode == Mode::kWhole) {
                        Point(*pSt_Frame, planes);
                    } else {
                        CopyPlanes(*pSt_Frame, planes);
                    }
                    pSt_Frame->pts = pState->nPts;
                    if (av_buffersrc_add_frame(pState->graph.vec_Sources[i], pSt_Frame) < 0) {
                        return false;
                    }
                    av_frame_free(&pSt_Frame);
                }
                ++pState->nPts;
                AVFrame* pSt_Frame = av_frame_alloc();
                if (av_buffersink_get_frame(pState->graph.pSt_Sink, pSt_Frame) < 0) {
                    return false;
                }
                PackRows(*pSt_Frame, input.pOut->Data());
                av_frame_free(&pSt_Frame);
                return true;
            }),
            BytesOf(input.pOut)};
}

Path MixExpert(const std::string& szName, const MixInput& input, bool bInPlace)
{
    auto pState = NewMixState(input, 1);
    return {szName, Repeat([=] {
                AVFrame& st_In = *pState->in;
                AVFrame& st_Out = *pState->out;
                for (std::size_t i = 0; i < input.vec_Sizes.size(); ++i) {
                    WrapPicture(st_In, *input.vec_In[i], input.vec_Sizes[i]);
                    st_In.pts = pState->nPts;
                    if (av_buffersrc_add_frame(pState->graph.vec_Sources[i], &st_In) < 0) {
                        return false;
                    }
                }
                ++pState->nPts;
                av_frame_unref(&st_Out);
                if (av_buffersink_get_frame(pState->graph.pSt_Sink, &st_Out) < 0) {
                    return false;
                }
                if (!bInPlace) {
                    PackPlanes(st_Out, input.pOut->Data());
                }
                return true;
            }),
            bInPlace ? std::function([=] { return SinkBytes(*pState->out); }) : BytesOf(input.pOut)};
}

} // namespace

std::size_t PictureSize(int nFormat, const Size& size)
{
    return static_cast<std::size_t>(
        av_image_get_buffer_size(static_cast<AVPixelFormat>(nFormat), size.nWidth, size.nHeight, 1));
}

Job VideoFilter(const Size& size, Mode mode, const std::string& szFilters)
{
    const FilterInput input{size, mode, "[in]" + szFilters + ",format=yuv420p[out]", NewPicture(size),
                            std::make_shared<Buffer>(PictureSize(kFormat, size))};
    auto pHandle = std::make_shared<FilterHandle>();
    AVFILTER_VIDEO_INFO st_Info = Stream(size, 0);
    AVFilter_Video_Init(&pHandle->hHandle, input.szDescr.c_str(), &st_Info);
    const Planes planes = PlanesOf(input.pIn->Data(), size);
    unsigned char* pU = mode == Mode::kWhole ? nullptr : planes.p[1];
    Path library{"library", Repeat([=] {
                     int nSize = 0;
                     return AVFilter_Video_Cvt(pHandle->hHandle, input.pIn->Data(), pU, planes.p[2],
                                               planes.n[0], planes.n[1], planes.n[2], input.pOut->Data(),
                                               &nSize);
                 }),
                 BytesOf(input.pOut)};
    return {{std::move(library), FilterSteps("steps", input, 1),
             FilterSteps("threads", input, kDefaultThreads), FilterExpert("expert", input, false),
             FilterExpert("in_place", input, true)},
            input.pIn,
            input.pOut};
}

Job VideoMix(const Size& size, Mode mode)
{
    const Size half{size.nWidth / 2, size.nHeight / 2};
    const MixInput input{{size, half},
                         mode,
                         "[i0][i1]overlay=x=4:y=4,format=yuv420p[out]",
                         {NewPicture(size), NewPicture(half)},
                         std::make_shared<Buffer>(PictureSize(kFormat, size))};
    auto pHandle = std::make_shared<MixHandle>();
    AVFILTER_VIDEO_INFO st_Infos[2] = {Stream(size, 0), Stream(half, 1)};
    AVFILTER_VIDEO_INFO* pInfos[2] = {&st_Infos[0], &st_Infos[1]};
    AVFILTER_VIDEO_INFO** ppInfo = pInfos;
    AVFilter_Video_MIXInit(&pHandle->hHandle, &ppInfo, 2, "out", input.szDescr.c_str());
    Path library{"library", Repeat([=] {
                     for (std::size_t i = 0; i < 2; ++i) {
                         const Planes planes = PlanesOf(input.vec_In[i]->Data(), input.vec_Sizes[i]);
                         unsigned char* pU = input.mode == Mode::kWhole ? nullptr : planes.p[1];
                         if (!AVFilter_Video_MIXSend(pHandle->hHandle, static_cast<int>(i), planes.p[0], pU,
                                                     planes.p[2], planes.n[0], planes.n[1], planes.n[2])) {
                             return false;
                         }
                     }
                     int nSize = 0;
                     return AVFilter_Video_MIXRecv(pHandle->hHandle, input.pOut->Data(), &nSize);
                 }),
                 BytesOf(input.pOut)};
    const auto layerInput = [](const Size& s, int nInputId) {
        return telvane::VideoInput{Label(nInputId), {{AV_PIX_FMT_YUV420P, s.nWidth, s.nHeight}, 25}};
    };
    auto pLayer = std::make_shared<telvane::VideoMixer>(
        std::vector<telvane::VideoInput>{layerInput(size, 0), layerInput(half, 1)},
        "[i0][i1]overlay=x=4:y=4", telvane::Size{size.nWidth, size.nHeight});
    Path layer{"layer", Repeat([=] {
                   for (std::size_t i = 0; i < 2; ++i) {
                       if (input.mode == Mode::kWhole) {
                           pLayer->SendWithoutCopy(
                               i, input.vec_In[i]->Bytes(telvane::VideoMixer::kSpareBytes));
                       } else {
                           pLayer->Send(i, input.vec_In[i]->Bytes());
                       }
                   }
                   return pLayer->Receive(input.pOut->Bytes()).has_value();
               }),
               BytesOf(input.pOut)};
    return {{std::move(library), MixSteps("steps", input, 1), MixSteps("threads", input, kDefaultThreads),
             MixExpert("expert", input, false), MixExpert("in_place", input, true), std::move(layer)},
            input.vec_In[0],
            input.pOut};
}

} // namespace bench
