/* Prints what callers have compiled in: sizes, offsets, types and codes of the public header. */
#include "Telvane_AVFilter.h"

#include <stdio.h>

#define TYPE(x)                                                                                            \
    _Generic((x), char* : "char", int : "int", unsigned long long : "unsigned long long", bool : "bool")
#define RECORD(record) printf("%s size %zu\n", #record, sizeof(record))
#define FIELD(record, field)                                                                               \
    printf("%s.%s offset %zu size %zu %s\n", #record, #field, offsetof(record, field),                     \
           sizeof(((record*)0)->field), TYPE(((record*)0)->field))
#define GLOBAL(global) printf("%s size %zu %s\n", #global, sizeof(global), TYPE(global))
#define CODE(code) printf("%s 0x%X\n", #code, (unsigned)(code))

int main(void)
{
    RECORD(AVFILTER_AUDIO_INFO);
    FIELD(AVFILTER_AUDIO_INFO, szName);
    FIELD(AVFILTER_AUDIO_INFO, nSampleFormat);
    FIELD(AVFILTER_AUDIO_INFO, nSampleRate);
    FIELD(AVFILTER_AUDIO_INFO, nNbSamples);
    FIELD(AVFILTER_AUDIO_INFO, nChannels);
    FIELD(AVFILTER_AUDIO_INFO, nInputId);
    FIELD(AVFILTER_AUDIO_INFO, nReserved);
    RECORD(AVFILTER_VIDEO_INFO);
    FIELD(AVFILTER_VIDEO_INFO, szName);
    FIELD(AVFILTER_VIDEO_INFO, nWidth);
    FIELD(AVFILTER_VIDEO_INFO, nHeight);
    FIELD(AVFILTER_VIDEO_INFO, nTimeBase);
    FIELD(AVFILTER_VIDEO_INFO, nPixelFormat);
    FIELD(AVFILTER_VIDEO_INFO, nInputId);
    GLOBAL(AVFilter_IsErrorOccur);
    GLOBAL(AVFilter_dwErrorCode);
#include "codes.h" /* CODE(...) for each code of the header */
    return 0;
}
