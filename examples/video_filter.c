/*
 * Filters raw video: yuv420p pictures go through a filter chain one by one and come out as yuv420p.
 *
 *   video_filter IN WIDTH HEIGHT RATE FILTERS OUT [OUT_WIDTH OUT_HEIGHT]
 *   video_filter in.yuv 1280 720 25 "hflip,eq=saturation=1.5" out.yuv
 *   video_filter in.yuv 1280 720 25 "crop=640:360" out.yuv 640 360
 *
 * FILTERS is what "ffmpeg -vf" takes. The pictures that come out have OUT_WIDTH and OUT_HEIGHT, or else
 * the input's size, and are scaled to it if need be. /dev/stdin and /dev/stdout serve as files too.
 */
#include "Telvane_AVFilter.h"

#include <stdio.h>
#include <stdlib.h>

enum { PIXEL_FORMAT_YUV420P = 0, /* AV_PIX_FMT_YUV420P */ MAX_SIDE = 16384 };

static void Die(const char* szWhat)
{
    fprintf(stderr, "video_filter: %s\n", szWhat);
    exit(EXIT_FAILURE);
}

/* The codes of each function, with their causes, stand at its declaration. */
static void DieWithCode(const char* szFunction)
{
    fprintf(stderr, "video_filter: %s failed with code 0x%llX\n", szFunction, AVFilter_GetLastError(NULL));
    exit(EXIT_FAILURE);
}

static int Number(const char* szText)
{
    const long nValue = strtol(szText, NULL, 10);
    if (nValue < 1 || nValue > MAX_SIDE) {
        Die("sizes and RATE must lie between 1 and 16384");
    }
    return (int)nValue;
}

int main(int argc, char** argv)
{
    if (argc != 7 && argc != 9) {
        Die("usage: video_filter IN WIDTH HEIGHT RATE FILTERS OUT [OUT_WIDTH OUT_HEIGHT]");
    }
    FILE* pIn = fopen(argv[1], "rb");
    FILE* pOut = fopen(argv[6], "wb");
    if (pIn == NULL || pOut == NULL) {
        Die(pIn == NULL ? "cannot open IN" : "cannot open OUT");
    }
    AVFILTER_VIDEO_INFO st_Info = {.nWidth = Number(argv[2]),
                                   .nHeight = Number(argv[3]),
                                   .nTimeBase = Number(argv[4]),
                                   .nPixelFormat = PIXEL_FORMAT_YUV420P};
    /* Made even: of an odd size the last chroma column or row would not come out. */
    const int nOutWidth = ((argc == 9 ? Number(argv[7]) : st_Info.nWidth) + 1) / 2 * 2;
    const int nOutHeight = ((argc == 9 ? Number(argv[8]) : st_Info.nHeight) + 1) / 2 * 2;

    /* No capacity is passed to the conversion: the end of the description fixes the picture's size. */
    char szDescr[8192];
    const int nLength = snprintf(szDescr, sizeof szDescr, "[in]%s,scale=%d:%d,format=yuv420p[out]", argv[5],
                                 nOutWidth, nOutHeight);
    if (nLength < 0 || (size_t)nLength >= sizeof szDescr) {
        Die("FILTERS is too long");
    }
    const int nLuma = st_Info.nWidth * st_Info.nHeight;
    const int nChroma = ((st_Info.nWidth + 1) / 2) * ((st_Info.nHeight + 1) / 2);
    const size_t szIn = (size_t)nLuma + 2 * (size_t)nChroma;
    unsigned char* pInPicture = malloc(szIn);
    unsigned char* pOutPicture = malloc((size_t)nOutWidth * (size_t)nOutHeight * 3 / 2);
    if (pInPicture == NULL || pOutPicture == NULL) {
        Die("no memory");
    }
    unsigned long long hHandle = 0;
    if (!AVFilter_Video_Init(&hHandle, szDescr, &st_Info)) {
        DieWithCode("AVFilter_Video_Init");
    }

    int nRead = 0;
    int nWritten = 0;
    size_t nBytes = 0;
    while ((nBytes = fread(pInPicture, 1, szIn, pIn)) == szIn) {
        ++nRead;
        /* Separate planes are right for every size; a whole picture in one block is for even sizes. */
        int nOut = 0;
        if (AVFilter_Video_Cvt(hHandle, pInPicture, pInPicture + nLuma, pInPicture + nLuma + nChroma, nLuma,
                               nChroma, nChroma, pOutPicture, &nOut)) {
            if (fwrite(pOutPicture, 1, (size_t)nOut, pOut) != (size_t)nOut) {
                Die("cannot write OUT");
            }
            ++nWritten;
        } else if (AVFilter_GetLastError(NULL) != AVFILTER_ERROR_VIDEO_RECEIVE_FRAME) {
            /* RECEIVE_FRAME says that the filters want the next picture first. */
            DieWithCode("AVFilter_Video_Cvt");
        }
    }
    if (nBytes != 0 || ferror(pIn) != 0) {
        Die("IN does not end with a whole picture");
    }
    if (fclose(pOut) != 0) {
        Die("cannot write OUT");
    }
    AVFilter_Video_Destroy(hHandle);
    free(pInPicture);
    free(pOutPicture);
    fclose(pIn);
    fprintf(stderr, "video_filter: %d pictures in, %d out\n", nRead, nWritten);
    return nWritten > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
