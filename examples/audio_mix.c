/*
 * Mixes raw audio: mono files of 16-bit samples at 48 kHz become one stereo stream of the same kind.
 *
 *   audio_mix SECONDS DESCRIPTION OUT IN0 [IN1 ...]
 *   audio_mix 2.5 "[in0]pan=stereo|c0=c0[l];[in1]pan=stereo|c1=c0[r];[l][r]amix=normalize=0" \
 *             out.s16 left.s16 right.s16
 *
 * DESCRIPTION is what "ffmpeg -filter_complex" takes, with the inputs named [in0], [in1] and so on, and
 * its last output without a name. Inputs that are shorter than SECONDS go on in silence.
 */
#include "Telvane_AVFilter.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum {
    SAMPLE_FORMAT_S16 = 1, /* AV_SAMPLE_FMT_S16 */
    RATE = 48000,
    SAMPLES = 1024, /* per channel and block */
    MAX_INPUTS = 64,
    MAX_SECONDS = 36000
};

static void Die(const char* szWhat)
{
    fprintf(stderr, "audio_mix: %s\n", szWhat);
    exit(EXIT_FAILURE);
}

/* The codes of each function, with their causes, stand at its declaration. */
static void DieWithCode(const char* szFunction)
{
    fprintf(stderr, "audio_mix: %s failed with code 0x%llX\n", szFunction, AVFilter_GetLastError(NULL));
    exit(EXIT_FAILURE);
}

int main(int argc, char** argv)
{
    const int nInputs = argc - 4;
    if (nInputs < 1 || nInputs > MAX_INPUTS) {
        Die("usage: audio_mix SECONDS DESCRIPTION OUT IN0 [IN1 ...]");
    }
    const double fSeconds = strtod(argv[1], NULL);
    if (!(fSeconds > 0 && fSeconds <= MAX_SECONDS)) {
        Die("SECONDS must be more than 0 and at most 36000");
    }
    FILE* pOut = fopen(argv[3], "wb");
    if (pOut == NULL) {
        Die("cannot open OUT");
    }

    FILE* pIn[MAX_INPUTS];
    AVFILTER_AUDIO_INFO st_Info[MAX_INPUTS];
    AVFILTER_AUDIO_INFO* st_Inputs[MAX_INPUTS];
    AVFILTER_AUDIO_INFO** pSt_Inputs = st_Inputs;
    for (int i = 0; i < nInputs; ++i) {
        pIn[i] = fopen(argv[4 + i], "rb");
        if (pIn[i] == NULL) {
            Die("cannot open an input");
        }
        st_Info[i] = (AVFILTER_AUDIO_INFO){.nSampleFormat = SAMPLE_FORMAT_S16,
                                           .nSampleRate = RATE,
                                           .nNbSamples = SAMPLES,
                                           .nChannels = 1,
                                           .nInputId = i};
        snprintf(st_Info[i].szName, sizeof st_Info[i].szName, "in%d", i);
        st_Inputs[i] = &st_Info[i];
    }

    /* No capacity is passed when a block is taken: the end of the description fixes its format and size. */
    char szDescr[8192];
    const int nLength = snprintf(szDescr, sizeof szDescr,
                                 "%s,aformat=sample_fmts=s16:sample_rates=%d:channel_layouts=stereo,"
                                 "asetnsamples=n=%d:p=0[out]",
                                 argv[2], RATE, SAMPLES);
    if (nLength < 0 || (size_t)nLength >= sizeof szDescr) {
        Die("DESCRIPTION is too long");
    }
    unsigned char ucIn[SAMPLES * 2];
    unsigned char ucOut[SAMPLES * 2 * 2];
    unsigned long long hHandle = 0;
    if (!AVFilter_Audio_MIXInit(&hHandle, &pSt_Inputs, nInputs, "out", szDescr)) {
        DieWithCode("AVFilter_Audio_MIXInit");
    }

    /* Filters may hold samples back, so a second more than is asked for may have to be sent. */
    const long long nWanted = (long long)(fSeconds * RATE) * 4;
    const long long nRounds = nWanted / 4 / SAMPLES + 1 + RATE / SAMPLES;
    long long nWritten = 0;
    for (long long nRound = 0; nRound < nRounds && nWritten < nWanted; ++nRound) {
        for (int i = 0; i < nInputs; ++i) {
            /* An input that ends is sent on as silence: without it the others would wait for ever. */
            const size_t nRead = fread(ucIn, 1, sizeof ucIn, pIn[i]);
            memset(ucIn + nRead, 0, sizeof ucIn - nRead);
            if (ferror(pIn[i]) != 0) {
                Die("cannot read an input");
            }
            if (!AVFilter_Audio_MIXSend(hHandle, i, ucIn, (int)sizeof ucIn)) {
                DieWithCode("AVFilter_Audio_MIXSend");
            }
        }
        int nOut = 0;
        while (AVFilter_Audio_MIXRecv(hHandle, ucOut, &nOut)) {
            if (nOut > nWanted - nWritten) {
                nOut = (int)(nWanted - nWritten);
            }
            if (fwrite(ucOut, 1, (size_t)nOut, pOut) != (size_t)nOut) {
                Die("cannot write OUT");
            }
            nWritten += nOut;
        }
        if (AVFilter_GetLastError(NULL) != AVFILTER_ERROR_AUDIO_RECEIVE_FRAME) {
            DieWithCode("AVFilter_Audio_MIXRecv");
        }
    }
    if (fclose(pOut) != 0) {
        Die("cannot write OUT");
    }
    if (nWritten < nWanted) {
        Die("the description gives less than SECONDS of sound");
    }
    AVFilter_Audio_MIXDestroy(hHandle);
    for (int i = 0; i < nInputs; ++i) {
        fclose(pIn[i]);
    }
    return EXIT_SUCCESS;
}
