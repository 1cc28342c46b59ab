// The library's five jobs under one form, for whatever does the same to all of them: tests, load, fuzzer and
// benchmarks. Without GoogleTest.
#pragma once

#include "buffers.h"

#include "Telvane_AVFilter.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <type_traits>
#include <utility>
#include <vector>

namespace jobs
{

using Handle = unsigned long long;

// Of pictures (4:2:0) in pixels, even ones, and of blocks (16 bits, stereo, 48 kHz) in samples per channel.
struct Size {
    int nWidth, nHeight, nSamples;

    int Luma() const { return nWidth * nHeight; }
    int Picture() const { return Luma() * 3 / 2; }
    int Samples() const { return nSamples * 4; }
};

// What is handed in: samples, or a picture whose planes lie one after another.
struct Block {
    unsigned char* pBytes;
    Size size;
    bool bWhole; // a picture in one piece, which stays the library's until it is received; or three planes

    unsigned char* U() const { return bWhole ? nullptr : pBytes + size.Luma(); }
    unsigned char* V() const { return bWhole ? nullptr : pBytes + size.Luma() * 5 / 4; }
};

struct Kind {
    const char* szName;
    // Destroying calls of the same letter find each other's handles.
    char cFamily;
    // Of its codes: the last digits are the cause.
    Handle nBase;
    // A graph of this kind; "%u" is a number of the caller's. Mixes are preceded by their inputs' labels, each one
    // letter; the inputs' ids count from 0. Null for scalers, which halve the width and height.
    const char* szDescr;
    bool (*Create)(Handle* phHandle, Size size, const char* szDescr);
    bool (*Destroy)(Handle hHandle);
    // Null but for mixes.
    bool (*Send)(Handle hHandle, int nInput, const Block& block);
    // Gives a result out; hands the block in first, but for mixes. *pnOut is the room at pOut, then the result's size.
    bool (*Take)(Handle hHandle, const Block& block, unsigned char* pOut, int* pnOut);
};

// The three-star argument of the mixing initialisers.
template <class Info>
class Inputs
{
  public:
    explicit Inputs(std::vector<Info> infos) : m_Infos(std::move(infos))
    {
        for (Info& st_Info : m_Infos) {
            m_pInfos.push_back(&st_Info);
        }
        m_ppInfo = m_pInfos.data();
    }
    ~Inputs() = default;
    Inputs(const Inputs&) = delete;
    Inputs& operator=(const Inputs&) = delete;

    Info*** Get() { return &m_ppInfo; }
    int Count() const { return static_cast<int>(m_Infos.size()); }

  private:
    std::vector<Info> m_Infos;
    std::vector<Info*> m_pInfos;
    Info** m_ppInfo;
};

// The initialisers of filters and mixes.
template <class Info>
constexpr auto kInit = AVFilter_Video_Init;
template <>
inline constexpr auto kInit<AVFILTER_AUDIO_INFO> = AVFilter_Audio_Init;
template <class Info>
constexpr auto kMixInit = AVFilter_Video_MIXInit;
template <>
inline constexpr auto kMixInit<AVFILTER_AUDIO_INFO> = AVFilter_Audio_MIXInit;

template <class Info>
Info Describe(Size size)
{
    if constexpr (std::is_same_v<Info, AVFILTER_AUDIO_INFO>) {
        return {{}, 1, 48000, size.nSamples, 2, 0, 0};
    } else {
        return {{}, size.nWidth, size.nHeight, 25, 0, 0};
    }
}

template <class Info>
bool CreateFilter(Handle* phHandle, Size size, const char* szDescr)
{
    Info st_Info = Describe<Info>(size);
    return kInit<Info>(phHandle, szDescr, &st_Info);
}

template <class Info>
bool CreateMix(Handle* phHandle, Size size, const char* szDescr)
{
    std::vector<Info> infos;
    for (const char* p = szDescr; *p == '['; p += 3) {
        infos.push_back(Describe<Info>(size));
        infos.back().szName[0] = p[1];
        infos.back().nInputId = static_cast<int>(infos.size()) - 1;
    }
    Inputs<Info> inputs(std::move(infos));
    return kMixInit<Info>(phHandle, inputs.Get(), inputs.Count(), "out", szDescr);
}

enum : std::size_t { kAudioFilter, kAudioMix, kVideoFilter, kVideoMix, kScaler };

inline constexpr std::array<Kind, 5> kKinds{{
    // Does not read what is handed in, so the graph makes its own sound: steps from the number up, 64 long.
    {"audio filter", 'a', 0x80F0000,
     "[in]aeval=exprs=(%u+mod(n\\,64))/32768:c=same,aformat=sample_fmts=s16[out]",
     CreateFilter<AVFILTER_AUDIO_INFO>, AVFilter_Audio_Destroy, nullptr,
     [](Handle h, const Block& block, unsigned char* pOut, int* pnOut) {
         return AVFilter_Audio_Cvt(h, block.pBytes, block.size.Samples(), pOut, pnOut);
     }},
    {"audio mix", 'a', 0x80F0000, "[a][b]amix=inputs=2:normalize=0,aformat=sample_fmts=s16[out]",
     CreateMix<AVFILTER_AUDIO_INFO>, AVFilter_Audio_MIXDestroy,
     [](Handle h, int nInput, const Block& block) {
         return AVFilter_Audio_MIXSend(h, nInput, block.pBytes, block.size.Samples());
     },
     [](Handle h, const Block&, unsigned char* pOut, int* pnOut) {
         return AVFilter_Audio_MIXRecv(h, pOut, pnOut);
     }},
    {"video filter", 'f', 0x80F1000, "[in]hflip,format=yuv420p[out]", CreateFilter<AVFILTER_VIDEO_INFO>,
     AVFilter_Video_Destroy, nullptr,
     [](Handle h, const Block& block, unsigned char* pOut, int* pnOut) {
         const int n = block.size.Luma();
         return AVFilter_Video_Cvt(h, block.pBytes, block.U(), block.V(), n, n / 4, n / 4, pOut, pnOut);
     }},
    {"video mix", 'm', 0x80F1000, "[a][b]hstack,format=yuv420p[out]", CreateMix<AVFILTER_VIDEO_INFO>,
     AVFilter_Video_MIXDestroy,
     [](Handle h, int nInput, const Block& block) {
         const int n = block.size.Luma();
         return AVFilter_Video_MIXSend(h, nInput, block.pBytes, block.U(), block.V(), n, n / 4, n / 4);
     },
     [](Handle h, const Block&, unsigned char* pOut, int* pnOut) {
         return AVFilter_Video_MIXRecv(h, pOut, pnOut);
     }},
    {"scaler", 's', 0x80F1000, nullptr,
     [](Handle* phHandle, Size size, const char*) {
         return AVFilter_VideoScale_Init(phHandle) &&
                AVFilter_VideoScale_Set(*phHandle, 0, size.nWidth, size.nHeight, 0, size.nWidth / 2,
                                        size.nHeight / 2);
     },
     AVFilter_VideoScale_Destory, nullptr,
     [](Handle h, const Block& block, unsigned char* pOut, int* pnOut) {
         return AVFilter_VideoScale_Fmt(h, reinterpret_cast<const char*>(block.pBytes), pOut, pnOut);
     }},
}};

// The kind of handle that a stream or streams like this one make.
template <class Info>
const Kind& KindOf(bool bMix)
{
    const std::size_t nFilter = std::is_same_v<Info, AVFILTER_AUDIO_INFO> ? kAudioFilter : kVideoFilter;
    return kKinds[nFilter + (bMix ? 1U : 0U)];
}

// Creates a handle with the kind's own graph.
inline bool Create(const Kind& kind, Handle* phHandle, Size size, unsigned nNumber = 100)
{
    char szDescr[256] = "";
    if (kind.szDescr != nullptr) {
        // NOLINTNEXTLINE(clang-diagnostic-format-nonliteral): the table's own texts
        static_cast<void>(std::snprintf(szDescr, sizeof(szDescr), kind.szDescr, nNumber));
    }
    return kind.Create(phHandle, size, szDescr);
}

// Ends the program where nothing is expected to fail.
inline void Demand(bool bResult, const char* szWhat)
{
    if (!bResult) {
        std::fprintf(stderr, "%s: %llx\n", szWhat, AVFilter_GetLastError(nullptr));
        std::abort();
    }
}

// A handle with buffers of its own, for one thread. Outputs depend on kind, size, seed and number of rounds alone.
class Job
{
  public:
    Job(const Kind& kind, Size size, unsigned nSeed)
        : m_Kind(kind), m_nSeed(nSeed),
          m_Input(test::Noise(Larger(size), nSeed)), m_Block{m_Input.data(), size, nSeed % 2 != 0},
          m_Output(2 * m_Input.size())
    {
        Demand(Create(kind, &m_hHandle, size, nSeed), kind.szName);
    }
    ~Job() { Demand(m_Kind.Destroy(m_hHandle), m_Kind.szName); }
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;

    // One round: a block into each input, and the result.
    void Convert()
    {
        m_Input[0] = static_cast<unsigned char>(++m_nSeed);
        for (int nInput = 0; m_Kind.Send != nullptr && nInput < 2; ++nInput) {
            Demand(m_Kind.Send(m_hHandle, nInput, m_Block), m_Kind.szName);
        }
        m_nLen = static_cast<int>(m_Output.size());
        Demand(m_Kind.Take(m_hHandle, m_Block, m_Output.data(), &m_nLen), m_Kind.szName);
    }
    test::Bytes Output() const { return {m_Output.begin(), m_Output.begin() + m_nLen}; }

  private:
    static std::size_t Larger(Size size)
    {
        return static_cast<std::size_t>(std::max(size.Picture(), size.Samples()));
    }

    const Kind& m_Kind;
    Handle m_hHandle = 0;
    unsigned m_nSeed;
    test::Bytes m_Input;
    Block m_Block;
    test::Bytes m_Output;
    int m_nLen = 0;
};

} // namespace jobs
