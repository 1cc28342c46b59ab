// A handle of the video family and its calls with every result checked.
#pragma once

#include "support/graph.h"

namespace test
{

inline AVFILTER_VIDEO_INFO VideoInput(const char* szName, int nInputId, int nWidth, int nHeight,
                                      int nTimeBase = 25)
{
    return VideoInfo(nWidth, nHeight, nTimeBase, kYuv420p, szName, nInputId);
}

class VideoGraph : public Graph<Video>
{
  public:
    using Graph::Graph;

    bool Send(int nInputId, Picture& picture, bool bWhole = false) const
    {
        return AVFilter_Video_MIXSend(Get(), nInputId, picture.Plane(0),
                                      bWhole ? nullptr : picture.Plane(1), picture.Plane(2), picture.nLuma,
                                      picture.nChroma, picture.nChroma);
    }
    Bytes Recv() const
    {
        return Take<unsigned char>(
            [this](unsigned char* pOut, int* pnOut) { return Video::MixRecv(Get(), pOut, pnOut); });
    }
    // One picture through a filter, or through input 0 of a mix, from memory that can only be read.
    Bytes Run(Picture picture, bool bWhole, bool bMix = false) const
    {
        const auto nChroma = static_cast<std::size_t>(bWhole ? 0 : picture.nChroma);
        GuardedBuffer u(nChroma);
        GuardedBuffer v(nChroma);
        u.Assign({picture.Plane(1), picture.Plane(1) + nChroma});
        v.Assign({picture.Plane(2), picture.Plane(2) + nChroma});
        GuardedBuffer y(picture.bytes.size() - 2 * nChroma);
        y.Assign({picture.bytes.begin(), picture.bytes.end() - static_cast<std::ptrdiff_t>(2 * nChroma)});
        for (GuardedBuffer* pPlane : {&y, &u, &v}) {
            pPlane->Protect();
        }
        // Either chroma pointer missing means a whole picture, whose counts are not looked at.
        unsigned char* const pU = bWhole && picture.bytes[0] % 2 == 0 ? nullptr : u.Data();
        unsigned char* const pV = bWhole && pU != nullptr ? nullptr : v.Data();
        const int nY = bWhole ? -1 : picture.nLuma;
        const int nUV = bWhole ? -1 : picture.nChroma;
        if (bMix) {
            EXPECT_OK(AVFilter_Video_MIXSend(Get(), 0, y.Data(), pU, pV, nY, nUV, nUV));
            return Recv();
        }
        return Take<unsigned char>([&](unsigned char* pOut, int* pnOut) {
            return AVFilter_Video_Cvt(Get(), y.Data(), pU, pV, nY, nUV, nUV, pOut, pnOut);
        });
    }
};

} // namespace test
