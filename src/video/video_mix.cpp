#include "video.h"

#include "picture.h"

#include "api/error.h"
#include "common/graph.h"

#include <utility>

using api::ClearError;
using api::ErrorCode;
using api::Fail;

void Release(AVCODEC_VIDEOMIXFILTER& record)
{
    avfilter_graph_free(&record.pSt_FilterGraph);
    common::FreeMixEntries(record.vec_Filters, &record.pSt_Inputs);
    av_frame_free(&record.pSt_Pending);
    record.vec_Filters.clear();
}

bool CAVFilter_Video::AVFilter_Video_MIXInit(unsigned long long* phHandle, AVFILTER_VIDEO_INFO*** pppInfo,
                                             int nInputCount, const char* szOutName,
                                             const char* szFilterDescr)
{
    ClearError();
    if (nInputCount < 1) {
        return Fail(AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    }
    AVCODEC_VIDEOMIXFILTER record{};
    common::UnlessRegistered partlyBuilt(record);
    record.pSt_FilterGraph = common::NewGraph();
    if (record.pSt_FilterGraph == nullptr) {
        // Not the allocation code: callers know this failure by the code of a bad argument.
        return Fail(AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    }
    const std::vector<common::End> sources =
        common::MixSources(record.vec_Filters, &AVCODEC_VIDEOFILTE::st_VideoInfo, pppInfo, nInputCount);
    const common::End sink{szOutName, &record.pSt_BufferSinkCtx, &record.pSt_Inputs, {}};
    ErrorCode code = common::Build(common::kVideo, record.pSt_FilterGraph, sources, sink, szFilterDescr);
    if (code == api::kNoError && phHandle == nullptr) {
        code = AVFILTER_ERROR_VIDEO_INVALID_PARAM;
    }
    if (code != api::kNoError) {
        return Fail(code);
    }
    m_mapVideoMixFilter.Register(phHandle, record);
    partlyBuilt.Keep();
    return true;
}

bool CAVFilter_Video::AVFilter_Video_MIXSend(unsigned long long hHandle, int nInputId, unsigned char* pY,
                                             unsigned char* pU, unsigned char* pV, int nYSize, int nUSize,
                                             int nVSize)
{
    ClearError();
    if (pY == nullptr) {
        return Fail(AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    }
    const std::shared_lock lock(m_Mutex);
    AVCODEC_VIDEOMIXFILTER* pRecord = m_mapVideoMixFilter.Find(hHandle);
    AVCODEC_VIDEOFILTE* pInput =
        pRecord == nullptr
            ? nullptr
            : common::FindInput(pRecord->vec_Filters, &AVCODEC_VIDEOFILTE::st_VideoInfo, nInputId);
    if (pInput == nullptr) {
        return Fail(AVFILTER_ERROR_VIDEO_NOT_FOUND);
    }

    const common::UniqueFrame frame(av_frame_alloc());
    if (!frame) {
        return Fail(AVFILTER_ERROR_VIDEO_ALLOC);
    }
    frame->width = pInput->st_VideoInfo.nWidth;
    frame->height = pInput->st_VideoInfo.nHeight;
    frame->format = pInput->st_VideoInfo.nPixelFormat;
    // Not tested: FFmpeg empties a frame that it has no memory for, and both CopyPlanes and IsSendable refuse that.
    av_frame_get_buffer(frame.get(), 1);

    const video::InputPicture st_Picture{{pY, pU, pV}, {nYSize, nUSize, nVSize}};
    if (st_Picture.IsWhole()) {
        video::PointAtWhole(*frame, pY);
    } else {
        const AVBufferRef* pSt_Buffer = frame->buf[0];
        const video::Block block =
            pSt_Buffer == nullptr ? video::Block{} : video::Block{pSt_Buffer->data, pSt_Buffer->size};
        const ErrorCode code = video::CopyPlanes(*frame, st_Picture, block);
        if (code != api::kNoError) {
            return Fail(code);
        }
    }
    frame->pts = pInput->n_Pts;
    if (!video::IsSendable(*frame) || !common::SendFrame(pInput->pSt_BufferSrcCtx, frame.get())) {
        return Fail(AVFILTER_ERROR_VIDEO_SEND_FRAME);
    }
    pInput->n_Pts = static_cast<int>(static_cast<unsigned>(pInput->n_Pts) + 1U);
    return true;
}

bool CAVFilter_Video::AVFilter_Video_MIXRecv(unsigned long long hHandle, unsigned char* pOutBuffer,
                                             int* pnOutSize)
{
    ClearError();
    const std::shared_lock lock(m_Mutex);
    AVCODEC_VIDEOMIXFILTER* pRecord = m_mapVideoMixFilter.Find(hHandle);
    if (pRecord == nullptr) {
        return Fail(AVFILTER_ERROR_VIDEO_NOT_FOUND);
    }
    common::UniqueFrame frame(std::exchange(pRecord->pSt_Pending, nullptr));
    if (!frame) {
        frame.reset(av_frame_alloc());
        if (!frame) {
            return Fail(AVFILTER_ERROR_VIDEO_ALLOC);
        }
        if (av_buffersink_get_frame(pRecord->pSt_BufferSinkCtx, frame.get()) < 0) {
            return Fail(AVFILTER_ERROR_VIDEO_RECEIVE_FRAME);
        }
    }
    if (pOutBuffer == nullptr || pnOutSize == nullptr) {
        pRecord->pSt_Pending = frame.release();
        return Fail(AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    }
    const int nSize = video::PackPicture(*frame, pOutBuffer);
    if (nSize < 0) {
        return Fail(AVFILTER_ERROR_VIDEO_RECEIVE_FRAME);
    }
    *pnOutSize = nSize;
    return true;
}

bool CAVFilter_Video::AVFilter_Video_MIXDestroy(unsigned long long hHandle)
{
    return m_mapVideoMixFilter.Destroy(hHandle);
}
