#include "graph.h"
#include "job.h"

#include "Telvane_AVFilter.hpp"

#include <cstring>

namespace bench
{

namespace
{

constexpr int kRate = 48000;
constexpr int kChannels = 2;
constexpr int kBytesPerSample = 2 * kChannels;
constexpr const char* kSingleArgs = "sample_rate=48000:sample_fmt=s16:channel_layout=stereo";
constexpr const char* kMixArgs = "time_base=1/48000:sample_rate=48000:sample_fmt=s16:channel_layout=stereo";

std::size_t BlockSize(int nSamples)
{
    return static_cast<std::size_t>(nSamples) * kBytesPerSample;
}

AVFILTER_AUDIO_INFO Stream(int nSamples, int nInputId)
{
    AVFILTER_AUDIO_INFO st_Info{};
    Label(nInputId).copy(st_Info.szName, sizeof(st_Info.szName) - 1);
    st_Info.nSampleFormat = AV_SAMPLE_FMT_S16;
    st_Info.nSampleRate = kRate;
    st_Info.nNbSamples = nSamples;
    st_Info.nChannels = kChannels;
    st_Info.nInputId = nInputId;
    return st_Info;
}

void Describe(AVFrame& st_Frame, int nSamples)
{
    st_Frame.sample_rate = kRate;
    st_Frame.format = AV_SAMPLE_FMT_S16;
    st_Frame.nb_samples = nSamples;
    av_channel_layout_default(&st_Frame.ch_layout, kChannels);
}

struct Handle {
    unsigned long long hHandle = 0;
    Handle() = default;
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() { AVFilter_Audio_Destroy(hHandle); }
};

// What the single-stream paths on FFmpeg keep between calls.
struct FilterState {
    FilterState(const std::string& szDescr, int nThreads)
        : graph(true, {{"in", kSingleArgs}}, szDescr, nThreads)
    {
    }
    Graph graph;
    Frame in = NewFrame();
    Frame out = NewFrame();
};

std::vector<std::uint8_t> SinkBytes(const AVFrame& st_Frame)
{
    return {st_Frame.data[0], st_Frame.data[0] + BlockSize(st_Frame.nb_samples)};
}

// The library's calls on FFmpeg one by one, without handle, lock and error report.
Path FilterSteps(const std::string& szName, const std::string& szDescr, int nSamples, int nThreads,
                 const std::shared_ptr<Buffer>& pOut)
{
    auto pState = std::make_shared<FilterState>(szDescr, nThreads);
    return {szName, Repeat([=] {
                AVFrame& st_In = *pState->in;
                AVFrame& st_Out = *pState->out;
                Describe(st_In, nSamples);
                if (av_frame_get_buffer(&st_In, 1) < 0 ||
                    av_buffersrc_add_frame(pState->graph.vec_Sources[0], &st_In) < 0 ||
                    av_buffersink_get_frame(pState->graph.pSt_Sink, &st_Out) < 0) {
                    return false;
                }
                const int nPlanes = av_sample_fmt_is_planar(static_cast<AVSampleFormat>(st_Out.format)) != 0
                                        ? st_Out.ch_layout.nb_channels
                                        : 1;
                std::size_t nCount = 0;
                for (int i = 0; i < nPlanes; ++i) {
                    const auto nLine = static_cast<std::size_t>(st_Out.linesize[i]);
                    std::memcpy(pOut->Data() + nCount, st_Out.data[i], nLine);
                    nCount += nLine;
                }
                av_frame_unref(&st_Out);
                return nCount >= BlockSize(nSamples);
            }),
            BytesOf(pOut)};
}

// The sample buffer that nobody fills is wrapped memory; nothing else can be left out.
Path FilterExpert(const std::string& szName, const std::string& szDescr, int nSamples, bool bInPlace,
                  const std::shared_ptr<Buffer>& pIn, const std::shared_ptr<Buffer>& pOut)
{
    auto pState = std::make_shared<FilterState>(szDescr, 1);
    return {szName, Repeat([=] {
                AVFrame& st_In = *pState->in;
                AVFrame& st_Out = *pState->out;
                Describe(st_In, nSamples);
                st_In.buf[0] = Wrap(pIn->Data(), pIn->Size());
                st_In.data[0] = pIn->Data();
                st_In.linesize[0] = static_cast<int>(pIn->Size());
                av_frame_unref(&st_Out);
                if (av_buffersrc_add_frame(pState->graph.vec_Sources[0], &st_In) < 0 ||
                    av_buffersink_get_frame(pState->graph.pSt_Sink, &st_Out) < 0) {
                    return false;
                }
                if (!bInPlace) {
                    std::memcpy(pOut->Data(), st_Out.data[0], BlockSize(st_Out.nb_samples));
                }
                return true;
            }),
            bInPlace ? std::function([=] { return SinkBytes(*pState->out); }) : BytesOf(pOut)};
}

struct MixState {
    MixState(int nInputs, const std::string& szDescr, int nThreads)
        : graph(true, Sources(nInputs), szDescr, nThreads)
    {
    }
    static std::vector<GraphSource> Sources(int nInputs)
    {
        std::vector<GraphSource> vec_Sources;
        vec_Sources.reserve(static_cast<std::size_t>(nInputs));
        for (int i = 0; i < nInputs; ++i) {
            vec_Sources.push_back({Label(i), kMixArgs});
        }
        return vec_Sources;
    }
    Graph graph;
    Frame in = NewFrame();
    Frame out = NewFrame();
};

Path MixSteps(const std::string& szName, const std::string& szDescr, int nSamples, int nInputs,
              int nThreads, const std::shared_ptr<Buffer>& pIn, const std::shared_ptr<Buffer>& pOut)
{
    auto pState = std::make_shared<MixState>(nInputs, szDescr, nThreads);
    return {szName, Repeat([=] {
                for (AVFilterContext* pSt_Source : pState->graph.vec_Sources) {
                    AVFrame* pSt_Frame = av_frame_alloc();
                    Describe(*pSt_Frame, nSamples);
                    if (av_frame_get_buffer(pSt_Frame, 1) < 0) {
                        return false;
                    }
                    std::memcpy(pSt_Frame->data[0], pIn->Data(), pIn->Size());
                    if (av_buffersrc_add_frame(pSt_Source, pSt_Frame) < 0) {
                        return false;
                    }
                    av_frame_free(&pSt_Frame);
                }
                AVFrame* pSt_Frame = av_frame_alloc();
                if (av_buffersink_get_frame(pState->graph.pSt_Sink, pSt_Frame) < 0) {
                    return false;
                }
                const int nSize = av_samples_get_buffer_size(
                    nullptr, pSt_Frame->ch_layout.nb_channels, pSt_Frame->nb_samples,
                    static_cast<AVSampleFormat>(pSt_Frame->format), 1);
                std::memcpy(pOut->Data(), pSt_Frame->data[0], static_cast<std::size_t>(nSize));
                av_frame_free(&pSt_Frame);
                return true;
            }),
            BytesOf(pOut)};
}

// The caller's blocks enter without a copy, and the frames are made once.
Path MixExpert(const std::string& szName, const std::string& szDescr, int nSamples, int nInputs,
               bool bInPlace, const std::shared_ptr<Buffer>& pIn, const std::shared_ptr<Buffer>& pOut)
{
    auto pState = std::make_shared<MixState>(nInputs, szDescr, 1);
    return {szName, Repeat([=] {
                AVFrame& st_In = *pState->in;
                AVFrame& st_Out = *pState->out;
                for (AVFilterContext* pSt_Source : pState->graph.vec_Sources) {
                    Describe(st_In, nSamples);
                    st_In.buf[0] = Wrap(pIn->Data(), pIn->Size());
                    st_In.data[0] = pIn->Data();
                    st_In.linesize[0] = static_cast<int>(pIn->Size());
                    if (av_buffersrc_add_frame(pSt_Source, &st_In) < 0) {
                        return false;
                    }
                }
                av_frame_unref(&st_Out);
                if (av_buffersink_get_frame(pState->graph.pSt_Sink, &st_Out) < 0) {
                    return false;
                }
                if (!bInPlace) {
                    std::memcpy(pOut->Data(), st_Out.data[0], BlockSize(st_Out.nb_samples));
                }
                return true;
            }),
            bInPlace ? std::function([=] { return SinkBytes(*pState->out); }) : BytesOf(pOut)};
}

} // namespace

// The description makes its own sound, because the call does not read the caller's samples.
Job AudioFilter(int nSamples)
{
    const std::string szDescr =
        "[in]anullsink;sine=frequency=440:sample_rate=48000:samples_per_frame=" + std::to_string(nSamples) +
        ",aformat=sample_fmts=s16:channel_layouts=stereo[out]";
    auto pIn = std::make_shared<Buffer>(BlockSize(nSamples));
    auto pOut = std::make_shared<Buffer>(BlockSize(nSamples));
    FillNoise(*pIn);

    auto pHandle = std::make_shared<Handle>();
    AVFILTER_AUDIO_INFO st_Info = Stream(nSamples, 0);
    AVFilter_Audio_Init(&pHandle->hHandle, szDescr.c_str(), &st_Info);
    // The library writes whole lines, whose padding may reach past the block.
    auto pLines = std::make_shared<Buffer>(BlockSize(nSamples) + 4096);
    Path library{
        "library", Repeat([=] {
            int nSize = 0;
            return AVFilter_Audio_Cvt(pHandle->hHandle, pIn->Data(), static_cast<int>(pIn->Size()),
                                      pLines->Data(), &nSize);
        }),
        [=] { return std::vector<std::uint8_t>(pLines->Data(), pLines->Data() + BlockSize(nSamples)); }};
    Path steps = FilterSteps("steps", szDescr, nSamples, 1, pLines);
    Path threads = FilterSteps("threads", szDescr, nSamples, kDefaultThreads, pLines);
    steps.Result = threads.Result = library.Result;
    return {{std::move(library), std::move(steps), std::move(threads),
             FilterExpert("expert", szDescr, nSamples, false, pIn, pOut),
             FilterExpert("in_place", szDescr, nSamples, true, pIn, pOut)},
            pIn,
            pOut};
}

Job AudioMix(int nSamples, int nInputs)
{
    std::string szDescr;
    std::vector<AVFILTER_AUDIO_INFO> vec_Infos;
    std::vector<AVFILTER_AUDIO_INFO*> vec_Pointers;
    vec_Infos.reserve(static_cast<std::size_t>(nInputs));
    for (int i = 0; i < nInputs; ++i) {
        szDescr.append("[").append(Label(i)).append("]");
        vec_Infos.push_back(Stream(nSamples, i));
        vec_Pointers.push_back(&vec_Infos.back());
    }
    szDescr += "amix=inputs=" + std::to_string(nInputs) + ":normalize=0,aformat=sample_fmts=s16[out]";
    auto pIn = std::make_shared<Buffer>(BlockSize(nSamples));
    auto pOut = std::make_shared<Buffer>(BlockSize(nSamples));
    FillNoise(*pIn);

    auto pHandle = std::make_shared<Handle>();
    AVFILTER_AUDIO_INFO** ppInfo = vec_Pointers.data();
    AVFilter_Audio_MIXInit(&pHandle->hHandle, &ppInfo, nInputs, "out", szDescr.c_str());
    Path library{"library", Repeat([=] {
                     bool bOk = true;
                     for (int i = 0; i < nInputs; ++i) {
                         bOk = AVFilter_Audio_MIXSend(pHandle->hHandle, i, pIn->Data(),
                                                      static_cast<int>(pIn->Size())) &&
                               bOk;
                     }
                     int nSize = 0;
                     return AVFilter_Audio_MIXRecv(pHandle->hHandle, pOut->Data(), &nSize) && bOk;
                 }),
                 BytesOf(pOut)};
    const telvane::AudioStream stream{AV_SAMPLE_FMT_S16, 48000, 2, nSamples};
    std::vector<telvane::AudioInput> vec_LayerInputs;
    for (int i = 0; i < nInputs; ++i) {
        vec_LayerInputs.push_back({Label(i), stream});
    }
    auto pLayer = std::make_shared<telvane::AudioMixer>(
        vec_LayerInputs, szDescr.substr(0, szDescr.find(",aformat")), stream);
    Path layer{"layer", Repeat([=] {
                   for (int i = 0; i < nInputs; ++i) {
                       pLayer->Send(static_cast<std::size_t>(i), pIn->Bytes());
                   }
                   return pLayer->Receive(pOut->Bytes()).has_value();
               }),
               BytesOf(pOut)};
    return {{std::move(library), MixSteps("steps", szDescr, nSamples, nInputs, 1, pIn, pOut),
             MixSteps("threads", szDescr, nSamples, nInputs, kDefaultThreads, pIn, pOut),
             MixExpert("expert", szDescr, nSamples, nInputs, false, pIn, pOut),
             MixExpert("in_place", szDescr, nSamples, nInputs, true, pIn, pOut), std::move(layer)},
            pIn,
            pOut};
}

} // namespace bench
