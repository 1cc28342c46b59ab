// The exported functions: each forwards to the method of its name.

#include "api/error.h"
#include "audio/audio.h"
#include "scale/video_scale.h"
#include "video/video.h"

#include <cerrno>

unsigned long long AVFilter_GetLastError(int* pnSysError)
{
    if (pnSysError != nullptr) {
        *pnSysError = errno;
    }
    return std::atomic_ref(AVFilter_dwErrorCode).load(std::memory_order_relaxed);
}

bool AVFilter_Audio_Init(unsigned long long* phHandle, const char* szFilterDescr,
                         AVFILTER_AUDIO_INFO* pInfo)
{
    return m_FilterAudio.AVFilter_Audio_Init(phHandle, szFilterDescr, pInfo);
}

bool AVFilter_Audio_Cvt(unsigned long long hHandle, unsigned char* pIn, int nInLen, unsigned char* pOut,
                        int* pnOutLen)
{
    return m_FilterAudio.AVFilter_Audio_Cvt(hHandle, pIn, nInLen, pOut, pnOutLen);
}

bool AVFilter_Audio_Destroy(unsigned long long hHandle)
{
    return m_FilterAudio.AVFilter_Audio_Destroy(hHandle);
}

bool AVFilter_Audio_MIXInit(unsigned long long* phHandle, AVFILTER_AUDIO_INFO*** pppInfo, int nInputCount,
                            const char* szOutName, const char* szFilterDescr)
{
    return m_FilterAudio.AVFilter_Audio_MIXInit(phHandle, pppInfo, nInputCount, szOutName, szFilterDescr);
}

bool AVFilter_Audio_MIXSend(unsigned long long hHandle, int nInputId, unsigned char* pData, int nDataSize)
{
    return m_FilterAudio.AVFilter_Audio_MIXSend(hHandle, nInputId, pData, nDataSize);
}

bool AVFilter_Audio_MIXRecv(unsigned long long hHandle, unsigned char* pOutBuffer, int* pnOutSize)
{
    return m_FilterAudio.AVFilter_Audio_MIXRecv(hHandle, pOutBuffer, pnOutSize);
}

bool AVFilter_Audio_MIXDestroy(unsigned long long hHandle)
{
    return m_FilterAudio.AVFilter_Audio_MIXDestroy(hHandle);
}

bool AVFilter_Video_Init(unsigned long long* phHandle, const char* szFilterDescr,
                         AVFILTER_VIDEO_INFO* pInfo)
{
    return m_FilterVideo.AVFilter_Video_Init(phHandle, szFilterDescr, pInfo);
}

bool AVFilter_Video_Cvt(unsigned long long hHandle, unsigned char* pY, unsigned char* pU, unsigned char* pV,
                        int nYSize, int nUSize, int nVSize, unsigned char* pOut, int* pnOutLen)
{
    return m_FilterVideo.AVFilter_Video_Cvt(hHandle, pY, pU, pV, nYSize, nUSize, nVSize, pOut, pnOutLen);
}

bool AVFilter_Video_Destroy(unsigned long long hHandle)
{
    return m_FilterVideo.AVFilter_Video_Destroy(hHandle);
}

bool AVFilter_Video_MIXInit(unsigned long long* phHandle, AVFILTER_VIDEO_INFO*** pppInfo, int nInputCount,
                            const char* szOutName, const char* szFilterDescr)
{
    return m_FilterVideo.AVFilter_Video_MIXInit(phHandle, pppInfo, nInputCount, szOutName, szFilterDescr);
}

bool AVFilter_Video_MIXSend(unsigned long long hHandle, int nInputId, unsigned char* pY, unsigned char* pU,
                            unsigned char* pV, int nYSize, int nUSize, int nVSize)
{
    return m_FilterVideo.AVFilter_Video_MIXSend(hHandle, nInputId, pY, pU, pV, nYSize, nUSize, nVSize);
}

bool AVFilter_Video_MIXRecv(unsigned long long hHandle, unsigned char* pOutBuffer, int* pnOutSize)
{
    return m_FilterVideo.AVFilter_Video_MIXRecv(hHandle, pOutBuffer, pnOutSize);
}

bool AVFilter_Video_MIXDestroy(unsigned long long hHandle)
{
    return m_FilterVideo.AVFilter_Video_MIXDestroy(hHandle);
}

bool AVFilter_VideoScale_Init(unsigned long long* phHandle)
{
    return m_VideoScale.AVFilter_VideoScale_Init(phHandle);
}

bool AVFilter_VideoScale_Set(unsigned long long hHandle, int nSrcFormat, int nSrcWidth, int nSrcHeight,
                             int nDstFormat, int nDstWidth, int nDstHeight)
{
    return m_VideoScale.AVFilter_VideoScale_Set(hHandle, nSrcFormat, nSrcWidth, nSrcHeight, nDstFormat,
                                                nDstWidth, nDstHeight);
}

bool AVFilter_VideoScale_Fmt(unsigned long long hHandle, const char* pSrc, unsigned char* pOut,
                             int* pnOutLen)
{
    return m_VideoScale.AVFilter_VideoScale_Fmt(hHandle, pSrc, pOut, pnOutLen);
}

bool AVFilter_VideoScale_Destory(unsigned long long hHandle)
{
    return m_VideoScale.AVFilter_VideoScale_Destory(hHandle);
}
