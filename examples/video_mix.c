/*
 * Mixes raw video: two streams of yuv420p pictures become one.
 *
 *   video_mix IN0 WIDTH0 HEIGHT0 IN1 WIDTH1 HEIGHT1 RATE DESCRIPTION OUT OUT_WIDTH OUT_HEIGHT
 *   video_mix a.yuv 1280 720 b.yuv 480 360 25 "[in1]scale=320:-2[small];[in0][small]overlay=20:20" \
 *             out.yuv 1280 720
 *
 * DESCRIPTION is what "ffmpeg -filter_complex" takes, with the inputs named [in0] and [in1], and its last
 * output without a name. As many pictures are sent as IN0 has; where IN1 is shorter its last one stands.
 */
#include "Telvane_AVFilter.h"

#include <stdio.h>
#include <stdlib.h>

enum { PIXEL_FORMAT_YUV420P = 0, /* AV_PIX_FMT_YUV420P */ MAX_SIDE = 16384 };

typedef struct {
    FILE* pFile;
    unsigned char* pPicture;
    int nLuma;   /* bytes of the first plane */
    int nChroma; /* bytes of the second and of the third plane */
} INPUT;

static void Die(const char* szWhat)
{
    fprintf(stderr, "video_mix: %s\n", szWhat);
    exit(EXIT_FAILURE);
}

/* The codes of each function, with their causes, stand at its declaration. */
static void DieWithCode(const char* szFunction)
{
    fprintf(stderr, "video_mix: %s failed with code 0x%llX\n", szFunction, AVFilter_GetLastError(NULL));
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

static bool ReadPicture(const INPUT* pInput)
{
    const size_t szPicture = (size_t)pInput->nLuma + 2 * (size_t)pInput->nChroma;
    const size_t nBytes = fread(pInput->pPicture, 1, szPicture, pInput->pFile);
    if ((nBytes != 0 && nBytes != szPicture) || ferror(pInput->pFile) != 0) {
        Die("an input does not end with a whole picture");
    }
    return nBytes == szPicture;
}

int main(int argc, char** argv)
{
    if (argc != 12) {
        Die("usage: video_mix IN0 WIDTH0 HEIGHT0 IN1 WIDTH1 HEIGHT1 RATE DESCRIPTION OUT "
            "OUT_WIDTH OUT_HEIGHT");
    }
    INPUT inputs[2];
    AVFILTER_VIDEO_INFO st_Info[2];
    AVFILTER_VIDEO_INFO* st_Inputs[2] = {&st_Info[0], &st_Info[1]};
    AVFILTER_VIDEO_INFO** pSt_Inputs = st_Inputs;
    for (int i = 0; i < 2; ++i) {
        st_Info[i] = (AVFILTER_VIDEO_INFO){.nWidth = Number(argv[3 * i + 2]),
                                           .nHeight = Number(argv[3 * i + 3]),
                                           .nTimeBase = Number(argv[7]),
                                           .nPixelFormat = PIXEL_FORMAT_YUV420P,
                                           .nInputId = i};
        snprintf(st_Info[i].szName, sizeof st_Info[i].szName, "in%d", i);
        inputs[i].pFile = fopen(argv[3 * i + 1], "rb");
        inputs[i].nLuma = st_Info[i].nWidth * st_Info[i].nHeight;
        inputs[i].nChroma = ((st_Info[i].nWidth + 1) / 2) * ((st_Info[i].nHeight + 1) / 2);
        inputs[i].pPicture = malloc((size_t)inputs[i].nLuma + 2 * (size_t)inputs[i].nChroma);
        if (inputs[i].pFile == NULL || inputs[i].pPicture == NULL) {
            Die(inputs[i].pFile == NULL ? "cannot open an input" : "no memory");
        }
    }

    /*
     * No capacity is passed when a picture is taken: the end of the description fixes its size. It is made
     * even: of an odd size the last chroma column or row would not come out.
     */
    const int nOutWidth = (Number(argv[10]) + 1) / 2 * 2;
    const int nOutHeight = (Number(argv[11]) + 1) / 2 * 2;
    char szDescr[8192];
    const int nLength = snprintf(szDescr, sizeof szDescr, "%s,scale=%d:%d,format=yuv420p[out]", argv[8],
                                 nOutWidth, nOutHeight);
    if (nLength < 0 || (size_t)nLength >= sizeof szDescr) {
        Die("DESCRIPTION is too long");
    }
    unsigned char* pOutPicture = malloc((size_t)nOutWidth * (size_t)nOutHeight * 3 / 2);
    FILE* pOut = fopen(argv[9], "wb");
    if (pOut == NULL || pOutPicture == NULL) {
        Die(pOut == NULL ? "cannot open OUT" : "no memory");
    }
    unsigned long long hHandle = 0;
    if (!AVFilter_Video_MIXInit(&hHandle, &pSt_Inputs, 2, "out", szDescr)) {
        DieWithCode("AVFilter_Video_MIXInit");
    }

    int nSent = 0;
    int nWritten = 0;
    while (ReadPicture(&inputs[0])) {
        if (!ReadPicture(&inputs[1]) && nSent == 0) {
            Die("IN1 is empty");
        }
        for (int i = 0; i < 2; ++i) {
            /*
             * Separate planes are copied, so that one buffer for each input is enough. A whole picture
             * (pU and pV NULL) would save the copy, but it must be of even size, and must stay unchanged
             * until what was made from it has been received.
             */
            unsigned char* pU = inputs[i].pPicture + inputs[i].nLuma;
            if (!AVFilter_Video_MIXSend(hHandle, i, inputs[i].pPicture, pU, pU + inputs[i].nChroma,
                                        inputs[i].nLuma, inputs[i].nChroma, inputs[i].nChroma)) {
                DieWithCode("AVFilter_Video_MIXSend");
            }
        }
        ++nSent;
        int nOut = 0;
        while (AVFilter_Video_MIXRecv(hHandle, pOutPicture, &nOut)) {
            if (fwrite(pOutPicture, 1, (size_t)nOut, pOut) != (size_t)nOut) {
                Die("cannot write OUT");
            }
            ++nWritten;
        }
        if (AVFilter_GetLastError(NULL) != AVFILTER_ERROR_VIDEO_RECEIVE_FRAME) {
            DieWithCode("AVFilter_Video_MIXRecv");
        }
    }
    if (fclose(pOut) != 0) {
        Die("cannot write OUT");
    }
    AVFilter_Video_MIXDestroy(hHandle);
    for (int i = 0; i < 2; ++i) {
        free(inputs[i].pPicture);
        fclose(inputs[i].pFile);
    }
    free(pOutPicture);
    fprintf(stderr, "video_mix: %d pictures in, %d out\n", nSent, nWritten);
    return nWritten > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
