#include "audio.h"

#include "frame/error.h"
#include "frame/graph.h"

#include <cstring>

using frame::ClearError;
using frame::ErrorCode;
using frame::Fail;
using frame::FailWithoutFlag;

namespace
{

void FreeFilter(AVFilterContext*& pSt_Filter)
{
    if (pSt_Filter != nullptr) {
        avfilter_free(pSt_Filter);
        pSt_Filter = nullptr;
    }
}

// Frees what a record owns, but for the list entries of a mix: those are deliberately left alone.
void Release(AVFILTER_AUDIOFILTER& record)
{
    FreeFilter(record.pSt_BufferSrcCtx);
    FreeFilter(record.pSt_BufferSinkCtx);
    avfilter_inout_free(&record.pSt_Outputs);
    avfilter_inout_free(&record.pSt_Inputs);
    av_frame_free(&record.pSt_InFrame);
    av_frame_free(&record.pSt_OutFrame);
    avfilter_graph_free(&record.pSt_FilterGraph);
    record.vec_AudioInfo.clear();
}

} // namespace

void DescribeAudioFrame(AVFrame& st_Frame, const AVFILTER_AUDIO_INFO& st_Info)
{
    st_Frame.sample_rate = st_Info.nSampleRate;
    st_Frame.format = st_Info.nSampleFormat;
    st_Frame.nb_samples = st_Info.nNbSamples;
    av_channel_layout_default(&st_Frame.ch_layout, st_Info.nChannels);
}

bool CAVFilter_Audio::AVFilter_Audio_Init(unsigned long long* phHandle, const char* szFilterDescr,
                                          AVFILTER_AUDIO_INFO* pInfo)
{
    ClearError();
    if (phHandle == nullptr || szFilterDescr == nullptr || pInfo == nullptr) {
        return Fail(AVFILTER_ERROR_AUDIO_INVALID_PARAM);
    }

    // Where FFmpeg refuses the graph, what was built so far deliberately stays allocated.
    AVFILTER_AUDIOFILTER record{};
    record.pSt_FilterGraph = frame::NewGraph();
    record.pSt_Outputs = avfilter_inout_alloc();
    record.pSt_Inputs = avfilter_inout_alloc();
    if (record.pSt_FilterGraph == nullptr) {
        return Fail(AVFILTER_ERROR_AUDIO_ALLOC);
    }
    if (record.pSt_Outputs == nullptr || record.pSt_Inputs == nullptr) {
        Release(record);
        return Fail(AVFILTER_ERROR_AUDIO_ALLOC);
    }
    const ErrorCode code =
        frame::BuildSingle(frame::kAudio, record, frame::SingleSourceArgs(*pInfo), szFilterDescr);
    if (code != frame::kNoError) {
        return Fail(code);
    }

    record.pSt_InFrame = av_frame_alloc();
    record.pSt_OutFrame = av_frame_alloc();
    if (record.pSt_InFrame == nullptr || record.pSt_OutFrame == nullptr) {
        Release(record);
        return Fail(AVFILTER_ERROR_AUDIO_ALLOC);
    }
    record.vec_AudioInfo.push_back({*pInfo, nullptr, nullptr});

    frame::Register(m_WriterGate, m_Mutex, m_mapAudioFilter, phHandle, record);
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
    AVFILTER_AUDIOFILTER* pRecord = frame::Find(m_mapAudioFilter, hHandle);
    // A mix is in the same map, without the frames of a single stream.
    if (pRecord == nullptr || pRecord->pSt_InFrame == nullptr) {
        return Fail(AVFILTER_ERROR_AUDIO_NOT_FOUND);
    }
    AVFrame* pSt_In = pRecord->pSt_InFrame;
    AVFrame* pSt_Out = pRecord->pSt_OutFrame;

    // Deliberate: the block sent is the new buffer as it comes. The caller's samples are not read.
    DescribeAudioFrame(*pSt_In, pRecord->vec_AudioInfo.front().st_AudioInfo);
    if (av_frame_get_buffer(pSt_In, 1) < 0) {
        return FailWithoutFlag(AVFILTER_ERROR_AUDIO_FRAME_BUFFER);
    }
    if (av_buffersrc_add_frame(pRecord->pSt_BufferSrcCtx, pSt_In) < 0) {
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
    ClearError();
    const frame::ExclusiveLock lock(m_WriterGate, m_Mutex);
    if (AVFILTER_AUDIOFILTER* pRecord = frame::Find(m_mapAudioFilter, hHandle)) {
        Release(*pRecord);
        m_mapAudioFilter.erase(hHandle);
    }
    return true;
}
