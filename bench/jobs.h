// The jobs by type, for what is compiled for one of them.
#pragma once

#include "../tests/support/jobs.h"

namespace load
{

using jobs::Size;

template <std::size_t nKind>
class JobOf : public jobs::Job
{
  public:
    static constexpr const char* kName = jobs::kKinds[nKind].szName;
    JobOf(Size size, unsigned nSeed) : Job(jobs::kKinds[nKind], size, nSeed) {}
    // The shortest call that takes the family's lock alone.
    static void DestroyNothing() { jobs::Demand(jobs::kKinds[nKind].Destroy(0), kName); }
};

using AudioMixJob = JobOf<jobs::kAudioMix>;
using VideoFilterJob = JobOf<jobs::kVideoFilter>;
using VideoMixJob = JobOf<jobs::kVideoMix>;
using ScaleJob = JobOf<jobs::kScaler>;

} // namespace load
