// The five kinds of handle, for tests of what holds for all of them.
#pragma once

#include "support/support.h"

namespace test
{

using Handle = unsigned long long;
inline unsigned char g_In[8192];
inline unsigned char g_Out[1 << 16];
inline int g_nOut;

struct Kind {
    const char* szName;
    char cFamily; // destroying functions of the same letter find each other's handles
    Handle nNotFound;
    bool (*pCreate)(Handle*, int nSize);
    bool (*pWork)(Handle); // leaves a number of bytes in g_nOut that tells the size
    bool (*pDestroy)(Handle);
};

inline constexpr Kind kKinds[] = {
    {"audio filter", 'a', AVFILTER_ERROR_AUDIO_NOT_FOUND,
     [](Handle* ph, int nSize) {
         AVFILTER_AUDIO_INFO st_Info = AudioInfo(kS16, 48000, nSize, 2);
         return AVFilter_Audio_Init(ph, "[in]anull[out]", &st_Info);
     },
     [](Handle h) { return AVFilter_Audio_Cvt(h, g_In, 1, g_Out, &g_nOut); }, AVFilter_Audio_Destroy},
    {"audio mix", 'a', AVFILTER_ERROR_AUDIO_NOT_FOUND,
     [](Handle* ph, int nSize) {
         AudioInfos infos({AudioInfo(kS16, 48000, nSize, 2, "a", 3)});
         return AVFilter_Audio_MIXInit(ph, infos.Get(), 1, "out", "[a]anull[out]");
     },
     [](Handle h) {
         return AVFilter_Audio_MIXSend(h, 3, g_In, 64) && AVFilter_Audio_MIXRecv(h, g_Out, &g_nOut);
     },
     AVFilter_Audio_MIXDestroy},
    {"video filter", 'f', AVFILTER_ERROR_VIDEO_NOT_FOUND,
     [](Handle* ph, int nSize) {
         AVFILTER_VIDEO_INFO st_Info = VideoInfo(nSize, 16);
         return AVFilter_Video_Init(ph, "[in]hflip[out]", &st_Info);
     },
     [](Handle h) { return AVFilter_Video_Cvt(h, g_In, nullptr, nullptr, 0, 0, 0, g_Out, &g_nOut); },
     AVFilter_Video_Destroy},
    {"video mix", 'm', AVFILTER_ERROR_VIDEO_NOT_FOUND,
     [](Handle* ph, int nSize) {
         VideoInfos infos({VideoInfo(nSize, 16, 25, kYuv420p, "v", 3)});
         return AVFilter_Video_MIXInit(ph, infos.Get(), 1, "out", "[v]hflip[out]");
     },
     [](Handle h) {
         return AVFilter_Video_MIXSend(h, 3, g_In, g_In, g_In, 8, 8, 8) &&
                AVFilter_Video_MIXRecv(h, g_Out, &g_nOut);
     },
     AVFilter_Video_MIXDestroy},
    {"scaler", 's', AVFILTER_ERROR_VIDEO_NOT_FOUND,
     [](Handle* ph, int nSize) {
         return AVFilter_VideoScale_Init(ph) && AVFilter_VideoScale_Set(*ph, 0, 32, 16, 0, nSize, 16);
     },
     [](Handle h) {
         g_nOut = static_cast<int>(sizeof(g_Out));
         return AVFilter_VideoScale_Fmt(h, reinterpret_cast<const char*>(g_In), g_Out, &g_nOut);
     },
     AVFilter_VideoScale_Destory},
};

} // namespace test
