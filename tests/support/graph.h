// The two families that build filter graphs, under one form, and a graph of either.
#pragma once

#include "support.h"

#include <string>

namespace test
{

using Handle = unsigned long long;

// The names that differ, and each call with the arguments that do.
struct Audio {
    using Info = AVFILTER_AUDIO_INFO;
    static constexpr Handle kBase = 0x80F0000;
    static constexpr Handle kNotFound = AVFILTER_ERROR_AUDIO_NOT_FOUND;
    static constexpr Handle kReceive = AVFILTER_ERROR_AUDIO_RECEIVE_FRAME;
    static constexpr auto Init = AVFilter_Audio_Init;
    static constexpr auto Destroy = AVFilter_Audio_Destroy;
    static constexpr auto MixInit = AVFilter_Audio_MIXInit;
    static constexpr auto MixRecv = AVFilter_Audio_MIXRecv;
    static constexpr auto MixDestroy = AVFilter_Audio_MIXDestroy;
    static bool Cvt(Handle h, unsigned char* p, unsigned char* pOut, int* pnOut)
    {
        return AVFilter_Audio_Cvt(h, p, 4, pOut, pnOut);
    }
    static bool Send(Handle h, int nId, unsigned char* p) { return AVFilter_Audio_MIXSend(h, nId, p, 4); }
    static Info Stream(const char* szName) { return AudioInfo(kS16, 48000, 480, 2, szName); }
};

struct Video {
    using Info = AVFILTER_VIDEO_INFO;
    static constexpr Handle kBase = 0x80F1000;
    static constexpr Handle kNotFound = AVFILTER_ERROR_VIDEO_NOT_FOUND;
    static constexpr Handle kReceive = AVFILTER_ERROR_VIDEO_RECEIVE_FRAME;
    static constexpr auto Init = AVFilter_Video_Init;
    static constexpr auto Destroy = AVFilter_Video_Destroy;
    static constexpr auto MixInit = AVFilter_Video_MIXInit;
    static constexpr auto MixRecv = AVFilter_Video_MIXRecv;
    static constexpr auto MixDestroy = AVFilter_Video_MIXDestroy;
    static bool Cvt(Handle h, unsigned char* p, unsigned char* pOut, int* pnOut)
    {
        return AVFilter_Video_Cvt(h, p, p, p, 1, 1, 1, pOut, pnOut);
    }
    static bool Send(Handle h, int nId, unsigned char* p)
    {
        return AVFilter_Video_MIXSend(h, nId, p, p, p, 1, 1, 1);
    }
    static Info Stream(const char* szName) { return VideoInfo(32, 16, 25, kYuv420p, szName); }
};

template <class Family>
class Graph
{
  public:
    using Info = typename Family::Info;

    // A filter, and a mix.
    Graph(const std::string& descr, Info st_Info) : m_bMix(false)
    {
        EXPECT_OK(Family::Init(&m_hHandle, descr.c_str(), &st_Info));
    }
    Graph(const std::string& descr, std::vector<Info> vec_Infos) : m_bMix(true)
    {
        InfoArray<Info> infos(std::move(vec_Infos));
        EXPECT_OK(Family::MixInit(&m_hHandle, infos.Get(), infos.Count(), "out", descr.c_str()));
    }
    ~Graph() { EXPECT_OK(m_bMix ? Family::MixDestroy(m_hHandle) : Family::Destroy(m_hHandle)); }
    Graph(const Graph&) = delete;
    Graph& operator=(const Graph&) = delete;

    Handle Get() const { return m_hHandle; }

  protected:
    // What the call gives out; nothing if the graph gave nothing, with that reported and nothing written.
    template <class Item, class Call>
    static std::vector<Item> Take(const Call& call)
    {
        GuardedBuffer out(std::size_t{1} << 19);
        int nOut = -5;
        const bool bDone = call(out.Data(), &nOut);
        EXPECT_EQ(bDone, nOut > 0 && static_cast<std::size_t>(nOut) % sizeof(Item) == 0);
        if (bDone) {
            EXPECT_FALSE(AVFilter_IsErrorOccur);
        } else {
            ExpectFailure(bDone, Family::kReceive);
            EXPECT_EQ(nOut, -5);
        }
        unsigned char* const pEnd = out.Data() + std::max(nOut, 0);
        EXPECT_TRUE(std::all_of(pEnd, out.Data() + out.Size(), [](int n) { return n == 0xCD; }));
        const auto* const pItems = reinterpret_cast<const Item*>(out.Data());
        return {pItems, pItems + static_cast<std::size_t>(std::max(nOut, 0)) / sizeof(Item)};
    }

  private:
    Handle m_hHandle = 0;
    bool m_bMix;
};

// A graph that must be refused, by the mixing initialiser and, where its one input is "in", by the other.
// The code is the family's, without its base; kUnlinked stands for two.
template <class Family>
struct Refused {
    std::string descr;
    std::vector<typename Family::Info> vec_Inputs;
    Handle nCode;
    const char* szOut = "out";
};

template <class Family>
void ExpectRefused(const std::vector<Refused<Family>>& vec_Cases)
{
    for (const Refused<Family>& st : vec_Cases) {
        SCOPED_TRACE(st.descr + ", case " + std::to_string(&st - vec_Cases.data()));
        Handle hHandle = 42;
        const Handle nCode = st.nCode == kUnlinked ? kUnlinked : Family::kBase + st.nCode;
        InfoArray<typename Family::Info> infos(st.vec_Inputs);
        const char* const szDescr = st.descr.c_str();
        const KeepsMemoryByContract keeps(Family::kBase == Audio::kBase);
        ExpectFailure(Family::MixInit(&hHandle, infos.Get(), infos.Count(), st.szOut, szDescr), nCode);
        if (std::string(st.vec_Inputs[0].szName) == "in") {
            ExpectFailure(Family::Init(&hHandle, szDescr, infos.Pointers()[0]), nCode);
        }
        EXPECT_EQ(hHandle, 42U);
    }
}

} // namespace test
