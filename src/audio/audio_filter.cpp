#include "audio.h"

#include "api/error.h"
#include "common/graph.h"

#include <cstdint>
#include <cstring>

using api::ClearError;
using api::ErrorCode;
using api::Fail;
using api::FailWithoutFlag;

void Release(AVFILTER_AUDIOFILTER& record)
{
    avfilter_free(record.pSt_BufferSrcCtx);
    avfilter_free(record.pSt_BufferSinkCtx);
    avfilter_inout_free(&record.pSt_Outputs);
    avfilter_inout_free(&record.pSt_Inputs);
    av_frame_free(&record.pSt_InFrame);
    av_frame_free(&record.pSt_OutFrame);
    avfilter_graph_free(&record.pSt_FilterGraph);
    record.vec_AudioInfo.clear();
}

// FFmpeg's filters work in place on whole vector registers, up to 127 bytes past the end of a block that is no
// multiple of them: the buffer is made for some samples more than the block has, and says nothing of them.
bool GetBlock(AVFrame& st_Frame, const AVFILTER_AUDIO_INFO& st_Info)
{
    constexpr int kSpareSamples = 128;
    constexpr std::int64_t kLargest = 1 << 30; // bytes; FFmpeg refuses blocks beyond INT_MAX
    const bool bSpare = st_Info.nNbSamples > 0 && st_Info.nChannels > 0 &&
                        std::int64_t{8} * st_Info.nNbSamples < kLargest / st_Info.nChannels;

    st_Frame.sample_rate = st_Info.nSampleRate;
    st_Frame.format = st_Info.nSampleFormat;
    st_Frame.nb_samples = st_Info.nNbSamples + (bSpare ? kSpareSamples : 0);
    av_channel_layout_default(&st_Frame.ch_layout, st_Info.nChannels);
    if (av_frame_get_buffer(&st_Frame, 1) < 0) {
        return false;
    }
    // What a filter passes on unchanged tells its number of bytes by the line size.
    st_Frame.linesize[0] = st_Frame.linesize[0] / st_Frame.nb_samples * st_Info.nNbSamples;
    st_Frame.nb_samples = st_Info.nNbSamples;
    return true;
}

bool CAVFilter_Audio::AVFilter_Audio_Init(unsigned long long* phHandle, const char* szFilterDescr,
                                          AVFILTER_AUDIO_INFO* pInfo)
{
    ClearError();
    if (phHandle == nullptr || szFilterDescr == nullptr || pInfo == nullptr) {
        return Fail(AVFILTER_ERROR_AUDIO_INVALID_PARAM);
    }

    // Where FFmpeg refuses the graph, what was built so far stays allocated: part of the interface.
    AVFILTER_AUDIOFILTER record{};
    record.pSt_FilterGraph = common::NewGraph();
    record.pSt_Outputs = avfilter_inout_alloc();
    record.pSt_Inputs = avfilter_inout_alloc();
    if (record.pSt_FilterGraph == nullptr) {
        return Fail(AVFILTER_ERROR_AUDIO_ALLOC);
    }
    if (record.pSt_Outputs == nullptr || record.pSt_Inputs == nullptr) {
        Release(record);
        return Fail(AVFILTER_ERROR_AUDIO_ALLOC);
    }
    const common::End source{"in", &record.pSt_BufferSrcCtx, &record.pSt_Outputs, pInfo};
    const common::End sink{"out", &record.pSt_BufferSinkCtx, &record.pSt_Inputs, {}};
    const ErrorCode code =
        common::Build(common::kAudio, record.pSt_FilterGraph, {&source, 1}, sink, szFilterDescr);
    if (code != api::kNoError) {
        return Fail(code);
    }

    record.pSt_InFrame = av_frame_alloc();
    record.pSt_OutFrame = av_frame_alloc();
    if (record.pSt_InFrame == nullptr || record.pSt_OutFrame == nullptr) {
        Release(record);
        return Fail(AVFILTER_ERROR_AUDIO_ALLOC);
    }
    record.vec_AudioInfo.push_back({*pInfo, nullptr, nullptr});

    m_mapAudioFilter.Register(phHandle, record);
    return true;
}

bool CAVFilter_Audio::AVFilter_Audio_Cvt(unsigned long long hHandle, unsigned char* pIn, int /*nInLen*/,
                                         unsigned char* pOut, int* pnOutLen)
{
    ClearError();
    if (pIn == nullptr || pOut == nullptr || pnOutLen == nullptr) {
        return Fail(AVFILTER_ERROR_AUDIO_INVALID_PARAM);
    }
    const std::shared_lock lock(m_Mutex);
    AVFILTER_AUDIOFILTER* pRecord = m_mapAudioFilter.Find(hHandle);
    // A mix is in the same map, without the frames of a single stream.
    if (pRecord == nullptr || pRecord->pSt_InFrame == nullptr) {
        return Fail(AVFILTER_ERROR_AUDIO_NOT_FOUND);
    }
    AVFrame* pSt_In = pRecord->pSt_InFrame;
    AVFrame* pSt_Out = pRecord->pSt_OutFrame;

    // The block sent is the new buffer as it comes: callers use this call for graphs that make their own
    // sound. Their samples are not read.
    if (!GetBlock(*pSt_In, pRecord->vec_AudioInfo.front().st_AudioInfo)) {
        return FailWithoutFlag(AVFILTER_ERROR_AUDIO_FRAME_BUFFER);
    }
    if (!common::SendFrame(pRecord->pSt_BufferSrcCtx, pSt_In)) {
        av_frame_unref(pSt_In);
        return Fail(AVFILTER_ERROR_AUDIO_SEND_FRAME);
    }
    // The source has moved the buffers out, so the frame is empty here.
    if (av_buffersink_get_frame(pRecord->pSt_BufferSinkCtx, pSt_Out) < 0) {
        return Fail(AVFILTER_ERROR_AUDIO_RECEIVE_FRAME);
    }

    const int nPlanes = av_sample_fmt_is_planar(static_cast<AVSampleFormat>(pSt_Out->format)) != 0
                            ? pSt_Out->ch_layout.nb_channels
                            : 1;
    if (nPlanes > AV_NUM_DATA_POINTERS) {
        av_frame_unref(pSt_Out);
        return Fail(AVFILTER_ERROR_AUDIO_RECEIVE_FRAME);
    }
    // FFmpeg sets the line size of plane 0 alone, so the other planes add nothing.
    int nCount = 0;
    for (int i = 0; i < nPlanes; ++i) {
        if (pSt_Out->linesize[i] > 0) {
            std::memcpy(pOut + nCount, pSt_Out->data[i], static_cast<std::size_t>(pSt_Out->linesize[i]));
            nCount += pSt_Out->linesize[i];
        }
    }
    av_frame_unref(pSt_Out);
    *pnOutLen = nCount;
    return true;
}

bool CAVFilter_Audio::AVFilter_Audio_Destroy(unsigned long long hHandle)
{
    return m_mapAudioFilter.Destroy(hHandle);
}
