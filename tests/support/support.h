// What the tests share.
#pragma once

#include "Telvane_AVFilter.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define TEST_WITH_LEAK_CHECK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TEST_WITH_LEAK_CHECK 1
#endif
#endif
#ifdef TEST_WITH_LEAK_CHECK
#include <sanitizer/lsan_interface.h>
#endif

namespace test
{

// The tests provoke FFmpeg's complaints all the time.
inline bool BeQuiet() noexcept
{
    av_log_set_level(AV_LOG_QUIET);
    return true;
}
inline const bool kQuiet = BeQuiet();

// FFmpeg's numbers, spelled out: the library takes them as plain integers.
inline constexpr int kS16 = 1;
inline constexpr int kFloat = 3;
inline constexpr int kS16Planar = 6;
inline constexpr int kYuv420p = 0;

using Bytes = std::vector<unsigned char>;

// Stands for the code of a video description that leaves an end open: FFmpeg versions differ in whether
// the parser or the configuration finds that.
inline constexpr unsigned long long kUnlinked = 1;

// Expects that a call failed with this code and this flag.
inline void ExpectFailure(bool bResult, unsigned long long code, bool bFlag = true)
{
    EXPECT_FALSE(bResult);
    if (code == kUnlinked) {
        code = AVFilter_GetLastError(nullptr) == AVFILTER_ERROR_VIDEO_PARSE_GRAPH
                   ? AVFILTER_ERROR_VIDEO_PARSE_GRAPH
                   : AVFILTER_ERROR_VIDEO_CONFIG_GRAPH;
    }
    EXPECT_EQ(AVFilter_GetLastError(nullptr), code);
    EXPECT_EQ(AVFilter_IsErrorOccur, bFlag);
}

// Expects success, with the flag down and the last failure's code still there.
#define EXPECT_OK(call)                                                                                    \
    do {                                                                                                   \
        const unsigned long long codeBefore_ = AVFilter_GetLastError(nullptr);                             \
        EXPECT_TRUE(call) << "code " << std::hex << AVFilter_GetLastError(nullptr);                        \
        EXPECT_FALSE(AVFilter_IsErrorOccur);                                                               \
        EXPECT_EQ(AVFilter_GetLastError(nullptr), codeBefore_);                                            \
    } while (false)

inline AVFILTER_AUDIO_INFO AudioInfo(int nFormat, int nRate, int nSamples, int nChannels,
                                     const char* szName = "", int nInputId = 0) noexcept
{
    AVFILTER_AUDIO_INFO st_Info{};
    std::snprintf(st_Info.szName, sizeof(st_Info.szName), "%s", szName);
    st_Info.nSampleFormat = nFormat;
    st_Info.nSampleRate = nRate;
    st_Info.nNbSamples = nSamples;
    st_Info.nChannels = nChannels;
    st_Info.nInputId = nInputId;
    st_Info.nReserved = -1;
    return st_Info;
}

inline AVFILTER_VIDEO_INFO VideoInfo(int nWidth, int nHeight, int nTimeBase = 25, int nFormat = kYuv420p,
                                     const char* szName = "", int nInputId = 0) noexcept
{
    AVFILTER_VIDEO_INFO st_Info{};
    std::snprintf(st_Info.szName, sizeof(st_Info.szName), "%s", szName);
    st_Info.nWidth = nWidth;
    st_Info.nHeight = nHeight;
    st_Info.nTimeBase = nTimeBase;
    st_Info.nPixelFormat = nFormat;
    st_Info.nInputId = nInputId;
    return st_Info;
}

// The three-star argument of the mixing initialisers.
template <class Info>
class InfoArray
{
  public:
    explicit InfoArray(std::vector<Info> vec_Infos) : m_vecInfos(std::move(vec_Infos))
    {
        for (Info& st_Info : m_vecInfos) {
            m_vecPointers.push_back(&st_Info);
        }
        m_ppInfo = m_vecPointers.data();
    }
    ~InfoArray() = default;
    InfoArray(const InfoArray&) = delete;
    InfoArray& operator=(const InfoArray&) = delete;

    Info*** Get() { return &m_ppInfo; }
    int Count() const { return static_cast<int>(m_vecInfos.size()); }
    std::vector<Info*>& Pointers() { return m_vecPointers; }

  private:
    std::vector<Info> m_vecInfos;
    std::vector<Info*> m_vecPointers;
    Info** m_ppInfo;
};
using AudioInfos = InfoArray<AVFILTER_AUDIO_INFO>;
using VideoInfos = InfoArray<AVFILTER_VIDEO_INFO>;

// Bytes that change from one to the next and from seed to seed.
inline Bytes Noise(std::size_t nSize, unsigned nSeed = 1)
{
    Bytes bytes(nSize);
    unsigned n = nSeed * 2654435761U + 12345U;
    for (unsigned char& byte : bytes) {
        n = n * 1664525U + 1013904223U;
        byte = static_cast<unsigned char>(n >> 24);
    }
    return bytes;
}

// An 8-bit 4:2:0 picture of noise: its planes one after another, chroma sizes rounded up.
struct Picture {
    Picture(int nWidth_, int nHeight_, unsigned nSeed = 1)
        : nWidth(nWidth_), nHeight(nHeight_), nLuma(nWidth * nHeight),
          nChroma(((nWidth + 1) / 2) * ((nHeight + 1) / 2)),
          bytes(Noise(static_cast<std::size_t>(nLuma) + 2 * static_cast<std::size_t>(nChroma), nSeed))
    {
    }
    unsigned char* Plane(int i) { return bytes.data() + (i == 0 ? 0 : nLuma + (i - 1) * nChroma); }
    int Size(int i) const { return i == 0 ? nLuma : nChroma; }

    // As the library gives it out: without the last chroma column or row of an odd size.
    Bytes Packed() const
    {
        Bytes packed(bytes.begin(), bytes.begin() + nLuma);
        for (int i = 0; i < 2; ++i) {
            for (int row = 0; row < nHeight / 2; ++row) {
                const int nStart = nLuma + i * nChroma + row * ((nWidth + 1) / 2);
                const auto start = bytes.begin() + nStart;
                packed.insert(packed.end(), start, start + nWidth / 2);
            }
        }
        return packed;
    }

    int nWidth;
    int nHeight;
    int nLuma;
    int nChroma;
    Bytes bytes;
};

// n bytes that end right before a page that cannot be touched, with another one in front of theirs:
// it catches FFmpeg's assembly too, which AddressSanitizer does not see.
class GuardedBuffer
{
  public:
    explicit GuardedBuffer(std::size_t nSize, unsigned char nFill = 0xCD)
        : m_nSize(nSize), m_nPage(static_cast<std::size_t>(sysconf(_SC_PAGESIZE)))
    {
        m_nUsable = (nSize + m_nPage - 1) / m_nPage * m_nPage;
        m_pBase = static_cast<unsigned char*>(
            mmap(nullptr, m_nUsable + 2 * m_nPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(m_pBase + m_nPage, m_nUsable, PROT_READ | PROT_WRITE);
        std::memset(m_pBase + m_nPage, nFill, m_nUsable);
    }
    ~GuardedBuffer() { munmap(m_pBase, m_nUsable + 2 * m_nPage); }
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    unsigned char* Data() { return m_pBase + m_nPage + m_nUsable - m_nSize; }
    std::size_t Size() const { return m_nSize; }
    void Assign(const Bytes& bytes) { std::copy(bytes.begin(), bytes.end(), Data()); }
    Bytes Copy() { return Bytes(Data(), Data() + m_nSize); }
    // From here on reading is allowed and writing is not.
    void Protect() { mprotect(m_pBase + m_nPage, m_nUsable, PROT_READ); }

  private:
    std::size_t m_nSize;
    std::size_t m_nPage;
    std::size_t m_nUsable;
    unsigned char* m_pBase;
};

// While one of these lives, the leak check looks away: for calls that keep memory by contract.
class KeepsMemoryByContract
{
  public:
    explicit KeepsMemoryByContract(bool bKeeps = true) : m_bKeeps(bKeeps) { Look(false); }
    ~KeepsMemoryByContract() { Look(true); }
    KeepsMemoryByContract(const KeepsMemoryByContract&) = delete;
    KeepsMemoryByContract& operator=(const KeepsMemoryByContract&) = delete;

  private:
    void Look([[maybe_unused]] bool bAgain) const
    {
#ifdef TEST_WITH_LEAK_CHECK
        if (m_bKeeps) {
            bAgain ? __lsan_enable() : __lsan_disable();
        }
#endif
    }
    [[maybe_unused]] bool m_bKeeps;
};

// Resident memory of this process in bytes.
inline std::size_t ResidentBytes()
{
    std::size_t nPages = 0;
    std::size_t nResident = 0;
    if (std::FILE* pFile = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(pFile, "%zu %zu", &nPages, &nResident) != 2) {
            nResident = 0;
        }
        std::fclose(pFile);
    }
    return nResident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// Runs a cycle 10,000 times; a leak of 64 bytes per cycle shows. Sanitizers, which keep freed memory,
// get a shorter run and find leaks by themselves.
template <class Cycle>
void ExpectFlatMemory(const Cycle& cycle)
{
#if defined(TEST_WITH_LEAK_CHECK) || defined(__SANITIZE_THREAD__)
    constexpr int kCycles = 200;
#else
    constexpr int kCycles = 11000;
#endif
    std::size_t nBefore = 0;
    for (int i = 0; i < kCycles; ++i) {
        nBefore = i == 1000 ? ResidentBytes() : nBefore;
        cycle();
    }
    EXPECT_TRUE(kCycles < 1000 || ResidentBytes() < nBefore + 524288) << ResidentBytes() - nBefore;
}

} // namespace test
