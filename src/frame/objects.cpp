// The exported globals and the three service objects.

#include "audio/audio.h"
#include "scale/video_scale.h"
#include "video/video.h"

// Each on cache lines of its own, so that one family's lock does not slow another's calls.
namespace
{
constexpr std::size_t kCacheLine = 64;
}

alignas(kCacheLine) bool AVFilter_IsErrorOccur = false;
alignas(kCacheLine) unsigned long long AVFilter_dwErrorCode = 0;

// One translation unit fixes the order: constructed as they stand here, destroyed in reverse.
// Records that are still registered then are dropped without freeing their FFmpeg objects: at exit
// FFmpeg's own libraries may already have been taken down.
alignas(kCacheLine) CAVFilter_Audio m_FilterAudio;
alignas(kCacheLine) CAVFilter_Video m_FilterVideo;
alignas(kCacheLine) CAVFilter_VideoScale m_VideoScale;
