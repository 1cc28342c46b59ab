// A handle of the audio family, its calls with every result checked, and samples to send.
#pragma once

#include "support/support.h"

#include <algorithm>
#include <string>

namespace test
{

using Samples16 = std::vector<std::int16_t>;

class AudioGraph
{
  public:
    AudioGraph(const std::string& descr, AVFILTER_AUDIO_INFO st_Info)
    {
        EXPECT_OK(AVFilter_Audio_Init(&m_hHandle, descr.c_str(), &st_Info));
    }
    AudioGraph(const std::string& descr, std::vector<AVFILTER_AUDIO_INFO> vec_Infos)
    {
        AudioInfos infos(std::move(vec_Infos));
        EXPECT_OK(AVFilter_Audio_MIXInit(&m_hHandle, infos.Get(), infos.Count(), "out", descr.c_str()));
    }
    ~AudioGraph() { EXPECT_OK(AVFilter_Audio_MIXDestroy(m_hHandle)); }
    AudioGraph(const AudioGraph&) = delete;
    AudioGraph& operator=(const AudioGraph&) = delete;
    unsigned long long Handle() const { return m_hHandle; }

    template <class Sample>
    bool Send(int nId, const std::vector<Sample>& samples, int nBytes)
    {
        GuardedBuffer in(samples.size() * sizeof(Sample));
        std::copy(samples.begin(), samples.end(), reinterpret_cast<Sample*>(in.Data()));
        return AVFilter_Audio_MIXSend(m_hHandle, nId, in.Data(), nBytes);
    }
    template <class Sample>
    void Send(int nId, const std::vector<Sample>& samples)
    {
        EXPECT_OK(Send(nId, samples, static_cast<int>(samples.size() * sizeof(Sample))));
    }

    // The samples of one block, from Cvt with its padding; none after RECEIVE_FRAME, with nothing
    // written.
    template <class Sample = std::int16_t>
    std::vector<Sample> Cvt()
    {
        return Take<Sample>([this](unsigned char* pOut, int* pnOut) {
            return AVFilter_Audio_Cvt(m_hHandle, pOut, 1, pOut, pnOut);
        });
    }
    template <class Sample = std::int16_t>
    std::vector<Sample> Recv()
    {
        return Take<Sample>([this](unsigned char* pOut, int* pnOut) {
            return AVFilter_Audio_MIXRecv(m_hHandle, pOut, pnOut);
        });
    }

    // Appends all blocks that are there, each of this size if it is given.
    void RecvAll(Samples16& all, std::size_t nSize = 0)
    {
        for (auto block = Recv(); !block.empty(); block = Recv()) {
            EXPECT_TRUE(nSize == 0 || block.size() == nSize) << block.size();
            all.insert(all.end(), block.begin(), block.end());
        }
    }

  private:
    template <class Sample, class Call>
    std::vector<Sample> Take(Call call)
    {
        Bytes out(1 << 16, 0xCD);
        int nOut = -1;
        const bool bResult = call(out.data(), &nOut);
        if (!bResult) {
            ExpectFailure(bResult, AVFILTER_ERROR_AUDIO_RECEIVE_FRAME);
        }
        EXPECT_EQ(bResult, nOut > 0);
        const int nWritten = std::max(nOut, 0);
        EXPECT_TRUE(std::all_of(out.begin() + nWritten, out.end(), [](int n) { return n == 0xCD; }));
        const auto* pSamples = reinterpret_cast<const Sample*>(out.data());
        return {pSamples, pSamples + static_cast<std::size_t>(nWritten) / sizeof(Sample)};
    }

    unsigned long long m_hHandle = 0;
};

} // namespace test
