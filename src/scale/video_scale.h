// Scalers: pictures between sizes and pixel formats.
#pragma once

#include "common/ffmpeg.h"
#include "common/registry.h"

#include "Telvane_AVFilter.h"

#include <cstdint>

// Owns two tight pictures, through entry 0 of their pointers, and the scaler. All zero or null until
// the first successful set-up.
struct AVFILTER_VIDEOSCALE {
    int nSrcFormat;
    int nDstFormat;
    int nSrcWidth;
    int nSrcHeight;
    int nDstWidth;
    int nDstHeight;
    int nSrcLinesize[4];
    int nDstLinesize[4];
    int nSrcBufferSize;
    int nDstBufferSize;
    std::uint8_t* pu8_SrcData[4];
    std::uint8_t* pu8_DstData[4];
    SwsContext* pSt_SwsContext;
    // A third picture with padded rows, only where swscale cannot be trusted with tight ones.
    int nPaddedLinesize[4];
    std::uint8_t* pu8_PaddedData[4];
};

// Frees the pictures and the scaler.
void Release(AVFILTER_VIDEOSCALE& record);

class CAVFilter_VideoScale
{
  public:
    bool AVFilter_VideoScale_Init(unsigned long long* phHandle);
    bool AVFilter_VideoScale_Set(unsigned long long hHandle, int nSrcFormat, int nSrcWidth, int nSrcHeight,
                                 int nDstFormat, int nDstWidth, int nDstHeight);
    bool AVFilter_VideoScale_Fmt(unsigned long long hHandle, const char* pSrc, unsigned char* pOut,
                                 int* pnOutLen);
    bool AVFilter_VideoScale_Destory(unsigned long long hHandle);

  private:
    common::FamilyLock m_Mutex;
    common::HandleMap<AVFILTER_VIDEOSCALE> m_mapVideoScale{m_Mutex};
};
