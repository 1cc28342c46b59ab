// Video filter graphs: single-stream and mixing handles, each kind in a map of its own.
#pragma once

#include "common/ffmpeg.h"
#include "common/registry.h"

#include "Telvane_AVFilter.h"

#include <cstddef>
#include <cstdint>
#include <vector>

// A single-stream graph. Like the other records it owns its FFmpeg objects through plain pointers
// and frees none of them itself.
struct AVCODEC_VIDEOINFO {
    AVFilterInOut* pSt_Outputs;
    AVFilterInOut* pSt_Inputs;
    AVFilterGraph* pSt_FilterGraph;
    AVFilterContext* pSt_BufferSrcCtx;
    AVFilterContext* pSt_BufferSinkCtx;
    AVFrame* pSt_InFrame;
    AVFrame* pSt_OutFrame;
    std::uint8_t* pu8_InBuffer;
    std::uint8_t* pu8_OutBuffer;
    std::size_t nInBufferSize; // bytes at pu8_InBuffer
};

// One input of a mix.
struct AVCODEC_VIDEOFILTE {
    AVFILTER_VIDEO_INFO st_VideoInfo;
    int n_Pts; // the timestamp that the next accepted picture gets
    AVFilterInOut* pSt_Outputs;
    AVFilterContext* pSt_BufferSrcCtx;
};

struct AVCODEC_VIDEOMIXFILTER {
    AVFilterGraph* pSt_FilterGraph;
    AVFilterContext* pSt_BufferSinkCtx;
    AVFilterInOut* pSt_Inputs;
    std::vector<AVCODEC_VIDEOFILTE> vec_Filters;
    // A picture that was taken out of the sink for a call which had nowhere to put it.
    AVFrame* pSt_Pending;
};

// Free what a record owns. A graph takes its filters with it.
void Release(AVCODEC_VIDEOINFO& record);
void Release(AVCODEC_VIDEOMIXFILTER& record); // with whatever the parser left in the lists

class CAVFilter_Video
{
  public:
    bool AVFilter_Video_Init(unsigned long long* phHandle, const char* szFilterDescr,
                             AVFILTER_VIDEO_INFO* pInfo);
    bool AVFilter_Video_Cvt(unsigned long long hHandle, unsigned char* pY, unsigned char* pU,
                            unsigned char* pV, int nYSize, int nUSize, int nVSize, unsigned char* pOut,
                            int* pnOutLen);
    bool AVFilter_Video_Destroy(unsigned long long hHandle);

    bool AVFilter_Video_MIXInit(unsigned long long* phHandle, AVFILTER_VIDEO_INFO*** pppInfo,
                                int nInputCount, const char* szOutName, const char* szFilterDescr);
    bool AVFilter_Video_MIXSend(unsigned long long hHandle, int nInputId, unsigned char* pY,
                                unsigned char* pU, unsigned char* pV, int nYSize, int nUSize, int nVSize);
    bool AVFilter_Video_MIXRecv(unsigned long long hHandle, unsigned char* pOutBuffer, int* pnOutSize);
    bool AVFilter_Video_MIXDestroy(unsigned long long hHandle);

  private:
    common::FamilyLock m_Mutex;
    common::HandleMap<AVCODEC_VIDEOMIXFILTER> m_mapVideoMixFilter{m_Mutex};
    common::HandleMap<AVCODEC_VIDEOINFO> m_mapVideoFilter{m_Mutex};
};
