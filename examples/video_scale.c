/*
 * Scales raw video: yuv420p pictures come out in another size as rgb24, three bytes per pixel.
 *
 *   video_scale IN WIDTH HEIGHT OUT OUT_WIDTH OUT_HEIGHT
 *   video_scale in.yuv 1280 720 out.rgb 854 480
 *
 * /dev/stdin and /dev/stdout serve as files too.
 */
#include "Telvane_AVFilter.h"

#include <stdio.h>
#include <stdlib.h>

enum {
    PIXEL_FORMAT_YUV420P = 0, /* AV_PIX_FMT_YUV420P */
    PIXEL_FORMAT_RGB24 = 2,   /* AV_PIX_FMT_RGB24 */
    MAX_SIDE = 16384
};

static void Die(const char* szWhat)
{
    fprintf(stderr, "video_scale: %s\n", szWhat);
    exit(EXIT_FAILURE);
}

/* The codes of each function, with their causes, stand at its declaration. */
static void DieWithCode(const char* szFunction)
{
    fprintf(stderr, "video_scale: %s failed with code 0x%llX\n", szFunction, AVFilter_GetLastError(NULL));
    exit(EXIT_FAILURE);
}

static int Side(const char* szText)
{
    const long nValue = strtol(szText, NULL, 10);
    if (nValue < 1 || nValue > MAX_SIDE) {
        Die("sizes must lie between 1 and 16384");
    }
    return (int)nValue;
}

int main(int argc, char** argv)
{
    if (argc != 7) {
        Die("usage: video_scale IN WIDTH HEIGHT OUT OUT_WIDTH OUT_HEIGHT");
    }
    FILE* pIn = fopen(argv[1], "rb");
    FILE* pOut = fopen(argv[4], "wb");
    if (pIn == NULL || pOut == NULL) {
        Die(pIn == NULL ? "cannot open IN" : "cannot open OUT");
    }
    const int nWidth = Side(argv[2]);
    const int nHeight = Side(argv[3]);
    const size_t szIn =
        (size_t)nWidth * (size_t)nHeight + 2 * (((size_t)nWidth + 1) / 2) * (((size_t)nHeight + 1) / 2);
    char* pInPicture = malloc(szIn);
    unsigned char* pOutPicture = NULL;
    int nCapacity = 0;
    if (pInPicture == NULL) {
        Die("no memory");
    }
    unsigned long long hHandle = 0;
    if (!AVFilter_VideoScale_Init(&hHandle)) {
        DieWithCode("AVFilter_VideoScale_Init");
    }
    if (!AVFilter_VideoScale_Set(hHandle, PIXEL_FORMAT_YUV420P, nWidth, nHeight, PIXEL_FORMAT_RGB24,
                                 Side(argv[5]), Side(argv[6]))) {
        DieWithCode("AVFilter_VideoScale_Set");
    }

    int nWritten = 0;
    size_t nBytes = 0;
    while ((nBytes = fread(pInPicture, 1, szIn, pIn)) == szIn) {
        int nOut = nCapacity;
        bool bDone = AVFilter_VideoScale_Fmt(hHandle, pInPicture, pOutPicture, &nOut);
        if (!bDone && AVFilter_GetLastError(NULL) == AVFILTER_ERROR_VIDEO_BUFFER_TOO_SMALL) {
            /* Now nOut is the size needed: this happens once, with the first picture. */
            nCapacity = nOut;
            pOutPicture = malloc((size_t)nCapacity);
            if (pOutPicture == NULL) {
                Die("no memory");
            }
            bDone = AVFilter_VideoScale_Fmt(hHandle, pInPicture, pOutPicture, &nOut);
        }
        if (!bDone) {
            DieWithCode("AVFilter_VideoScale_Fmt");
        }
        if (fwrite(pOutPicture, 1, (size_t)nOut, pOut) != (size_t)nOut) {
            Die("cannot write OUT");
        }
        ++nWritten;
    }
    if (nBytes != 0 || ferror(pIn) != 0) {
        Die("IN does not end with a whole picture");
    }
    if (fclose(pOut) != 0) {
        Die("cannot write OUT");
    }
    AVFilter_VideoScale_Destory(hHandle);
    free(pInPicture);
    free(pOutPicture);
    fclose(pIn);
    fprintf(stderr, "video_scale: %d pictures\n", nWritten);
    return nWritten > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
