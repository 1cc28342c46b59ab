#include "video.h"

#include "picture.h"

#include "api/error.h"
#include "common/graph.h"

#include <algorithm>
#include <iterator>

using api::ClearError;
using api::ErrorCode;
using api::Fail;

void Release(AVCODEC_VIDEOINFO& record)
{
    avfilter_inout_free(&record.pSt_Outputs);
    avfilter_inout_free(&record.pSt_Inputs);
    avfilter_graph_free(&record.pSt_FilterGraph);
    av_frame_free(&record.pSt_InFrame);
    av_frame_free(&record.pSt_OutFrame);
    av_freep(&record.pu8_InBuffer);
    av_freep(&record.pu8_OutBuffer);
}

namespace
{

// A frame over a tight picture buffer of its own. A format that has no such picture, or no memory
// for it, leaves the planes null: whole pictures can be sent all the same.
AVFrame* NewPicture(const AVFILTER_VIDEO_INFO& st_Info, std::uint8_t** ppu8_Buffer, std::size_t* pnSize)
{
    const auto format = static_cast<AVPixelFormat>(st_Info.nPixelFormat);
    AVFrame* pSt_Frame = av_frame_alloc();
    const int nSize = av_image_get_buffer_size(format, st_Info.nWidth, st_Info.nHeight, 1);
    *pnSize = nSize > 0 ? static_cast<std::size_t>(nSize) : 0;
    *ppu8_Buffer = *pnSize > 0 ? static_cast<std::uint8_t*>(av_malloc(*pnSize)) : nullptr;
    if (pSt_Frame != nullptr) {
        av_image_fill_arrays(pSt_Frame->data, pSt_Frame->linesize, *ppu8_Buffer, format, st_Info.nWidth,
                             st_Info.nHeight, 1);
    }
    if (pSt_Frame != nullptr && *ppu8_Buffer == nullptr) {
        // What has been set is the line sizes, and planes at offsets from nowhere.
        std::fill(std::begin(pSt_Frame->data), std::end(pSt_Frame->data), nullptr);
    }
    return pSt_Frame;
}

} // namespace

bool CAVFilter_Video::AVFilter_Video_Init(unsigned long long* phHandle, const char* szFilterDescr,
                                          AVFILTER_VIDEO_INFO* pInfo)
{
    ClearError();
    if (phHandle == nullptr || szFilterDescr == nullptr || pInfo == nullptr) {
        return Fail(AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    }

    AVCODEC_VIDEOINFO record{};
    common::UnlessRegistered partlyBuilt(record);
    record.pSt_Outputs = avfilter_inout_alloc();
    record.pSt_Inputs = avfilter_inout_alloc();
    record.pSt_FilterGraph = common::NewGraph();
    if (record.pSt_Outputs == nullptr || record.pSt_Inputs == nullptr ||
        record.pSt_FilterGraph == nullptr) {
        return Fail(AVFILTER_ERROR_VIDEO_ALLOC);
    }
    const common::End source{"in", &record.pSt_BufferSrcCtx, &record.pSt_Outputs, pInfo};
    const common::End sink{"out", &record.pSt_BufferSinkCtx, &record.pSt_Inputs, {}};
    const ErrorCode code =
        common::Build(common::kVideo, record.pSt_FilterGraph, {&source, 1}, sink, szFilterDescr);
    if (code != api::kNoError) {
        return Fail(code);
    }

    record.pSt_InFrame = NewPicture(*pInfo, &record.pu8_InBuffer, &record.nInBufferSize);
    // As large as the input, whatever the graph gives: conversions never write here, the sink brings its own.
    std::size_t nOutBufferSize = 0;
    record.pSt_OutFrame = NewPicture(*pInfo, &record.pu8_OutBuffer, &nOutBufferSize);
    if (record.pSt_InFrame == nullptr || record.pSt_OutFrame == nullptr) {
        return Fail(AVFILTER_ERROR_VIDEO_ALLOC);
    }
    record.pSt_InFrame->width = pInfo->nWidth;
    record.pSt_InFrame->height = pInfo->nHeight;
    record.pSt_InFrame->format = pInfo->nPixelFormat;

    m_mapVideoFilter.Register(phHandle, record);
    partlyBuilt.Keep();
    return true;
}

bool CAVFilter_Video::AVFilter_Video_Cvt(unsigned long long hHandle, unsigned char* pY, unsigned char* pU,
                                         unsigned char* pV, int nYSize, int nUSize, int nVSize,
                                         unsigned char* pOut, int* pnOutLen)
{
    ClearError();
    if (pY == nullptr || pOut == nullptr || pnOutLen == nullptr) {
        return Fail(AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    }
    const std::shared_lock lock(m_Mutex);
    AVCODEC_VIDEOINFO* pRecord = m_mapVideoFilter.Find(hHandle);
    if (pRecord == nullptr) {
        return Fail(AVFILTER_ERROR_VIDEO_NOT_FOUND);
    }

    const video::InputPicture st_Picture{{pY, pU, pV}, {nYSize, nUSize, nVSize}};
    if (st_Picture.IsWhole()) {
        // The planes stay where they point now, so a later call with separate planes copies into this
        // block: part of the interface.
        video::PointAtWhole(*pRecord->pSt_InFrame, pY);
    } else {
        const ErrorCode code = video::CopyPlanes(*pRecord->pSt_InFrame, st_Picture,
                                                 {pRecord->pu8_InBuffer, pRecord->nInBufferSize});
        if (code != api::kNoError) {
            return Fail(code);
        }
    }
    // The frame has no reference-counted buffers, so the source takes a copy and leaves it as it is.
    if (!video::IsSendable(*pRecord->pSt_InFrame) ||
        !common::SendFrame(pRecord->pSt_BufferSrcCtx, pRecord->pSt_InFrame)) {
        return Fail(AVFILTER_ERROR_VIDEO_SEND_FRAME);
    }
    AVFrame* pSt_Out = pRecord->pSt_OutFrame;
    if (av_buffersink_get_frame(pRecord->pSt_BufferSinkCtx, pSt_Out) < 0) {
        return Fail(AVFILTER_ERROR_VIDEO_RECEIVE_FRAME);
    }
    const int nSize = video::PackPicture(*pSt_Out, pOut);
    av_frame_unref(pSt_Out);
    if (nSize < 0) {
        return Fail(AVFILTER_ERROR_VIDEO_RECEIVE_FRAME);
    }
    *pnOutLen = nSize;
    return true;
}

bool CAVFilter_Video::AVFilter_Video_Destroy(unsigned long long hHandle)
{
    return m_mapVideoFilter.Destroy(hHandle);
}
