// One handle of each kind with its own buffers, to be run on a thread of its own. Without GoogleTest,
// so that the benchmarks can use it too.
#pragma once

#include "Telvane_AVFilter.h"

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

// Every job has a name, a constructor that makes the handle, Convert for one round of work, with the
// result in Output, and a destructor that ends the handle. One job of each family has DestroyNothing,
// the shortest call that takes the family's lock alone.

class AudioFilterJob
{
  public:
    static constexpr const char* kName = "audio filter";
    // The samples handed in are not read, so the graph makes its own.
    AudioFilterJob(Size size, unsigned nSeed) : m_Output(static_cast<std::size_t>(size.nSamples) * 8)
    {
        AVFILTER_AUDIO_INFO st_Info{};
        st_Info.nSampleFormat = 1;
        st_Info.nSampleRate = 48000;
        st_Info.nNbSamples = size.nSamples;
        st_Info.nChannels = 2;
        const std::string description =
            "[in]anullsink;sine=frequency=" + std::to_string(200 + nSeed % 1000) +
            ":samples_per_frame=" + std::to_string(size.nSamples) +
            ",aformat=sample_fmts=s16:channel_layouts=stereo[out]";
        Demand(AVFilter_Audio_Init(&m_hHandle, description.c_str(), &st_Info), kName);
    }
    ~AudioFilterJob() { Demand(AVFilter_Audio_Destroy(m_hHandle), kName); }
    AudioFilterJob(const AudioFilterJob&) = delete;
    AudioFilterJob& operator=(const AudioFilterJob&) = delete;

    void Convert()
    {
        unsigned char unread = 0;
        Demand(AVFilter_Audio_Cvt(m_hHandle, &unread, 1, m_Output.data(), &m_nLen), kName);
    }
    std::vector<unsigned char> Output() const { return {m_Output.begin(), m_Output.begin() + m_nLen}; }

  private:
    unsigned long long m_hHandle = 0;
    std::vector<unsigned char> m_Output;
    int m_nLen = 0;
};

class AudioMixJob
{
  public:
    static constexpr const char* kName = "audio";
    AudioMixJob(Size size, unsigned nSeed)
        : m_nSeed(nSeed), m_Input(static_cast<std::size_t>(size.nSamples) * 4), m_Output(m_Input.size() * 2)
    {
        AVFILTER_AUDIO_INFO st_Infos[2]{};
        AVFILTER_AUDIO_INFO* pInfos[2] = {&st_Infos[0], &st_Infos[1]};
        for (int i = 0; i < 2; ++i) {
            st_Infos[i].szName[0] = i == 0 ? 'a' : 'b';
            st_Infos[i].nSampleFormat = 1;
            st_Infos[i].nSampleRate = 48000;
            st_Infos[i].nNbSamples = size.nSamples;
            st_Infos[i].nChannels = 2;
            st_Infos[i].nInputId = i;
        }
        AVFILTER_AUDIO_INFO** ppInfo = pInfos;
        Demand(AVFilter_Audio_MIXInit(&m_hHandle, &ppInfo, 2, "out",
                                      "[a][b]amix=inputs=2:normalize=0,aformat=sample_fmts=s16[out]"),
               kName);
        Fill(m_Input, nSeed);
    }
    ~AudioMixJob() { Demand(AVFilter_Audio_MIXDestroy(m_hHandle), kName); }
    AudioMixJob(const AudioMixJob&) = delete;
    AudioMixJob& operator=(const AudioMixJob&) = delete;

    void Convert()
    {
        m_Input[0] = static_cast<unsigned char>(++m_nSeed);
        const int nSize = static_cast<int>(m_Input.size());
        Demand(AVFilter_Audio_MIXSend(m_hHandle, 0, m_Input.data(), nSize), kName);
        Demand(AVFilter_Audio_MIXSend(m_hHandle, 1, m_Input.data(), nSize), kName);
        Demand(AVFilter_Audio_MIXRecv(m_hHandle, m_Output.data(), &m_nLen), kName);
    }
    std::vector<unsigned char> Output() const { return {m_Output.begin(), m_Output.begin() + m_nLen}; }

    static void DestroyNothing() { Demand(AVFilter_Audio_MIXDestroy(0), kName); }

  private:
    unsigned long long m_hHandle = 0;
    unsigned m_nSeed;
    std::vector<unsigned char> m_Input;
    std::vector<unsigned char> m_Output;
    int m_nLen = 0;
};

// The three planes of a 4:2:0 picture.
class Picture
{
  public:
    Picture(Size size, unsigned nSeed)
        : m_nLuma(size.nWidth * size.nHeight), m_Bytes(static_cast<std::size_t>(m_nLuma) * 3 / 2)
    {
        Fill(m_Bytes, nSeed);
    }
    unsigned char* Plane(int i)
    {
        return m_Bytes.data() + (i == 0 ? 0 : m_nLuma) + (i == 2 ? m_nLuma / 4 : 0);
    }
    int PlaneSize(int i) const { return i == 0 ? m_nLuma : m_nLuma / 4; }
    std::size_t Bytes() const { return m_Bytes.size(); }

  private:
    int m_nLuma;
    std::vector<unsigned char> m_Bytes;
};

class VideoFilterJob
{
  public:
    static constexpr const char* kName = "video";
    VideoFilterJob(Size size, unsigned nSeed)
        : m_nSeed(nSeed), m_Picture(size, nSeed), m_Output(m_Picture.Bytes())
    {
        AVFILTER_VIDEO_INFO st_Info{};
        st_Info.nWidth = size.nWidth;
        st_Info.nHeight = size.nHeight;
        st_Info.nTimeBase = 25;
        Demand(AVFilter_Video_Init(&m_hHandle, "[in]hflip,negate,format=yuv420p[out]", &st_Info), kName);
    }
    ~VideoFilterJob() { Demand(AVFilter_Video_Destroy(m_hHandle), kName); }
    VideoFilterJob(const VideoFilterJob&) = delete;
    VideoFilterJob& operator=(const VideoFilterJob&) = delete;

    void Convert()
    {
        *m_Picture.Plane(0) = static_cast<unsigned char>(++m_nSeed);
        Demand(AVFilter_Video_Cvt(m_hHandle, m_Picture.Plane(0), m_Picture.Plane(1), m_Picture.Plane(2),
                                  m_Picture.PlaneSize(0), m_Picture.PlaneSize(1), m_Picture.PlaneSize(2),
                                  m_Output.data(), &m_nLen),
               kName);
    }
    std::vector<unsigned char> Output() const { return {m_Output.begin(), m_Output.begin() + m_nLen}; }

  private:
    unsigned long long m_hHandle = 0;
    unsigned m_nSeed;
    Picture m_Picture;
    std::vector<unsigned char> m_Output;
    int m_nLen = 0;
};

class VideoMixJob
{
  public:
    static constexpr const char* kName = "video mix";
    VideoMixJob(Size size, unsigned nSeed)
        : m_nSeed(nSeed), m_Picture(size, nSeed), m_Output(m_Picture.Bytes() * 2)
    {
        AVFILTER_VIDEO_INFO st_Infos[2]{};
        AVFILTER_VIDEO_INFO* pInfos[2] = {&st_Infos[0], &st_Infos[1]};
        for (int i = 0; i < 2; ++i) {
            st_Infos[i].szName[0] = i == 0 ? 'a' : 'b';
            st_Infos[i].nWidth = size.nWidth;
            st_Infos[i].nHeight = size.nHeight;
            st_Infos[i].nTimeBase = 25;
            st_Infos[i].nInputId = i;
        }
        AVFILTER_VIDEO_INFO** ppInfo = pInfos;
        Demand(AVFilter_Video_MIXInit(&m_hHandle, &ppInfo, 2, "out", "[a][b]hstack,format=yuv420p[out]"),
               kName);
    }
    ~VideoMixJob() { Demand(AVFilter_Video_MIXDestroy(m_hHandle), kName); }
    VideoMixJob(const VideoMixJob&) = delete;
    VideoMixJob& operator=(const VideoMixJob&) = delete;

    void Convert()
    {
        *m_Picture.Plane(0) = static_cast<unsigned char>(++m_nSeed);
        for (int nInput = 0; nInput < 2; ++nInput) {
            Demand(AVFilter_Video_MIXSend(m_hHandle, nInput, m_Picture.Plane(0), m_Picture.Plane(1),
                                          m_Picture.Plane(2), m_Picture.PlaneSize(0),
                                          m_Picture.PlaneSize(1), m_Picture.PlaneSize(2)),
                   kName);
        }
        Demand(AVFilter_Video_MIXRecv(m_hHandle, m_Output.data(), &m_nLen), kName);
    }
    std::vector<unsigned char> Output() const { return {m_Output.begin(), m_Output.begin() + m_nLen}; }

    static void DestroyNothing() { Demand(AVFilter_Video_MIXDestroy(0), kName); }

  private:
    unsigned long long m_hHandle = 0;
    unsigned m_nSeed;
    Picture m_Picture;
    std::vector<unsigned char> m_Output;
    int m_nLen = 0;
};

class ScaleJob
{
  public:
    static constexpr const char* kName = "scaling";
    // 4:2:0 to half the size.
    ScaleJob(Size size, unsigned nSeed)
        : m_nSeed(nSeed), m_Picture(size, nSeed), m_Output(m_Picture.Bytes())
    {
        Demand(AVFilter_VideoScale_Init(&m_hHandle), kName);
        Demand(AVFilter_VideoScale_Set(m_hHandle, 0, size.nWidth, size.nHeight, 0, size.nWidth / 2,
                                       size.nHeight / 2),
               kName);
    }
    ~ScaleJob() { Demand(AVFilter_VideoScale_Destory(m_hHandle), kName); }
    ScaleJob(const ScaleJob&) = delete;
    ScaleJob& operator=(const ScaleJob&) = delete;

    void Convert()
    {
        *m_Picture.Plane(0) = static_cast<unsigned char>(++m_nSeed);
        m_nLen = static_cast<int>(m_Output.size());
        const auto* pSource = static_cast<const void*>(m_Picture.Plane(0));
        Demand(
            AVFilter_VideoScale_Fmt(m_hHandle, static_cast<const char*>(pSource), m_Output.data(), &m_nLen),
            kName);
    }
    std::vector<unsigned char> Output() const { return {m_Output.begin(), m_Output.begin() + m_nLen}; }

    static void DestroyNothing() { Demand(AVFilter_VideoScale_Destory(0), kName); }

  private:
    unsigned long long m_hHandle = 0;
    unsigned m_nSeed;
    Picture m_Picture;
    std::vector<unsigned char> m_Output;
    int m_nLen = 0;
};

} // namespace load
