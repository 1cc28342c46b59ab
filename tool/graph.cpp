#include "graph.h"

#include <fmt/format.h>

#include <algorithm>
#include <fcntl.h>
#include <unistd.h>

namespace tool
{

namespace
{

// What the user calls it: the tool's own filters may stand before it.
std::string NameOf(const std::string& label)
{
    return label.substr(label.starts_with(kSource) ? kSource.size() : 0);
}

// FFmpeg's own words first, because they name the place.
void CheckText(int n)
{
    const std::vector<std::string> lines = LogLines();
    FailIf(n < 0, kGraph, "the description is refused: {}", lines.empty() ? "see above" : lines.front());
}

// The library passes pictures on without what only a decoder knows.
void RefuseUnknowable(const AVFilterGraph& graph)
{
    for (unsigned i = 0; i < graph.nb_filters; ++i) {
        uint8_t* pExpression = nullptr;
        if (std::string_view(graph.filters[i]->filter->name).ends_with("select") &&
            av_opt_get(graph.filters[i], "expr", AV_OPT_SEARCH_CHILDREN, &pExpression) >= 0) {
            const std::string expression = reinterpret_cast<const char*>(pExpression);
            av_free(pExpression);
            for (const char* szWord : {"pict_type", "key", "pos"}) {
                FailIf(expression.find(szWord) != std::string::npos, kGraph,
                       "select cannot know \"{}\": how a picture was coded is not passed on", szWord);
            }
        }
    }
}

// What was left over when the labels were linked. Its outputs are those that nothing takes.
void RefuseOpen(const std::vector<End>& sources, const AVFilterInOut* pInputs,
                const AVFilterInOut* pOutputs)
{
    const AVFilterInOut* pOpen = pInputs != nullptr ? pInputs : pOutputs;
    if (pOpen == nullptr) {
        return;
    }
    const std::string name = pOpen->name != nullptr ? NameOf(pOpen->name) : "";
    const char* szFilter = pOpen->filter_ctx->filter->name;
    std::string labels;
    bool bKnown = false;
    for (const End& source : sources) {
        labels += fmt::format("{}[{}]", labels.empty() ? "" : ", ", NameOf(source.label));
        bKnown = bKnown || NameOf(source.label) == name;
    }
    const bool bUnused = pInputs == nullptr ? bKnown : std::string_view(szFilter).ends_with("buffersink");
    const std::string what = bUnused  ? fmt::format("the description does not use [{}]", name)
                             : bKnown ? fmt::format("[{}] is used twice: split makes two of it", name)
                             : pInputs == nullptr ? fmt::format("nothing takes {}[{}]", szFilter, name)
                             : name.empty()       ? fmt::format("{} needs to be told its input", szFilter)
                                                  : fmt::format("nothing leads to [{}]", name);
    throw Failure(kGraph, fmt::format("{}; labels here: {} and [out]", what, labels));
}

} // namespace

std::string SourceLabel(const std::string& text, const std::string& name)
{
    const std::string label = std::string(kSource) + name;
    return text.find(label + "]") != std::string::npos ? label : name;
}

End SourceOf(const std::string& label, const Form& form, AVRational base, AVRational rate,
             const AVFrame& first)
{
    if (form.kind == AVMEDIA_TYPE_AUDIO) {
        return {label, fmt::format("time_base={}/{}:sample_rate={}:sample_fmt={}:channel_layout={}",
                                   base.num, base.den, form.audio.rate,
                                   av_get_sample_fmt_name(form.audio.format), LayoutName(form.layout))};
    }
    return {label,
            fmt::format("video_size={}x{}:pix_fmt={}:time_base={}/{}:frame_rate={}/{}:pixel_aspect={}/{}:"
                        "range={}:colorspace={}",
                        form.picture.width, form.picture.height, av_get_pix_fmt_name(form.picture.format),
                        base.num, base.den, rate.num, rate.den, first.sample_aspect_ratio.num,
                        std::max(1, first.sample_aspect_ratio.den), static_cast<int>(first.color_range),
                        static_cast<int>(first.colorspace))};
}

GraphPtr BuildGraph(AVMediaType kind, const std::vector<End>& sources, const std::string& text,
                    std::vector<AVFilterContext*>& ends)
{
    GraphPtr graph = Made<GraphPtr>(avfilter_graph_alloc());
    graph->nb_threads = 1;
    AVFilterInOut* pInputs = nullptr;
    AVFilterInOut* pOutputs = nullptr;
    const Finally freed([&] {
        avfilter_inout_free(&pInputs);
        avfilter_inout_free(&pOutputs);
    });
    const auto add = [&](const std::string& filter, const End& end, AVFilterInOut*& pList) {
        const std::string name = (kind == AVMEDIA_TYPE_AUDIO ? "a" : "") + filter;
        AVFilterContext* pFilter = NotNull(avfilter_graph_alloc_filter(
            graph.get(), avfilter_get_by_name(name.c_str()), end.label.c_str()));
        AVFilterInOut* pOpen = NotNull(avfilter_inout_alloc());
        *pOpen = {av_strdup(end.label.c_str()), pFilter, 0, pList};
        pList = pOpen;
        ends.push_back(pFilter);
        Dictionary arguments; // some of which not all versions and kinds know
        av_dict_parse_string(arguments.At(), end.arguments.c_str(), "=", ":", 0);
        CheckText(avfilter_init_dict(pFilter, arguments.At()));
    };
    for (const End& source : sources) {
        add("buffer", source, pOutputs);
    }
    add("buffersink", {"out", "all_channel_counts=1"}, pInputs); // as the ffmpeg command says
    CheckText(avfilter_graph_parse_ptr(graph.get(), text.c_str(), &pInputs, &pOutputs, nullptr));
    RefuseUnknowable(*graph);
    RefuseOpen(sources, pInputs, pOutputs);
    CheckText(avfilter_graph_config(graph.get(), nullptr));
    return graph;
}

Outcome Preview(const Inputs& inputs, const std::string& text)
{
    ForgetLog();
    MuteLog(true);
    // The standard output is not the filters' while something is tried.
    const int nKept = dup(STDOUT_FILENO);
    const int nNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    static_cast<void>(dup2(nNull, STDOUT_FILENO));
    const Finally restored([&] {
        static_cast<void>(dup2(nKept, STDOUT_FILENO));
        close(nKept);
        close(nNull);
        MuteLog(false);
    });
    const AVMediaType kind = inputs[0]->Gives().kind;
    const bool bVideo = kind == AVMEDIA_TYPE_VIDEO;
    std::vector<End> sources;
    for (const auto& input : inputs) {
        const AVRational base =
            bVideo ? input->Stream().time_base : AVRational{1, input->Gives().audio.rate};
        sources.push_back(SourceOf(SourceLabel(text, input->Of().name), input->Gives(), base, input->Rate(),
                                   input->First()));
    }
    std::vector<AVFilterContext*> ends;
    const GraphPtr graph = BuildGraph(kind, sources, text, ends);
    AVFilterContext* pSink = ends.back();
    Outcome out;
    out.form.kind = kind;
    out.timeBase = av_buffersink_get_time_base(pSink);
    if (!bVideo) {
        AVChannelLayout layout{};
        Check(av_buffersink_get_ch_layout(pSink, &layout), kOther, "the channel layout");
        out.form.layout = Native(layout);
        out.form.audio = {static_cast<AVSampleFormat>(av_buffersink_get_format(pSink)),
                          av_buffersink_get_sample_rate(pSink), layout.nb_channels, 0};
        av_channel_layout_uninit(&layout);
        return out;
    }
    out.form.picture = {static_cast<AVPixelFormat>(av_buffersink_get_format(pSink)),
                        av_buffersink_get_w(pSink), av_buffersink_get_h(pSink)};
    out.rate = av_buffersink_get_frame_rate(pSink);
    if (out.rate.num <= 0 || out.rate.den <= 0) {
        out.rate = inputs[0]->Rate();
    }
    // A few pictures of each, and their end: nearly every filter gives something then.
    constexpr int kTried = 3;
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        const int64_t nStep = std::max<int64_t>(
            1, av_rescale_q(1, av_inv_q(inputs[i]->Rate()), inputs[i]->Stream().time_base));
        for (int n = 0; n < kTried; ++n) {
            const FramePtr frame = Made<FramePtr>(av_frame_clone(&inputs[i]->First()));
            frame->pts = n * nStep;
            if (av_buffersrc_add_frame(ends[i], frame.get()) < 0) {
                break;
            }
        }
        static_cast<void>(av_buffersrc_close(ends[i], kTried * nStep, 0));
    }
    out.seen = NewFrame();
    if (av_buffersink_get_frame(pSink, out.seen.get()) < 0) {
        Check(av_frame_copy_props(out.seen.get(), &inputs[0]->First()), kOther, "a picture");
    }
    out.seen->sample_aspect_ratio = av_buffersink_get_sample_aspect_ratio(pSink);
    return out;
}

std::string Append(const std::string& text, const std::string& filters)
{
    const std::size_t nFound = text.rfind("[out]");
    return filters.empty() ? text
           : nFound == std::string::npos
               ? text + "," + filters
               : fmt::format("{}[before_out]{};[before_out]{}[out]", text.substr(0, nFound),
                             text.substr(nFound + 5), filters);
}

} // namespace tool
