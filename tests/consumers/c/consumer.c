/* A C99 program that knows the installed library through pkg-config alone: one result per job. */
#include <Telvane_AVFilter.h>

#include <stdio.h>
#include <string.h>

static int failed;

static void Check(const char* szWhat, bool bHolds)
{
    printf("%s: %s\n", bHolds ? "ok" : "FAILED", szWhat);
    failed |= !bHolds;
}

/* 0, 1, 2, ... */
static void Count(unsigned char* p, int n)
{
    for (int i = 0; i < n; ++i) {
        p[i] = (unsigned char)i;
    }
}

static bool Audio(void)
{
    static short voice[480], half[480];
    AVFILTER_AUDIO_INFO st_Info = {.szName = "voice", .nSampleFormat = 1, .nSampleRate = 48000};
    AVFILTER_AUDIO_INFO* pList = &st_Info;
    AVFILTER_AUDIO_INFO** ppList = &pList;
    unsigned long long hMix = 0;
    int nSize = 0;

    st_Info.nNbSamples = 480;
    st_Info.nChannels = 1;
    st_Info.nInputId = 7;
    for (int i = 0; i < 480; ++i) {
        voice[i] = (short)(20 * i);
    }
    if (!AVFilter_Audio_MIXInit(&hMix, &ppList, 1, "out", "[voice]volume=0.5:precision=fixed[out]") ||
        !AVFilter_Audio_MIXSend(hMix, 7, (unsigned char*)voice, sizeof voice) ||
        !AVFilter_Audio_MIXRecv(hMix, (unsigned char*)half, &nSize) || nSize != sizeof half) {
        return false;
    }
    for (int i = 0; i < 480; ++i) {
        if (half[i] != 10 * i) {
            return false;
        }
    }
    return AVFilter_Audio_MIXDestroy(hMix) && !AVFilter_Audio_MIXSend(hMix, 7, (unsigned char*)voice, 2) &&
           AVFilter_GetLastError(NULL) == AVFILTER_ERROR_AUDIO_NOT_FOUND;
}

static bool Video(void)
{
    static unsigned char picture[32 * 16 * 3 / 2], mirrored[sizeof picture];
    AVFILTER_VIDEO_INFO st_Info = {.nWidth = 32, .nHeight = 16, .nTimeBase = 25};
    unsigned long long hFilter = 0;
    int nSize = 0;

    Count(picture, sizeof picture);
    if (!AVFilter_Video_Init(&hFilter, "[in]hflip,format=yuv420p[out]", &st_Info) ||
        !AVFilter_Video_Cvt(hFilter, picture, NULL, NULL, 0, 0, 0, mirrored, &nSize) ||
        nSize != sizeof mirrored) {
        return false;
    }
    for (int i = 0; i < 32 * 16; ++i) {
        if (mirrored[i] != picture[i / 32 * 32 + 31 - i % 32]) {
            return false;
        }
    }
    return AVFilter_Video_Destroy(hFilter);
}

static bool Scale(void)
{
    static unsigned char rgb[16 * 16 * 3], bgr[sizeof rgb];
    unsigned long long hScaler = 0;
    int nSize = 1;

    Count(rgb, sizeof rgb);
    if (!AVFilter_VideoScale_Init(&hScaler) || !AVFilter_VideoScale_Set(hScaler, 2, 16, 16, 3, 16, 16) ||
        AVFilter_VideoScale_Fmt(hScaler, (const char*)rgb, NULL, &nSize) ||
        AVFilter_GetLastError(NULL) != AVFILTER_ERROR_VIDEO_BUFFER_TOO_SMALL || nSize != sizeof bgr ||
        !AVFilter_VideoScale_Fmt(hScaler, (const char*)rgb, bgr, &nSize)) {
        return false;
    }
    for (int i = 0; i < (int)sizeof rgb; i += 3) {
        if (bgr[i] != rgb[i + 2] || bgr[i + 1] != rgb[i + 1] || bgr[i + 2] != rgb[i]) {
            return false;
        }
    }
    return AVFilter_VideoScale_Destory(hScaler);
}

int main(void)
{
    Check("C: audio of one's own at half its volume", Audio());
    Check("C: a picture mirrored", Video());
    Check("C: RGB turned to BGR", Scale());
    return failed;
}
