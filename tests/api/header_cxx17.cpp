// The public header alone, twice, and what other languages rely on.
#include "Telvane_AVFilter.h"

#include "Telvane_AVFilter.h"

#include <type_traits>

static_assert(std::is_trivial_v<AVFILTER_AUDIO_INFO> && std::is_trivial_v<AVFILTER_VIDEO_INFO>);
static_assert(sizeof(AVFilter_dwErrorCode) == 8 && sizeof(AVFilter_IsErrorOccur) == 1);
