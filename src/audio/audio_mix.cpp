#include "audio.h"

#include "api/error.h"
#include "common/graph.h"

#include <cstring>

using api::ClearError;
using api::ErrorCode;
using api::Fail;
using api::FailWithoutFlag;

bool CAVFilter_Audio::AVFilter_Audio_MIXInit(unsigned long long* phHandle, AVFILTER_AUDIO_INFO*** pppInfo,
                                             int nInputCount, const char* szOutName,
                                             const char* szFilterDescr)
{
    ClearError();
    if (nInputCount < 1) {
        return Fail(AVFILTER_ERROR_AUDIO_INVALID_PARAM);
    }
    AVFILTER_AUDIOFILTER record{};
    record.pSt_FilterGraph = common::NewGraph();
    if (record.pSt_FilterGraph == nullptr) {
        // Not the allocation code: callers know this failure by the code of a bad argument.
        return Fail(AVFILTER_ERROR_AUDIO_INVALID_PARAM);
    }
    const std::vector<common::End> sources =
        common::MixSources(record.vec_AudioInfo, &AVFILTER_AUDIOINFO::st_AudioInfo, pppInfo, nInputCount);
    const common::End sink{szOutName, &record.pSt_BufferSinkCtx, &record.pSt_MixInputs, {}};
    ErrorCode code = common::Build(common::kAudio, record.pSt_FilterGraph, sources, sink, szFilterDescr);
    if (code == api::kNoError && phHandle == nullptr) {
        code = AVFILTER_ERROR_AUDIO_INVALID_PARAM;
    }
    if (code != api::kNoError) {
        // Where FFmpeg refuses the graph or has no memory for the sink's entry, what was built stays
        // allocated, as for single streams. Null arguments and a null entry of an input leave nothing.
        const bool bInputEntry = code == AVFILTER_ERROR_AUDIO_ALLOC && record.pSt_BufferSinkCtx == nullptr;
        if (code == AVFILTER_ERROR_AUDIO_INVALID_PARAM || bInputEntry) {
            common::FreeMixEntries(record.vec_AudioInfo, &record.pSt_MixInputs);
            avfilter_graph_free(&record.pSt_FilterGraph);
        }
        return Fail(code);
    }
    m_mapAudioFilter.Register(phHandle, record);
    return true;
}

bool CAVFilter_Audio::AVFilter_Audio_MIXSend(unsigned long long hHandle, int nInputId, unsigned char* pData,
                                             int nDataSize)
{
    ClearError();
    if (pData == nullptr) {
        return Fail(AVFILTER_ERROR_AUDIO_INVALID_PARAM);
    }
    const std::shared_lock lock(m_Mutex);
    AVFILTER_AUDIOFILTER* pRecord = m_mapAudioFilter.Find(hHandle);
    if (pRecord == nullptr) {
        return Fail(AVFILTER_ERROR_AUDIO_NOT_FOUND);
    }
    const AVFILTER_AUDIOINFO* pInput =
        common::FindInput(pRecord->vec_AudioInfo, &AVFILTER_AUDIOINFO::st_AudioInfo, nInputId);
    if (pInput == nullptr) {
        return FailWithoutFlag(AVFILTER_ERROR_AUDIO_NOT_FOUND);
    }

    common::UniqueFrame frame(av_frame_alloc());
    if (!frame) {
        return FailWithoutFlag(AVFILTER_ERROR_AUDIO_FRAME_BUFFER);
    }
    if (!GetBlock(*frame, pInput->st_AudioInfo)) {
        // The frame stays allocated on this path: part of the interface.
        static_cast<void>(frame.release());
        return FailWithoutFlag(AVFILTER_ERROR_AUDIO_FRAME_BUFFER);
    }
    // A shorter block is let through, with the rest of the buffer as it came. FFmpeg 9's buffers are longer
    // than the block: its line size tells.
    if (nDataSize < 0 || nDataSize > frame->linesize[0]) {
        return Fail(AVFILTER_ERROR_AUDIO_INVALID_PARAM);
    }
    std::memcpy(frame->data[0], pData, static_cast<std::size_t>(nDataSize));

    // The only element of a single-stream handle has no source of its own.
    if (pInput->pSt_BufferSrcCtx == nullptr || !common::SendFrame(pInput->pSt_BufferSrcCtx, frame.get())) {
        return Fail(AVFILTER_ERROR_AUDIO_SEND_FRAME);
    }
    return true;
}

bool CAVFilter_Audio::AVFilter_Audio_MIXRecv(unsigned long long hHandle, unsigned char* pOutBuffer,
                                             int* pnOutSize)
{
    ClearError();
    if (pOutBuffer == nullptr || pnOutSize == nullptr) {
        return Fail(AVFILTER_ERROR_AUDIO_INVALID_PARAM);
    }
    const std::shared_lock lock(m_Mutex);
    AVFILTER_AUDIOFILTER* pRecord = m_mapAudioFilter.Find(hHandle);
    if (pRecord == nullptr) {
        return Fail(AVFILTER_ERROR_AUDIO_NOT_FOUND);
    }
    const common::UniqueFrame frame(av_frame_alloc());
    if (!frame) {
        return Fail(AVFILTER_ERROR_AUDIO_FRAME_BUFFER);
    }
    if (av_buffersink_get_frame(pRecord->pSt_BufferSinkCtx, frame.get()) < 0) {
        return Fail(AVFILTER_ERROR_AUDIO_RECEIVE_FRAME);
    }

    // The size counts all planes while the samples are taken from plane 0 alone: planar output of
    // several channels would be read past its end.
    const auto format = static_cast<AVSampleFormat>(frame->format);
    if (av_sample_fmt_is_planar(format) != 0 && frame->ch_layout.nb_channels > 1) {
        return Fail(AVFILTER_ERROR_AUDIO_RECEIVE_FRAME);
    }
    const int nSize =
        av_samples_get_buffer_size(nullptr, frame->ch_layout.nb_channels, frame->nb_samples, format, 1);
    if (nSize < 0 || !common::InBounds(*frame, frame->data[0], static_cast<std::size_t>(nSize))) {
        return Fail(AVFILTER_ERROR_AUDIO_RECEIVE_FRAME);
    }
    *pnOutSize = nSize;
    std::memcpy(pOutBuffer, frame->data[0], static_cast<std::size_t>(nSize));
    return true;
}

bool CAVFilter_Audio::AVFilter_Audio_MIXDestroy(unsigned long long hHandle)
{
    return AVFilter_Audio_Destroy(hHandle);
}
