// Audio filter graphs: single-stream and mixing handles in one map.
#pragma once

#include "frame/ffmpeg.h"
#include "frame/registry.h"

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

// Describes a frame that is about to get its sample buffer.
void DescribeAudioFrame(AVFrame& st_Frame, const AVFILTER_AUDIO_INFO& st_Info);

class CAVFilter_Audio
{
  public:
    CAVFilter_Audio() noexcept { frame::PreferWriters(m_Mutex); }

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
    std::shared_mutex m_Mutex;
    frame::HandleMap<AVFILTER_AUDIOFILTER> m_mapAudioFilter;
    frame::WriterGate m_WriterGate;
};
