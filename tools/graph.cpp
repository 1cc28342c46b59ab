#include "graph.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/imgutils.h>
#include <libavutil/mem.h>
#include <libavutil/pixdesc.h>
}

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace tool
{

std::optional<std::string> WithoutOut(const std::string& description)
{
    constexpr std::string_view kLabel = "[out]";
    std::string text = description.substr(0, description.find_last_not_of(" \n\t\r") + 1);
    if (text.ends_with(kLabel)) {
        text.resize(text.size() - kLabel.size());
    }
    return text.empty() || text.back() == ']' ? std::nullopt : std::optional(text);
}

OwnGraph::OwnGraph(const std::vector<telvane::AudioInput>& inputs,
                   const std::vector<AVChannelLayout>& layouts, const std::string& description)
    : m_Audio(inputs), m_Layouts(layouts)
{
    std::vector<Source> sources;
    sources.reserve(inputs.size());
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        const auto& [name, stream] = inputs[i];
        sources.push_back(
            {name, "abuffer",
             fmt::format("time_base=1/{0}:sample_rate={0}:sample_fmt={1}:channel_layout={2}", stream.rate,
                         av_get_sample_fmt_name(stream.format), LayoutName(layouts[i]))});
    }
    Build(sources, "abuffersink", description);
}

OwnGraph::OwnGraph(const std::vector<telvane::VideoInput>& inputs, const std::vector<AVRational>& aspects,
                   AVRational rate, const std::string& description)
    : m_Video(inputs), m_Rate(rate)
{
    std::vector<Source> sources;
    sources.reserve(inputs.size());
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        const auto& [name, stream] = inputs[i];
        sources.push_back(
            {name, "buffer",
             fmt::format("video_size={}x{}:pix_fmt={}:time_base={}/{}:frame_rate={}/{}:pixel_aspect={}/{}",
                         stream.picture.width, stream.picture.height,
                         static_cast<int>(stream.picture.format), rate.den, rate.num, rate.num, rate.den,
                         aspects[i].num, std::max(1, aspects[i].den))});
    }
    Build(sources, "buffersink", description);
}

void OwnGraph::Build(const std::vector<Source>& sources, const char* szSink, const std::string& description)
{
    m_Graph.reset(avfilter_graph_alloc());
    m_Out = NewFrame();
    m_Sent.resize(sources.size());
    m_Closed.resize(sources.size());
    AVFilterInOut* pOutputs = nullptr; // the ends that the description begins with
    AVFilterInOut* pInputs = avfilter_inout_alloc();
    if (!m_Graph || pInputs == nullptr) {
        avfilter_inout_free(&pInputs);
        throw std::bad_alloc();
    }
    m_Graph->nb_threads = 1;
    int nResult = avfilter_graph_create_filter(&m_pSink, avfilter_get_by_name(szSink), "out", nullptr,
                                               nullptr, m_Graph.get());
    pInputs->name = av_strdup("out");
    pInputs->filter_ctx = m_pSink;
    AVFilterInOut** ppEnd = &pOutputs;
    for (const Source& source : sources) {
        AVFilterContext* pSource = nullptr;
        if (nResult >= 0) {
            nResult = avfilter_graph_create_filter(&pSource, avfilter_get_by_name(source.filter.c_str()),
                                                   source.name.c_str(), source.arguments.c_str(), nullptr,
                                                   m_Graph.get());
        }
        m_Sources.push_back(pSource);
        *ppEnd = avfilter_inout_alloc();
        if (*ppEnd == nullptr) {
            nResult = AVERROR(ENOMEM);
            break;
        }
        (*ppEnd)->name = av_strdup(source.name.c_str());
        (*ppEnd)->filter_ctx = pSource;
        ppEnd = &(*ppEnd)->next;
    }
    if (nResult >= 0) {
        nResult =
            avfilter_graph_parse_ptr(m_Graph.get(), description.c_str(), &pInputs, &pOutputs, nullptr);
    }
    avfilter_inout_free(&pInputs);
    avfilter_inout_free(&pOutputs);
    Check(nResult, kGraph, "reading the description");
    Check(avfilter_graph_config(m_Graph.get(), nullptr), kGraph, "configuring the graph");
}

telvane::AudioStream OwnGraph::Audio() const
{
    return {static_cast<AVSampleFormat>(av_buffersink_get_format(m_pSink)),
            av_buffersink_get_sample_rate(m_pSink), av_buffersink_get_channels(m_pSink), 0};
}

AVChannelLayout OwnGraph::Layout() const
{
    AVChannelLayout layout{};
    Check(av_buffersink_get_ch_layout(m_pSink, &layout), kOther, "the channel layout");
    return Native(layout);
}

telvane::Size OwnGraph::Picture() const
{
    return {av_buffersink_get_w(m_pSink), av_buffersink_get_h(m_pSink)};
}

AVRational OwnGraph::Rate() const
{
    const AVRational rate = av_buffersink_get_frame_rate(m_pSink);
    return rate.num > 0 && rate.den > 0 ? rate : m_Rate;
}

AVRational OwnGraph::Aspect() const
{
    return av_buffersink_get_sample_aspect_ratio(m_pSink);
}

std::string OwnGraph::Dump() const
{
    char* szDump = avfilter_graph_dump(m_Graph.get(), nullptr);
    std::string dump = szDump != nullptr ? szDump : "";
    av_free(szDump);
    return dump;
}

bool OwnGraph::Uses(std::initializer_list<std::string_view> filters) const
{
    for (unsigned i = 0; i < m_Graph->nb_filters; ++i) {
        const std::string_view name = m_Graph->filters[i]->filter->name;
        if (std::find(filters.begin(), filters.end(), name) != filters.end()) {
            return true;
        }
    }
    return false;
}

bool OwnGraph::ChangesTimes() const
{
    for (unsigned i = 0; i < m_Graph->nb_filters; ++i) {
        const AVFilterContext* pFilter = m_Graph->filters[i];
        if (pFilter->nb_inputs == 0 &&
            std::find(m_Sources.begin(), m_Sources.end(), pFilter) == m_Sources.end()) {
            return true; // a source of the description's own, with a rate of its own
        }
    }
    return Uses({"metadata",      "nnedi",        "stereo3d",       "tblend",       "tlut2",
                 "tmedian",       "zoompan",      "bwdif",          "concat",       "decimate",
                 "dejudder",      "detelecine",   "doubleweave",    "estdif",       "fieldmatch",
                 "fps",           "framerate",    "framestep",      "freezeframes", "interlace",
                 "loop",          "minterpolate", "mpdecimate",     "pullup",       "random",
                 "repeatfields",  "select",       "separatefields", "setpts",       "settb",
                 "shuffleframes", "telecine",     "thumbnail",      "tile",         "tinterlace",
                 "tpad",          "trim",         "untile",         "w3fdif",       "weave",
                 "xfade",         "yadif"});
}

bool OwnGraph::Send(std::size_t nInput, std::span<const std::byte> bytes, int nSamples)
{
    if (!Takes(nInput)) {
        return false;
    }
    if (m_bEndless || (!m_Audio.empty() && nSamples == 0)) {
        return true;
    }
    const FramePtr frame = NewFrame();
    const auto* pBytes = reinterpret_cast<const uint8_t*>(bytes.data());
    if (!m_Audio.empty()) {
        const telvane::AudioStream& stream = m_Audio[nInput].stream;
        frame->format = stream.format;
        frame->sample_rate = stream.rate;
        frame->nb_samples = nSamples;
        frame->ch_layout = m_Layouts[nInput];
        frame->pts = m_Sent[nInput];
        Check(av_frame_get_buffer(frame.get(), 0), kOther, "samples");
        std::memcpy(frame->data[0], pBytes,
                    static_cast<std::size_t>(nSamples) *
                        static_cast<std::size_t>(stream.channels * av_get_bytes_per_sample(stream.format)));
    } else {
        const telvane::Picture& picture = m_Video[nInput].stream.picture;
        frame->format = picture.format;
        frame->width = picture.width;
        frame->height = picture.height;
        Check(av_frame_get_buffer(frame.get(), 0), kOther, "a picture");
        const uint8_t* planes[4]{};
        uint8_t* writable[4]{};
        int strides[4]{};
        av_image_fill_arrays(writable, strides, pBytes, picture.format, picture.width, picture.height, 1);
        std::copy(std::begin(writable), std::end(writable), std::begin(planes));
        av_image_copy(frame->data, frame->linesize, planes, strides, picture.format, picture.width,
                      picture.height);
        frame->pts = m_Sent[nInput];
    }
    m_Sent[nInput] += m_Audio.empty() ? 1 : nSamples;
    m_Closed[nInput] = av_buffersrc_add_frame(m_Sources[nInput], frame.get()) < 0;
    Drain();
    return !m_Closed[nInput];
}

void OwnGraph::End()
{
    for (std::size_t i = 0; i < m_Sources.size(); ++i) {
        static_cast<void>(av_buffersrc_close(m_Sources[i], m_Sent[i], 0));
    }
    Drain();
    m_bEnded = true;
}

void OwnGraph::Drain()
{
    // "apad" and "loop" never end: ten minutes more than was sent, or ten times the pictures, count as that.
    const int64_t nSent = *std::max_element(m_Sent.begin(), m_Sent.end());
    const int64_t nMost = m_Audio.empty() ? 10 * nSent + 250 : 10 * nSent + int64_t{600} * Audio().rate;
    int nResult = 0;
    while (!m_bEndless && (nResult = av_buffersink_get_frame(m_pSink, m_Out.get())) >= 0) {
        if (m_Audio.empty()) {
            m_Times.push_back(
                av_rescale_q(m_Out->pts, av_buffersink_get_time_base(m_pSink), av_inv_q(Rate())));
        }
        m_nCount += m_Audio.empty() ? 1 : m_Out->nb_samples;
        av_frame_unref(m_Out.get());
        m_bEndless = m_nCount > nMost;
    }
    m_bEnded = m_bEnded || nResult == AVERROR_EOF;
}

} // namespace tool
