/* The public header alone, twice, and a record of each kind as C writes it. */
#include "Telvane_AVFilter.h"

#include "Telvane_AVFilter.h"

const AVFILTER_AUDIO_INFO st_AudioInfo = {"a", 1, 48000, 480, 2, 7, 0};
const AVFILTER_VIDEO_INFO st_VideoInfo = {"v", 640, 360, 25, 0, 7};
