// Audio filter graphs: single-stream and mixing handles in one map.
#pragma once

#include "common/ffmpeg.h"
#include "common/registry.h"

#include "Telvane_AVFilter.h"

#include <vector>

// One input of a graph. In a single-stream record the two pointers are null.
struct AVFILTER_AUDIOINFO {
    AVFILTER_AUDIO_INFO st_AudioInfo;
    AVFilterInOut* pSt_Outputs;
    AVFilterContext* pSt_BufferSrcCtx;
};

// Owns its FFmpeg objects through plain pointers and frees none of them itself: the destroying call
// does. A mix leaves the fields of the single stream null, and the other way round.
struct AVFILTER_AUDIOFILTER {
    AVFilterGraph* pSt_FilterGraph;
    AVFilterContext* pSt_BufferSrcCtx;
    AVFilterContext* pSt_BufferSinkCtx;
    AVFilterInOut* pSt_MixInputs;
    AVFilterInOut* pSt_Outputs;
    AVFilterInOut* pSt_Inputs;
    AVFrame* pSt_InFrame;
    AVFrame* pSt_OutFrame;
    std::vector<AVFILTER_AUDIOINFO> vec_AudioInfo;
};

// Frees what a record owns, but for the list entries of a mix.
void Release(AVFILTER_AUDIOFILTER& record);

// Describes a frame and gets its sample buffer, with undefined contents. False if there is none to be had.
bool GetBlock(AVFrame& st_Frame, const AVFILTER_AUDIO_INFO& st_Info);

class CAVFilter_Audio
{
  public:
    bool AVFilter_Audio_Init(unsigned long long* phHandle, const char* szFilterDescr,
                             AVFILTER_AUDIO_INFO* pInfo);
    bool AVFilter_Audio_Cvt(unsigned long long hHandle, unsigned char* pIn, int nInLen, unsigned char* pOut,
                            int* pnOutLen);
    bool AVFilter_Audio_Destroy(unsigned long long hHandle);

    bool AVFilter_Audio_MIXInit(unsigned long long* phHandle, AVFILTER_AUDIO_INFO*** pppInfo,
                                int nInputCount, const char* szOutName, const char* szFilterDescr);
    bool AVFilter_Audio_MIXSend(unsigned long long hHandle, int nInputId, unsigned char* pData,
                                int nDataSize);
    bool AVFilter_Audio_MIXRecv(unsigned long long hHandle, unsigned char* pOutBuffer, int* pnOutSize);
    bool AVFilter_Audio_MIXDestroy(unsigned long long hHandle);

  private:
    common::FamilyLock m_Mutex;
    common::HandleMap<AVFILTER_AUDIOFILTER> m_mapAudioFilter{m_Mutex};
};
