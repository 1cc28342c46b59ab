// One handle of each kind with its own buffers, to be run on a thread of its own. Without GoogleTest,
// so that the benchmarks can use it too.
#pragma once

#include "Telvane_AVFilter.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace load
{

// How large a job's pictures (in pixels) and blocks (in samples per channel) are.
struct Size {
    int nWidth;
    int nHeight;
    int nSamples;
};

inline void Demand(bool bResult, const char* szWhat)
{
    if (!bResult) {
        std::fprintf(stderr, "%s: %llx\n", szWhat, AVFilter_GetLastError(nullptr));
        std::abort();
    }
}

// Bytes that depend on the seed and the count of calls.
inline void Fill(std::vector<unsigned char>& bytes, unsigned nSeed)
{
    unsigned n = nSeed * 2654435761U + 1;
    for (unsigned char& byte : bytes) {
        n = n * 1664525U + 1013904223U;
        byte = static_cast<unsigned char>(n >> 24);
    }
}

// A handle of a family with what its last conversion gave.
template <bool (*Destroy)(unsigned long long)>
class Owner
{
  public:
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;

    std::vector<unsigned char> Output() const { return {m_Output.begin(), m_Output.begin() + m_nLen}; }
    // The shortest call that takes the family's lock alone.
    static void DestroyNothing() { Demand(Destroy(0), "destroy"); }

  protected:
    Owner(std::size_t nOutput, unsigned nSeed) : m_nSeed(nSeed), m_Output(nOutput) {}
    ~Owner() { Demand(Destroy(m_hHandle), "destroy"); }

    unsigned long long m_hHandle = 0;
    unsigned m_nSeed;
    std::vector<unsigned char> m_Output;
    int m_nLen = 0;
};

// Two inputs of a mix, "a" and "b".
template <class Info>
struct Pair {
    Info st_Infos[2]{};
    Info* pInfos[2] = {&st_Infos[0], &st_Infos[1]};
    Info** ppInfo = pInfos;

    explicit Pair(Info st_Info)
    {
        for (int i = 0; i < 2; ++i) {
            st_Infos[i] = st_Info;
            st_Infos[i].szName[0] = i == 0 ? 'a' : 'b';
            st_Infos[i].nInputId = i;
        }
    }
};

inline AVFILTER_AUDIO_INFO AudioInfo(Size size)
{
    AVFILTER_AUDIO_INFO st_Info{};
    st_Info.nSampleFormat = 1;
    st_Info.nSampleRate = 48000;
    st_Info.nNbSamples = size.nSamples;
    st_Info.nChannels = 2;
    return st_Info;
}

inline AVFILTER_VIDEO_INFO VideoInfo(Size size)
{
    AVFILTER_VIDEO_INFO st_Info{};
    st_Info.nWidth = size.nWidth;
    st_Info.nHeight = size.nHeight;
    st_Info.nTimeBase = 25;
    return st_Info;
}

// Every job has a name, a constructor that makes the handle, and Convert for one round of work.

class AudioFilterJob : public Owner<AVFilter_Audio_Destroy>
{
  public:
    static constexpr const char* kName = "audio filter";
    // The samples handed in are not read, so the graph makes its own.
    AudioFilterJob(Size size, unsigned nSeed) : Owner(static_cast<std::size_t>(size.nSamples) * 8, nSeed)
    {
        AVFILTER_AUDIO_INFO st_Info = AudioInfo(size);
        const std::string description =
            "[in]anullsink;sine=frequency=" + std::to_string(200 + nSeed % 1000) +
            ":samples_per_frame=" + std::to_string(size.nSamples) +
            ",aformat=sample_fmts=s16:channel_layouts=stereo[out]";
        Demand(AVFilter_Audio_Init(&m_hHandle, description.c_str(), &st_Info), kName);
    }
    void Convert()
    {
        unsigned char unread = 0;
        Demand(AVFilter_Audio_Cvt(m_hHandle, &unread, 1, m_Output.data(), &m_nLen), kName);
    }
};

class AudioMixJob : public Owner<AVFilter_Audio_MIXDestroy>
{
  public:
    static constexpr const char* kName = "audio";
    AudioMixJob(Size size, unsigned nSeed)
        : Owner(static_cast<std::size_t>(size.nSamples) * 8, nSeed), m_Input(m_Output.size() / 2)
    {
        Pair inputs(AudioInfo(size));
        Demand(AVFilter_Audio_MIXInit(&m_hHandle, &inputs.ppInfo, 2, "out",
                                      "[a][b]amix=inputs=2:normalize=0,aformat=sample_fmts=s16[out]"),
               kName);
        Fill(m_Input, nSeed);
    }
    void Convert()
    {
        m_Input[0] = static_cast<unsigned char>(++m_nSeed);
        const int nSize = static_cast<int>(m_Input.size());
        Demand(AVFilter_Audio_MIXSend(m_hHandle, 0, m_Input.data(), nSize), kName);
        Demand(AVFilter_Audio_MIXSend(m_hHandle, 1, m_Input.data(), nSize), kName);
        Demand(AVFilter_Audio_MIXRecv(m_hHandle, m_Output.data(), &m_nLen), kName);
    }

  private:
    std::vector<unsigned char> m_Input;
};

// A 4:2:0 picture, the first byte another one each time.
class Picture
{
  public:
    Picture(Size size, unsigned nSeed)
        : m_nLuma(size.nWidth * size.nHeight), m_Bytes(static_cast<std::size_t>(m_nLuma) * 3 / 2)
    {
        Fill(m_Bytes, nSeed);
    }
    unsigned char* Next(unsigned nSeed)
    {
        m_Bytes[0] = static_cast<unsigned char>(nSeed);
        return m_Bytes.data();
    }
    unsigned char* U() { return m_Bytes.data() + m_nLuma; }
    unsigned char* V() { return U() + m_nLuma / 4; }
    int Luma() const { return m_nLuma; }

  private:
    int m_nLuma;
    std::vector<unsigned char> m_Bytes;
};

inline std::size_t PictureBytes(Size size)
{
    return static_cast<std::size_t>(size.nWidth * size.nHeight) * 3 / 2;
}

class VideoFilterJob : public Owner<AVFilter_Video_Destroy>
{
  public:
    static constexpr const char* kName = "video";
    VideoFilterJob(Size size, unsigned nSeed) : Owner(PictureBytes(size), nSeed), m_Picture(size, nSeed)
    {
        AVFILTER_VIDEO_INFO st_Info = VideoInfo(size);
        Demand(AVFilter_Video_Init(&m_hHandle, "[in]hflip,negate,format=yuv420p[out]", &st_Info), kName);
    }
    void Convert()
    {
        const int n = m_Picture.Luma();
        Demand(AVFilter_Video_Cvt(m_hHandle, m_Picture.Next(++m_nSeed), m_Picture.U(), m_Picture.V(), n,
                                  n / 4, n / 4, m_Output.data(), &m_nLen),
               kName);
    }

  private:
    Picture m_Picture;
};

class VideoMixJob : public Owner<AVFilter_Video_MIXDestroy>
{
  public:
    static constexpr const char* kName = "video mix";
    VideoMixJob(Size size, unsigned nSeed) : Owner(PictureBytes(size) * 2, nSeed), m_Picture(size, nSeed)
    {
        Pair inputs(VideoInfo(size));
        Demand(AVFilter_Video_MIXInit(&m_hHandle, &inputs.ppInfo, 2, "out",
                                      "[a][b]hstack,format=yuv420p[out]"),
               kName);
    }
    void Convert()
    {
        const int n = m_Picture.Luma();
        unsigned char* pY = m_Picture.Next(++m_nSeed);
        for (int nInput = 0; nInput < 2; ++nInput) {
            Demand(AVFilter_Video_MIXSend(m_hHandle, nInput, pY, m_Picture.U(), m_Picture.V(), n, n / 4,
                                          n / 4),
                   kName);
        }
        Demand(AVFilter_Video_MIXRecv(m_hHandle, m_Output.data(), &m_nLen), kName);
    }

  private:
    Picture m_Picture;
};

class ScaleJob : public Owner<AVFilter_VideoScale_Destory>
{
  public:
    static constexpr const char* kName = "scaling";
    // 4:2:0 to half the size.
    ScaleJob(Size size, unsigned nSeed) : Owner(PictureBytes(size), nSeed), m_Picture(size, nSeed)
    {
        Demand(AVFilter_VideoScale_Init(&m_hHandle), kName);
        Demand(AVFilter_VideoScale_Set(m_hHandle, 0, size.nWidth, size.nHeight, 0, size.nWidth / 2,
                                       size.nHeight / 2),
               kName);
    }
    void Convert()
    {
        m_nLen = static_cast<int>(m_Output.size());
        const auto* pSource = static_cast<const void*>(m_Picture.Next(++m_nSeed));
        Demand(
            AVFilter_VideoScale_Fmt(m_hHandle, static_cast<const char*>(pSource), m_Output.data(), &m_nLen),
            kName);
    }

  private:
    Picture m_Picture;
};

using Outputs = std::vector<std::vector<unsigned char>>;

// What one handle gives in so many calls.
template <class Job>
Outputs Run(Size size, unsigned nSeed, int nCalls)
{
    Job job(size, nSeed);
    Outputs outputs;
    for (int i = 0; i < nCalls; ++i) {
        job.Convert();
        outputs.push_back(job.Output());
    }
    return outputs;
}

constexpr std::array<Outputs (*)(Size, unsigned, int), 5> kJobs{
    Run<AudioFilterJob>, Run<AudioMixJob>, Run<VideoFilterJob>, Run<VideoMixJob>, Run<ScaleJob>};

} // namespace load
