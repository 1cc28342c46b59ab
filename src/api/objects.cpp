// The exported globals and the three service objects.

#include "audio/audio.h"
#include "scale/video_scale.h"
#include "video/video.h"

// Each on a cache line of its own, so that a call that fails does not slow the others.
alignas(common::kCacheLine) bool AVFilter_IsErrorOccur = false;
alignas(common::kCacheLine) unsigned long long AVFilter_dwErrorCode = 0;

// One translation unit fixes the order: constructed as they stand here, destroyed in reverse.
CAVFilter_Audio m_FilterAudio;
CAVFilter_Video m_FilterVideo;
CAVFilter_VideoScale m_VideoScale;
