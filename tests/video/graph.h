// A video graph under test: a filter, or a mix.
#pragma once

#include "support/support.h"

extern "C" {
#include <libavutil/log.h>
}

#include <optional>

namespace test
{

inline AVFILTER_VIDEO_INFO VideoInput(const char* szName, int nInputId, int nWidth, int nHeight,
                                      int nTimeBase = 25)
{
    return VideoInfo(nWidth, nHeight, nTimeBase, kYuv420p, szName, nInputId);
}

class Graph
{
  public:
    ~Graph() { EXPECT_OK(bMix ? AVFilter_Video_MIXDestroy(hGraph) : AVFilter_Video_Destroy(hGraph)); }
    Graph(const Graph&) = delete;
    Graph& operator=(const Graph&) = delete;

    // To a mix.
    bool Send(int nInputId, Picture& picture, bool bWhole = false) const
    {
        return AVFilter_Video_MIXSend(hGraph, nInputId, picture.Plane(0),
                                      bWhole ? nullptr : picture.Plane(1), picture.Plane(2), picture.nLuma,
                                      picture.nChroma, picture.nChroma);
    }
    // Nothing if the graph gave nothing, with the report of that and the outputs checked.
    std::optional<Bytes> Receive(std::size_t nSize) const
    {
        return Output(
            nSize, [&](unsigned char* pOut, int* pn) { return AVFilter_Video_MIXRecv(hGraph, pOut, pn); });
    }
    // One picture through either kind, from memory that can only be read.
    std::optional<Bytes> Run(Picture picture, bool bWhole, std::size_t nSize) const
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
            EXPECT_OK(AVFilter_Video_MIXSend(hGraph, 0, y.Data(), pU, pV, nY, nUV, nUV));
            return Receive(nSize);
        }
        return Output(nSize, [&](unsigned char* pOut, int* pn) {
            return AVFilter_Video_Cvt(hGraph, y.Data(), pU, pV, nY, nUV, nUV, pOut, pn);
        });
    }

    unsigned long long hGraph = 0;

  protected:
    explicit Graph(bool bMix_) : bMix(bMix_) { av_log_set_level(AV_LOG_QUIET); }

  private:
    template <class Call>
    static std::optional<Bytes> Output(std::size_t nSize, const Call& call)
    {
        GuardedBuffer out(nSize);
        const Bytes untouched = out.Copy();
        int nLen = -5;
        if (!call(out.Data(), &nLen)) {
            ExpectFailure(false, AVFILTER_ERROR_VIDEO_RECEIVE_FRAME);
            EXPECT_TRUE(nLen == -5 && out.Copy() == untouched);
            return std::nullopt;
        }
        EXPECT_FALSE(AVFilter_IsErrorOccur);
        EXPECT_EQ(nLen, static_cast<int>(nSize));
        return out.Copy();
    }

    bool bMix;
};

struct Filter : Graph {
    Filter(const char* szDescr, AVFILTER_VIDEO_INFO st_Info) : Graph(false)
    {
        EXPECT_OK(AVFilter_Video_Init(&hGraph, szDescr, &st_Info));
    }
};

struct Mix : Graph {
    Mix(const char* szDescr, const std::vector<AVFILTER_VIDEO_INFO>& vec_Inputs) : Graph(true)
    {
        VideoInfos infos(vec_Inputs);
        EXPECT_OK(AVFilter_Video_MIXInit(&hGraph, infos.Get(), infos.Count(), "out", szDescr));
    }
};

} // namespace test
