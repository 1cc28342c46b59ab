// Streams and pictures, and a handle of either family that builds graphs, with every result of its calls checked.
#pragma once

#include "jobs.h"
#include "support.h"

#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>

namespace test
{

using jobs::Handle;
using jobs::Inputs;
using jobs::KindOf;

// FFmpeg's numbers, spelled out: the library takes them as plain integers.
inline constexpr int kS16 = 1;
inline constexpr int kS16Planar = 6;

// The name of a filter's stream is not read.
template <class Info>
Info Named(Info st_Info, const std::string& name, int nInputId = 0)
{
    st_Info.szName[name.copy(st_Info.szName, sizeof(st_Info.szName) - 1)] = '\0';
    st_Info.nInputId = nInputId;
    return st_Info;
}
inline AVFILTER_AUDIO_INFO AudioInfo(int nFormat, int nRate, int nSamples, int nChannels)
{
    return {"in", nFormat, nRate, nSamples, nChannels, 0, -1};
}
inline AVFILTER_VIDEO_INFO VideoInfo(int nWidth, int nHeight, int nTimeBase = 25, int nFormat = 0)
{
    return {"in", nWidth, nHeight, nTimeBase, nFormat, 0};
}

template <class Info>
class Graph
{
  public:
    // A filter, and a mix.
    Graph(const std::string& descr, Info st_Info) : m_Kind(KindOf<Info>(false))
    {
        EXPECT_OK(jobs::kInit<Info>(&m_hHandle, descr.c_str(), &st_Info));
    }
    Graph(const std::string& descr, std::vector<Info> vec_Infos) : m_Kind(KindOf<Info>(true))
    {
        Inputs<Info> inputs(std::move(vec_Infos));
        EXPECT_OK(jobs::kMixInit<Info>(&m_hHandle, inputs.Get(), inputs.Count(), "out", descr.c_str()));
    }
    ~Graph() { EXPECT_OK(m_Kind.Destroy(m_hHandle)); }
    Graph(const Graph&) = delete;
    Graph& operator=(const Graph&) = delete;

    Handle Get() const { return m_hHandle; }

    // What comes out; nothing if the graph gives nothing, with that reported and nothing written. The receiving calls
    // of mixes know the handles of audio filters.
    template <class Item = unsigned char>
    std::vector<Item> Recv() const
    {
        return Take<Item>([this](auto... to) { return KindOf<Info>(true).Take(m_hHandle, {}, to...); });
    }

  protected:
    template <class Item, class Call>
    std::vector<Item> Take(const Call& call) const
    {
        GuardedBuffer out(std::size_t{1} << 19);
        int nOut = -5;
        const bool bDone = call(out.Data(), &nOut);
        EXPECT_TRUE(bDone ? nOut > 0 && !AVFilter_IsErrorOccur : nOut == -5);
        if (!bDone) {
            ExpectFailure(bDone, m_Kind.nBase + 9);
            nOut = 0;
        }
        unsigned char* const pEnd = out.Data() + nOut;
        EXPECT_TRUE(std::all_of(pEnd, out.Data() + out.Size(), [](int n) { return n == 0xCD; }));
        const auto* const pItems = reinterpret_cast<const Item*>(out.Data());
        return {pItems, pItems + static_cast<std::size_t>(nOut) / sizeof(Item)};
    }

  private:
    const jobs::Kind& m_Kind;
    Handle m_hHandle = 0;
};

class AudioGraph : public Graph<AVFILTER_AUDIO_INFO>
{
  public:
    using Graph::Graph;

    template <class Sample>
    bool Send(int nId, const std::vector<Sample>& samples, std::optional<int> nBytes = {}) const
    {
        GuardedBuffer in(samples.size() * sizeof(Sample));
        std::copy(samples.begin(), samples.end(), reinterpret_cast<Sample*>(in.Data()));
        return AVFilter_Audio_MIXSend(Get(), nId, in.Data(), nBytes.value_or(static_cast<int>(in.Size())));
    }
    // One block with its padding.
    template <class Sample = std::int16_t>
    std::vector<Sample> Cvt() const
    {
        return Take<Sample>([this](unsigned char* pOut, int* pnOut) {
            return AVFilter_Audio_Cvt(Get(), pOut, 1, pOut, pnOut);
        });
    }
};

// An 8-bit 4:2:0 picture of noise: its planes one after another, chroma sizes rounded up.
struct Picture {
    Picture(int nWidth_, int nHeight_, unsigned nSeed = 1)
        : nWidth(nWidth_), nHeight(nHeight_), nLuma(nWidth * nHeight),
          nChroma(((nWidth + 1) / 2) * ((nHeight + 1) / 2)),
          bytes(Noise(static_cast<unsigned>(nLuma + 2 * nChroma), nSeed))
    {
    }
    unsigned char* Plane(int i) { return bytes.data() + (i == 0 ? 0 : nLuma + (i - 1) * nChroma); }

    // As the library gives it out: without the last chroma column or row of an odd size.
    Bytes Packed() const
    {
        Bytes packed(bytes.begin(), bytes.begin() + nLuma);
        for (int i = 0; i < 2; ++i) {
            for (int row = 0; row < nHeight / 2; ++row) {
                const auto start = bytes.begin() + (nLuma + i * nChroma + row * ((nWidth + 1) / 2));
                packed.insert(packed.end(), start, start + nWidth / 2);
            }
        }
        return packed;
    }

    int nWidth, nHeight, nLuma, nChroma;
    Bytes bytes;
};

class VideoGraph : public Graph<AVFILTER_VIDEO_INFO>
{
  public:
    using Graph::Graph;

    bool Send(int nInputId, Picture& picture) const
    {
        return AVFilter_Video_MIXSend(Get(), nInputId, picture.Plane(0), picture.Plane(1), picture.Plane(2),
                                      picture.nLuma, picture.nChroma, picture.nChroma);
    }
    // One picture through a filter, or through input 0 of a mix, from memory that can only be read.
    Bytes Run(Picture picture, bool bWhole, bool bMix = false) const
    {
        GuardedBuffer in(picture.bytes.size());
        in.Assign(picture.bytes);
        in.Protect();
        // Either chroma pointer missing means a whole picture, whose counts are not looked at.
        unsigned char* const pU = bWhole && picture.bytes[0] % 2 == 0 ? nullptr : in.Data() + picture.nLuma;
        unsigned char* const pV =
            bWhole && pU != nullptr ? nullptr : in.Data() + picture.nLuma + picture.nChroma;
        const int nY = bWhole ? -1 : picture.nLuma, nUV = bWhole ? -1 : picture.nChroma;
        if (bMix) {
            EXPECT_OK(AVFilter_Video_MIXSend(Get(), 0, in.Data(), pU, pV, nY, nUV, nUV));
            return Recv();
        }
        return Take<unsigned char>(
            [&](auto... to) { return AVFilter_Video_Cvt(Get(), in.Data(), pU, pV, nY, nUV, nUV, to...); });
    }
};

} // namespace test
