// A handle of the audio family, its calls with every result checked, and samples to send.
#pragma once

#include "support/graph.h"

namespace test
{

using Samples16 = std::vector<std::int16_t>;

class AudioGraph : public Graph<Audio>
{
  public:
    using Graph::Graph;

    template <class Sample>
    bool Send(int nId, const std::vector<Sample>& samples, int nBytes) const
    {
        GuardedBuffer in(samples.size() * sizeof(Sample));
        std::copy(samples.begin(), samples.end(), reinterpret_cast<Sample*>(in.Data()));
        return AVFilter_Audio_MIXSend(Get(), nId, in.Data(), nBytes);
    }
    template <class Sample>
    void Send(int nId, const std::vector<Sample>& samples) const
    {
        EXPECT_OK(Send(nId, samples, static_cast<int>(samples.size() * sizeof(Sample))));
    }

    // The samples of one block, from Cvt with its padding; none after RECEIVE_FRAME.
    template <class Sample = std::int16_t>
    std::vector<Sample> Cvt() const
    {
        return Take<Sample>(
            [this](unsigned char* pOut, int* pnOut) { return Audio::Cvt(Get(), pOut, pOut, pnOut); });
    }
    template <class Sample = std::int16_t>
    std::vector<Sample> Recv() const
    {
        return Take<Sample>(
            [this](unsigned char* pOut, int* pnOut) { return Audio::MixRecv(Get(), pOut, pnOut); });
    }
};

} // namespace test
