// The five kinds of handle, for tests of what holds for all of them.
#pragma once

#include "support/graph.h"

namespace test
{

inline constexpr int kCapacity = 1 << 16;
inline unsigned char g_Out[kCapacity];
inline int g_nOut; // the bytes in g_Out
inline int g_nGot; // the value that they stand for

// A value as it is handed in: as the luma of a picture of up to 64x16, a whole one or three planes, or as
// samples. Each value has a block of its own, because a mix keeps to whole pictures.
inline unsigned char* Filled(int nValue)
{
    static unsigned char blocks[256][1536];
    unsigned char* const pBlock = blocks[nValue];
    return static_cast<unsigned char*>(std::memset(pBlock, nValue, sizeof(blocks[0])));
}
inline unsigned char* Samples(int nValue)
{
    static std::int16_t samples[32];
    std::fill(std::begin(samples), std::end(samples), static_cast<std::int16_t>(nValue));
    return reinterpret_cast<unsigned char*>(samples);
}

// Mixes have two inputs, and give the sum of the values in them; the audio filter makes 100 by itself.
// Odd values go to the video graphs as whole pictures, even ones in separate planes.
struct Kind {
    const char* szName;
    char cFamily; // destroying functions of the same letter find each other's handles
    Handle nBase; // of its codes
    Handle nNotFound;
    bool (*pCreate)(Handle*, int nSize);
    bool (*pDestroy)(Handle);
    bool (*pSend)(Handle, int nInput, int nValue); // null but for mixes
    bool (*pTake)(Handle, int nValue);             // the call that gives something out
    int (*pGot)();
};

inline constexpr Kind kKinds[] = {
    {"audio filter", 'a', Audio::kBase, Audio::kNotFound,
     [](Handle* ph, int nSize) {
         AVFILTER_AUDIO_INFO st_Info = AudioInfo(kS16, 48000, nSize, 2);
         return AVFilter_Audio_Init(
             ph, "[in]aeval=exprs=100/32768:c=same,aformat=sample_fmts=s16:channel_layouts=mono[out]",
             &st_Info);
     },
     AVFilter_Audio_Destroy, nullptr,
     [](Handle h, int n) { return AVFilter_Audio_Cvt(h, Samples(n), 1, g_Out, &g_nOut); },
     [] { return g_Out[0] + 256 * g_Out[1]; }},
    {"audio mix", 'a', Audio::kBase, Audio::kNotFound,
     [](Handle* ph, int nSize) {
         InfoArray<AVFILTER_AUDIO_INFO> infos(
             {AudioInfo(kS16, 48000, nSize, 1, "a", 0), AudioInfo(kS16, 48000, nSize, 1, "b", 1)});
         return AVFilter_Audio_MIXInit(ph, infos.Get(), 2, "out",
                                       "[a][b]amix=inputs=2:normalize=0,aformat=sample_fmts=s16[out]");
     },
     AVFilter_Audio_MIXDestroy,
     [](Handle h, int nInput, int n) { return AVFilter_Audio_MIXSend(h, nInput, Samples(n), 64); },
     [](Handle h, int) { return AVFilter_Audio_MIXRecv(h, g_Out, &g_nOut); },
     [] { return g_Out[0] + 256 * g_Out[1]; }},
    {"video filter", 'f', Video::kBase, Video::kNotFound,
     [](Handle* ph, int nSize) {
         AVFILTER_VIDEO_INFO st_Info = VideoInfo(nSize, 16);
         return AVFilter_Video_Init(ph, "[in]null[out]", &st_Info);
     },
     AVFilter_Video_Destroy, nullptr,
     [](Handle h, int n) {
         unsigned char* const p = Filled(n);
         return AVFilter_Video_Cvt(h, p, n % 2 == 0 ? p : nullptr, p, 8, 8, 8, g_Out, &g_nOut);
     },
     [] { return int{g_Out[0]}; }},
    {"video mix", 'm', Video::kBase, Video::kNotFound,
     [](Handle* ph, int nSize) {
         InfoArray<AVFILTER_VIDEO_INFO> infos(
             {VideoInfo(nSize, 16, 25, kYuv420p, "a", 0), VideoInfo(nSize, 16, 25, kYuv420p, "b", 1)});
         return AVFilter_Video_MIXInit(ph, infos.Get(), 2, "out", "[a][b]hstack[out]");
     },
     AVFilter_Video_MIXDestroy,
     [](Handle h, int nInput, int n) {
         unsigned char* const p = Filled(n);
         return AVFilter_Video_MIXSend(h, nInput, p, n % 2 == 0 ? p : nullptr, p, 8, 8, 8);
     },
     [](Handle h, int) { return AVFilter_Video_MIXRecv(h, g_Out, &g_nOut); },
     [] { return g_Out[0] + g_Out[g_nOut / 48]; }}, // the left edges of both halves
    {"scaler", 's', Video::kBase, Video::kNotFound,
     [](Handle* ph, int nSize) {
         // Set up twice, the first time for a picture with padded rows.
         return AVFilter_VideoScale_Init(ph) && AVFilter_VideoScale_Set(*ph, 0, 32, 16, 0, 50, 16) &&
                AVFilter_VideoScale_Set(*ph, 0, 32, 16, 0, nSize, 16);
     },
     AVFilter_VideoScale_Destory, nullptr,
     [](Handle h, int n) {
         return AVFilter_VideoScale_Fmt(h, reinterpret_cast<char*>(Filled(n)), g_Out, &g_nOut);
     },
     [] { return int{g_Out[0]}; }},
};

// Takes something out; what fails must have written nothing.
inline bool Take(const Kind& kind, Handle h, int nValue)
{
    std::memset(g_Out, 0xCD, sizeof(g_Out));
    g_nOut = kCapacity;
    const bool bDone = kind.pTake(h, nValue);
    g_nGot = bDone ? kind.pGot() : -1;
    EXPECT_EQ(bDone, g_nOut < kCapacity);
    EXPECT_TRUE(bDone || std::all_of(g_Out, g_Out + kCapacity, [](int n) { return n == 0xCD; }));
    return bDone;
}

// Whether what is handed in comes out, whole and in planes.
inline bool Work(const Kind& kind, Handle h)
{
    for (const int n : {100, 101}) {
        if ((kind.pSend != nullptr && (!kind.pSend(h, 0, 40) || !kind.pSend(h, 1, n - 40))) ||
            !Take(kind, h, n)) {
            return false;
        }
        EXPECT_EQ(g_nGot, &kind == kKinds ? 100 : n) << kind.szName;
    }
    return true;
}

} // namespace test
