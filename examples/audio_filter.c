/*
 * Filters raw audio: interleaved 16-bit samples go through a filter chain, as many come out as go in (more
 * if the filters stretch the sound).
 *
 *   audio_filter IN RATE CHANNELS FILTERS OUT
 *   audio_filter in.s16 48000 2 "highpass=f=200,aecho=0.8:0.6:250:0.3" out.s16
 *
 * FILTERS is what "ffmpeg -af" takes. /dev/stdin and /dev/stdout serve as files too.
 */
#include "Telvane_AVFilter.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum {
    SAMPLE_FORMAT_S16 = 1, /* AV_SAMPLE_FMT_S16 */
    SAMPLES = 1024,        /* per channel and block */
    INPUT_ID = 1,
    MAX_SILENT_BLOCKS = 500
};

static void Die(const char* szWhat)
{
    fprintf(stderr, "audio_filter: %s\n", szWhat);
    exit(EXIT_FAILURE);
}

/* The codes of each function, with their causes, stand at its declaration. */
static void DieWithCode(const char* szFunction)
{
    fprintf(stderr, "audio_filter: %s failed with code 0x%llX\n", szFunction, AVFilter_GetLastError(NULL));
    exit(EXIT_FAILURE);
}

int main(int argc, char** argv)
{
    if (argc != 6) {
        Die("usage: audio_filter IN RATE CHANNELS FILTERS OUT");
    }
    FILE* pIn = fopen(argv[1], "rb");
    const int nRate = (int)strtol(argv[2], NULL, 10);
    const int nChannels = (int)strtol(argv[3], NULL, 10);
    FILE* pOut = fopen(argv[5], "wb");
    if (pIn == NULL || pOut == NULL) {
        Die(pIn == NULL ? "cannot open IN" : "cannot open OUT");
    }
    if (nRate < 1 || nChannels < 1 || nChannels > 64) {
        Die("RATE must be positive, CHANNELS from 1 to 64");
    }

    /*
     * One's own samples are filtered by a mix with one input: AVFilter_Audio_Cvt, the single-stream call,
     * does not read the caller's samples.
     */
    AVFILTER_AUDIO_INFO st_Info = {.szName = "in",
                                   .nSampleFormat = SAMPLE_FORMAT_S16,
                                   .nSampleRate = nRate,
                                   .nNbSamples = SAMPLES,
                                   .nChannels = nChannels,
                                   .nInputId = INPUT_ID};
    AVFILTER_AUDIO_INFO* st_Inputs[] = {&st_Info};
    AVFILTER_AUDIO_INFO** pSt_Inputs = st_Inputs;

    /* No capacity is passed when a block is taken: the end of the description fixes its format and size. */
    char szDescr[8192];
    const int nLength = snprintf(szDescr, sizeof szDescr,
                                 "[in]%s,aformat=sample_fmts=s16:sample_rates=%d:channel_layouts=%dc,"
                                 "asetnsamples=n=%d:p=0[out]",
                                 argv[4], nRate, nChannels, SAMPLES);
    if (nLength < 0 || (size_t)nLength >= sizeof szDescr) {
        Die("FILTERS is too long");
    }
    const size_t szBlock = SAMPLES * (size_t)nChannels * 2;
    unsigned char* pInBlock = malloc(szBlock);
    unsigned char* pOutBlock = malloc(szBlock);
    if (pInBlock == NULL || pOutBlock == NULL) {
        Die("no memory");
    }
    unsigned long long hHandle = 0;
    if (!AVFilter_Audio_MIXInit(&hHandle, &pSt_Inputs, 1, "out", szDescr)) {
        DieWithCode("AVFilter_Audio_MIXInit");
    }

    /* The end cannot be signalled: silence pushes out what the filters still hold. */
    long long nPending = 0; /* bytes read and not yet written */
    int nSilentBlocks = 0;
    bool bEnd = false;
    while (!bEnd || (nPending > 0 && nSilentBlocks++ < MAX_SILENT_BLOCKS)) {
        const size_t nRead = bEnd ? 0 : fread(pInBlock, 1, szBlock, pIn);
        if (nRead < szBlock) {
            memset(pInBlock + nRead, 0, szBlock - nRead);
            bEnd = true;
        }
        nPending += (long long)nRead;
        if (!AVFilter_Audio_MIXSend(hHandle, INPUT_ID, pInBlock, (int)szBlock)) {
            DieWithCode("AVFilter_Audio_MIXSend");
        }
        int nOut = 0;
        while (AVFilter_Audio_MIXRecv(hHandle, pOutBlock, &nOut)) {
            if (bEnd && nOut > nPending) {
                nOut = nPending > 0 ? (int)nPending : 0;
            }
            if (fwrite(pOutBlock, 1, (size_t)nOut, pOut) != (size_t)nOut) {
                Die("cannot write OUT");
            }
            nPending -= nOut;
        }
        if (AVFilter_GetLastError(NULL) != AVFILTER_ERROR_AUDIO_RECEIVE_FRAME) {
            DieWithCode("AVFilter_Audio_MIXRecv");
        }
    }
    if (ferror(pIn) != 0 || fclose(pOut) != 0) {
        Die("cannot read IN or write OUT to the end");
    }
    if (nPending > 0) {
        Die("the filters keep sound back for an end that cannot be signalled; OUT is too short");
    }
    AVFilter_Audio_MIXDestroy(hHandle);
    free(pInBlock);
    free(pOutBlock);
    fclose(pIn);
    return EXIT_SUCCESS;
}
