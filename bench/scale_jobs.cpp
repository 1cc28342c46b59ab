#include "graph.h"
#include "job.h"

#include "Telvane_AVFilter.hpp"

extern "C" {
#include <libswscale/swscale.h>
}

#include <cstring>

namespace bench
{

namespace
{

struct Handle {
    unsigned long long hHandle = 0;
    Handle() = default;
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() { AVFilter_VideoScale_Destory(hHandle); }
};

struct FreeScaler {
    void operator()(SwsContext* pSt_Scaler) const { sws_freeContext(pSt_Scaler); }
};
using Scaler = std::unique_ptr<SwsContext, FreeScaler>;

Scaler NewScaler(const Conversion& c)
{
    return Scaler(sws_getContext(c.src.nWidth, c.src.nHeight, static_cast<AVPixelFormat>(c.nSrcFormat),
                                 c.dst.nWidth, c.dst.nHeight, static_cast<AVPixelFormat>(c.nDstFormat),
                                 SWS_BILINEAR, nullptr, nullptr, nullptr));
}

// A tight picture's planes in a buffer.
struct Picture {
    Picture(int nFormat, const Size& size, unsigned char* pBuffer)
    {
        av_image_fill_arrays(pPlane, nLine, pBuffer, static_cast<AVPixelFormat>(nFormat), size.nWidth,
                             size.nHeight, 1);
    }
    std::uint8_t* pPlane[4]{};
    int nLine[4]{};
};

struct State {
    explicit State(const Conversion& c)
        : scaler(NewScaler(c)), src(PictureSize(c.nSrcFormat, c.src)), dst(PictureSize(c.nDstFormat, c.dst))
    {
    }
    Scaler scaler;
    Buffer src;
    Buffer dst;
};

} // namespace

// Sizes whose tight destination rows are multiples of 16 bytes: there the scaler works right without
// padding, and so does the library.
Job Scale(const Conversion& conversion)
{
    const Conversion c = conversion;
    auto pIn = std::make_shared<Buffer>(PictureSize(c.nSrcFormat, c.src));
    auto pOut = std::make_shared<Buffer>(PictureSize(c.nDstFormat, c.dst));
    FillNoise(*pIn);

    auto pHandle = std::make_shared<Handle>();
    AVFilter_VideoScale_Init(&pHandle->hHandle);
    AVFilter_VideoScale_Set(pHandle->hHandle, c.nSrcFormat, c.src.nWidth, c.src.nHeight, c.nDstFormat,
                            c.dst.nWidth, c.dst.nHeight);
    Path library{"library", Repeat([=] {
                     int nSize = static_cast<int>(pOut->Size());
                     return AVFilter_VideoScale_Fmt(pHandle->hHandle,
                                                    reinterpret_cast<const char*>(pIn->Data()),
                                                    pOut->Data(), &nSize);
                 }),
                 BytesOf(pOut)};

    auto pLayer = std::make_shared<telvane::VideoScaler>(
        telvane::Picture{static_cast<AVPixelFormat>(c.nSrcFormat), c.src.nWidth, c.src.nHeight},
        telvane::Picture{static_cast<AVPixelFormat>(c.nDstFormat), c.dst.nWidth, c.dst.nHeight});
    Path layer{"layer", Repeat([=] {
                   pLayer->Scale(pIn->Bytes(), pOut->Bytes());
                   return true;
               }),
               BytesOf(pOut)};

    auto pState = std::make_shared<State>(c);
    const Picture ownSrc(c.nSrcFormat, c.src, pState->src.Data());
    const Picture ownDst(c.nDstFormat, c.dst, pState->dst.Data());
    Path steps{"steps", Repeat([=] {
                   std::memcpy(pState->src.Data(), pIn->Data(), pIn->Size());
                   if (sws_scale(pState->scaler.get(), ownSrc.pPlane, ownSrc.nLine, 0, c.src.nHeight,
                                 ownDst.pPlane, ownDst.nLine) <= 0) {
                       return false;
                   }
                   std::memcpy(pOut->Data(), pState->dst.Data(), pOut->Size());
                   return true;
               }),
               BytesOf(pOut)};

    // From the caller's planes into the caller's planes; equal pictures are simply copied.
    const bool bCopy =
        c.nSrcFormat == c.nDstFormat && c.src.nWidth == c.dst.nWidth && c.src.nHeight == c.dst.nHeight;
    const Picture src(c.nSrcFormat, c.src, pIn->Data());
    const Picture dst(c.nDstFormat, c.dst, pOut->Data());
    std::shared_ptr<SwsContext> pScaler = NewScaler(c);
    Path expert{"expert", Repeat([=] {
                    if (bCopy) {
                        std::memcpy(pOut->Data(), pIn->Data(), pIn->Size());
                        return true;
                    }
                    return sws_scale(pScaler.get(), src.pPlane, src.nLine, 0, c.src.nHeight, dst.pPlane,
                                     dst.nLine) > 0;
                }),
                BytesOf(pOut)};
    return {{std::move(library), std::move(steps), std::move(expert), std::move(layer)}, pIn, pOut};
}

} // namespace bench
