// Ways by other programs and libraries.
#pragma once

#include "by_hand.h"

namespace bench
{

// The "ffmpeg" command, fed through a pipe for each input and read through one more, by this process.
Path Pipes(const Task& task, const std::shared_ptr<Buffer>& pIn, const std::shared_ptr<Buffer>& pOut);
Path Pipes(const Conversion& conversion, const std::shared_ptr<Buffer>& pIn,
           const std::shared_ptr<Buffer>& pOut);

// libyuv, and zimg where the destination is planar: from yuv420p. zimg works on aligned rows of its own; copying
// the caller's there and back is not part of its time.
void AddRivals(Job& job, const Conversion& conversion, const std::shared_ptr<Buffer>& pIn);

} // namespace bench
