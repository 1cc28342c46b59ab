#include "video_scale.h"

#include "api/error.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

using api::ClearError;
using api::Fail;

namespace
{

// swscale's vector code reads up to 32 bytes past the end of a tight source, and what it reads there
// can reach the picture: the spare bytes are zeroed, so that they do not differ from call to call.
constexpr std::size_t kSourceSlack = 64;

// Rows and planes of the padded picture start at multiples of this, and as many bytes follow it.
constexpr int kPaddedAlignment = 64;

void FreePicture(std::uint8_t* (&pu8_Data)[4])
{
    av_freep(&pu8_Data[0]);
    pu8_Data[1] = pu8_Data[2] = pu8_Data[3] = nullptr;
}

// A tight picture as av_image_alloc lays it out, with slack behind it. Unlike that function it also
// makes PAL8 pictures, whose palette may start at any address here. Null planes on failure.
void AllocSource(AVFILTER_VIDEOSCALE& record)
{
    const auto format = static_cast<AVPixelFormat>(record.nSrcFormat);
    const int nSize = av_image_get_buffer_size(format, record.nSrcWidth, record.nSrcHeight, 1);
    record.nSrcBufferSize = nSize;
    if (nSize <= 0) {
        return;
    }
    const std::size_t nBlock = static_cast<std::size_t>(nSize) + kSourceSlack;
    auto* pu8_Block = static_cast<std::uint8_t*>(av_malloc(nBlock));
    if (pu8_Block == nullptr) {
        return;
    }
    std::memset(pu8_Block, 0, nBlock);
    if (av_image_fill_arrays(record.pu8_SrcData, record.nSrcLinesize, pu8_Block, format, record.nSrcWidth,
                             record.nSrcHeight, 1) < 0) {
        av_free(pu8_Block);
        std::memset(record.pu8_SrcData, 0, sizeof(record.pu8_SrcData));
    }
}

// Null planes on failure. Some converters leave bytes of the picture unwritten: zeroes, then, rather
// than what was in memory.
void AllocDestination(const AVFILTER_VIDEOSCALE& record, std::uint8_t* (&pu8_Data)[4], int (&nLinesize)[4],
                      int nAlignment)
{
    const auto format = static_cast<AVPixelFormat>(record.nDstFormat);
    const int nWidth = nAlignment > 1 ? common::PaddedWidth(format, record.nDstWidth) : record.nDstWidth;
    const int nSize = av_image_alloc(pu8_Data, nLinesize, nWidth, record.nDstHeight, format, nAlignment);
    if (nSize < 0) {
        // FFmpeg may leave pointers to what it has freed.
        std::memset(pu8_Data, 0, sizeof(pu8_Data));
        return;
    }
    std::memset(pu8_Data[0], 0, static_cast<std::size_t>(nSize));
}

// swscale aborts the process on a number that is no pixel format. FFmpeg's libraries may know more formats
// than the headers that this was built with.
bool IsPixelFormat(int nFormat)
{
    return nFormat >= 0 && (nFormat < AV_PIX_FMT_NB ||
                            av_image_get_buffer_size(static_cast<AVPixelFormat>(nFormat), 1, 1, 1) > 0);
}

// swscale's vector code stores whole registers and works on groups of 8 or 16 pixels. With tight rows
// it faults on unaligned ones, leaves the last columns unwritten or writes past the end of the block,
// depending on the pair of formats. Checked over all pairs that FFmpeg 5.1 converts: sound where all rows are multiples
// of 16 bytes and the width is a multiple of 16 pixels. Where it is sound the pictures are the same.
bool NeedsPadding(const AVFILTER_VIDEOSCALE& record)
{
    for (const int nLinesize : record.nDstLinesize) {
        if (nLinesize % 16 != 0) {
            return true;
        }
    }
    return record.nDstWidth % 16 != 0;
}

// swscale makes contexts for Bayer pictures of a single row; converting one then fails, or aborts the process
// (seen in FFmpeg 6.1).
bool IsBayerRow(const AVFILTER_VIDEOSCALE& record)
{
    return record.nSrcHeight == 1 && record.nSrcFormat >= AV_PIX_FMT_BAYER_BGGR8 &&
           record.nSrcFormat <= AV_PIX_FMT_BAYER_GRBG16BE;
}

bool IsReady(const AVFILTER_VIDEOSCALE& record)
{
    return !IsBayerRow(record) && record.pSt_SwsContext != nullptr && record.pu8_SrcData[0] != nullptr &&
           record.pu8_DstData[0] != nullptr && record.nDstBufferSize > 0 &&
           (record.pu8_PaddedData[0] != nullptr || !NeedsPadding(record));
}

// How many bytes at the start of the destination are the source's own. Some converters, NV12's among them,
// do not copy all planes between equal formats.
std::size_t CopiedSize(const AVFILTER_VIDEOSCALE& record)
{
    const bool bCopy = record.nSrcFormat == record.nDstFormat ||
                       common::CopiesHalfRows(static_cast<AVPixelFormat>(record.nSrcFormat),
                                              static_cast<AVPixelFormat>(record.nDstFormat));
    if (!bCopy || record.nSrcWidth != record.nDstWidth || record.nSrcHeight != record.nDstHeight) {
        return 0;
    }
    return static_cast<std::size_t>(std::min(record.nSrcBufferSize, record.nDstBufferSize));
}

// Writes the padded picture's rows without their padding. The tight picture, which the planes of a
// format fill without gaps, tells the number of rows.
void PackRows(const AVFILTER_VIDEOSCALE& record, unsigned char* pOut)
{
    const std::uint8_t* pu8_End = record.pu8_DstData[0] + record.nDstBufferSize;
    for (int i = 0; i < 4 && record.pu8_DstData[i] != nullptr; ++i) {
        const std::uint8_t* pu8_Next =
            i < 3 && record.pu8_DstData[i + 1] != nullptr ? record.pu8_DstData[i + 1] : pu8_End;
        const int nRow = record.nDstLinesize[i];
        const std::uint8_t* pu8_Row = record.pu8_PaddedData[i];
        for (std::ptrdiff_t n = pu8_Next - record.pu8_DstData[i]; n > 0; n -= nRow) {
            std::memcpy(pOut, pu8_Row, static_cast<std::size_t>(nRow));
            pOut += nRow;
            pu8_Row += record.nPaddedLinesize[i];
        }
    }
}

} // namespace

void Release(AVFILTER_VIDEOSCALE& record)
{
    FreePicture(record.pu8_SrcData);
    FreePicture(record.pu8_DstData);
    FreePicture(record.pu8_PaddedData);
    sws_freeContext(record.pSt_SwsContext);
    record.pSt_SwsContext = nullptr;
}

bool CAVFilter_VideoScale::AVFilter_VideoScale_Init(unsigned long long* phHandle)
{
    ClearError();
    if (phHandle == nullptr) {
        return Fail(AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    }
    m_mapVideoScale.Register(phHandle, {});
    return true;
}

bool CAVFilter_VideoScale::AVFilter_VideoScale_Set(unsigned long long hHandle, int nSrcFormat,
                                                   int nSrcWidth, int nSrcHeight, int nDstFormat,
                                                   int nDstWidth, int nDstHeight)
{
    ClearError();
    const std::lock_guard lock(m_Mutex);
    AVFILTER_VIDEOSCALE* pRecord = m_mapVideoScale.Find(hHandle);
    if (pRecord == nullptr) {
        return Fail(AVFILTER_ERROR_VIDEO_NOT_FOUND);
    }
    AVFILTER_VIDEOSCALE& record = *pRecord;
    record.nSrcFormat = nSrcFormat;
    record.nSrcWidth = nSrcWidth;
    record.nSrcHeight = nSrcHeight;
    record.nDstFormat = nDstFormat;
    record.nDstWidth = nDstWidth;
    record.nDstHeight = nDstHeight;
    Release(record);

    if (!IsPixelFormat(nSrcFormat) || !IsPixelFormat(nDstFormat)) {
        return Fail(AVFILTER_ERROR_VIDEO_PARSE_GRAPH);
    }
    record.pSt_SwsContext =
        sws_getContext(nSrcWidth, nSrcHeight, static_cast<AVPixelFormat>(nSrcFormat), nDstWidth, nDstHeight,
                       static_cast<AVPixelFormat>(nDstFormat), SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (record.pSt_SwsContext == nullptr) {
        return Fail(AVFILTER_ERROR_VIDEO_PARSE_GRAPH);
    }
    // A picture that cannot be had is reported by the conversion.
    AllocSource(record);
    AllocDestination(record, record.pu8_DstData, record.nDstLinesize, 1);
    record.nDstBufferSize =
        av_image_get_buffer_size(static_cast<AVPixelFormat>(nDstFormat), nDstWidth, nDstHeight, 1);
    if (record.pu8_DstData[0] != nullptr && NeedsPadding(record)) {
        AllocDestination(record, record.pu8_PaddedData, record.nPaddedLinesize, kPaddedAlignment);
    }
    return true;
}

bool CAVFilter_VideoScale::AVFilter_VideoScale_Fmt(unsigned long long hHandle, const char* pSrc,
                                                   unsigned char* pOut, int* pnOutLen)
{
    ClearError();
    const std::shared_lock lock(m_Mutex);
    AVFILTER_VIDEOSCALE* pRecord = m_mapVideoScale.Find(hHandle);
    if (pRecord == nullptr) {
        return Fail(AVFILTER_ERROR_VIDEO_NOT_FOUND);
    }
    AVFILTER_VIDEOSCALE& record = *pRecord;
    if (!IsReady(record)) {
        return Fail(AVFILTER_ERROR_VIDEO_SCALE);
    }
    if (pSrc == nullptr) {
        return Fail(AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    }

    std::memcpy(record.pu8_SrcData[0], pSrc, static_cast<std::size_t>(record.nSrcBufferSize));
    const bool bPadded = record.pu8_PaddedData[0] != nullptr;
    if (sws_scale(record.pSt_SwsContext, record.pu8_SrcData, record.nSrcLinesize, 0, record.nSrcHeight,
                  bPadded ? record.pu8_PaddedData : record.pu8_DstData,
                  bPadded ? record.nPaddedLinesize : record.nDstLinesize) <= 0) {
        return Fail(AVFILTER_ERROR_VIDEO_SCALE);
    }

    if (pnOutLen == nullptr) {
        return Fail(AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    }
    if (*pnOutLen < record.nDstBufferSize) {
        *pnOutLen = record.nDstBufferSize;
        return Fail(AVFILTER_ERROR_VIDEO_BUFFER_TOO_SMALL);
    }
    if (pOut == nullptr) {
        return Fail(AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    }
    *pnOutLen = record.nDstBufferSize;
    const auto nSize = static_cast<std::size_t>(record.nDstBufferSize);
    const std::size_t nCopied = CopiedSize(record);
    if (nCopied < nSize) {
        if (bPadded) {
            PackRows(record, pOut);
        } else {
            std::memcpy(pOut, record.pu8_DstData[0], nSize);
        }
    }
    std::memcpy(pOut, record.pu8_SrcData[0], nCopied);
    return true;
}

bool CAVFilter_VideoScale::AVFilter_VideoScale_Destory(unsigned long long hHandle)
{
    return m_mapVideoScale.Destroy(hHandle);
}
