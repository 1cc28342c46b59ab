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
std::string NameOf(const End& source)
{
    constexpr std::string_view kSource = "source@";
    return source.label.substr(source.label.starts_with(kSource) ? kSource.size() : 0);
}

std::string Labels(const std::vector<End>& sources)
{
    std::string text;
    for (const End& source : sources) {
        text += fmt::format("{}[{}]", text.empty() ? "" : ", ", NameOf(source));
    }
    return text + " and [out]";
}

// Lists that the parser fills.
struct Ends {
    Ends() = default;
    Ends(const Ends&) = delete;
    Ends& operator=(const Ends&) = delete;
    ~Ends()
    {
        avfilter_inout_free(&pInputs);
        avfilter_inout_free(&pOutputs);
    }
    AVFilterInOut* pInputs = nullptr;
    AVFilterInOut* pOutputs = nullptr;
};

[[noreturn]] void Refuse(const std::string& what)
{
    throw Failure(kGraph, what);
}

// FFmpeg's own words first, because they name the place.
void CheckText(int n)
{
    if (n < 0) {
        const std::vector<std::string> lines = LogLines();
        Refuse("the description is refused: " + (lines.empty() ? "see above" : lines.front()));
    }
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
                if (expression.find(szWord) != std::string::npos) {
                    Refuse(fmt::format(
                        "select cannot know \"{}\": how a picture was coded is not passed on", szWord));
                }
            }
        }
    }
}

// The standard output is not the filters' while something is tried.
class Silenced
{
  public:
    Silenced() : m_nKept(dup(STDOUT_FILENO)), m_nNull(open("/dev/null", O_WRONLY | O_CLOEXEC))
    {
        static_cast<void>(dup2(m_nNull, STDOUT_FILENO));
    }
    Silenced(const Silenced&) = delete;
    Silenced& operator=(const Silenced&) = delete;
    ~Silenced()
    {
        static_cast<void>(dup2(m_nKept, STDOUT_FILENO));
        close(m_nKept);
        close(m_nNull);
    }

  private:
    int m_nKept;
    int m_nNull;
};

End SourceFor(const Input& input, const std::string& label)
{
    const Form& form = input.Gives();
    if (form.kind == AVMEDIA_TYPE_AUDIO) {
        return {label, "abuffer",
                fmt::format("time_base=1/{0}:sample_rate={0}:sample_fmt={1}:channel_layout={2}",
                            form.audio.rate, av_get_sample_fmt_name(form.audio.format),
                            LayoutName(form.layout))};
    }
    const AVRational base = input.Stream().time_base;
    const AVRational aspect = input.First().sample_aspect_ratio;
    return {label, "buffer",
            fmt::format("video_size={}x{}:pix_fmt={}:time_base={}/{}:frame_rate={}/{}:pixel_aspect={}/{}",
                        form.picture.width, form.picture.height, av_get_pix_fmt_name(form.picture.format),
                        base.num, base.den, input.Rate().num, input.Rate().den, aspect.num,
                        std::max(1, aspect.den))};
}

} // namespace

GraphPtr BuildGraph(const std::vector<End>& sources, const std::string& sink, const std::string& text,
                    std::vector<AVFilterContext*>& ends)
{
    GraphPtr graph = Made<GraphPtr>(avfilter_graph_alloc());
    graph->nb_threads = 1;
    Ends open;
    CheckText(avfilter_graph_parse2(graph.get(), text.c_str(), &open.pInputs, &open.pOutputs));
    RefuseUnknowable(*graph);
    const auto create = [&](const std::string& filter, const std::string& name,
                            const std::string& arguments) {
        AVFilterContext* pFilter =
            avfilter_graph_alloc_filter(graph.get(), avfilter_get_by_name(filter.c_str()), name.c_str());
        if (pFilter == nullptr) {
            throw std::bad_alloc();
        }
        // As the ffmpeg command does, where there is such an option.
        static_cast<void>(av_opt_set_int(pFilter, "all_channel_counts", 1, AV_OPT_SEARCH_CHILDREN));
        CheckText(avfilter_init_str(pFilter, arguments.c_str()));
        return pFilter;
    };
    for (const End& source : sources) {
        ends.push_back(create(source.filter, source.label, source.arguments));
    }
    ends.push_back(create(sink, "out", ""));
    const auto link = [](AVFilterContext* pFrom, int nFrom, AVFilterContext* pTo, int nTo) {
        CheckText(avfilter_link(pFrom, static_cast<unsigned>(nFrom), pTo, static_cast<unsigned>(nTo)));
    };
    for (const AVFilterInOut* p = open.pInputs; p != nullptr; p = p->next) {
        const std::string label = p->name != nullptr    ? p->name
                                  : sources.size() == 1 ? sources[0].label
                                                        : "";
        const auto found = std::find_if(sources.begin(), sources.end(),
                                        [&](const End& source) { return source.label == label; });
        if (found == sources.end()) {
            Refuse(label.empty()
                       ? fmt::format("{} needs to be told its input; labels here: {}",
                                     p->filter_ctx->filter->name, Labels(sources))
                       : fmt::format("nothing leads to [{}]; labels here: {}", label, Labels(sources)));
        }
        AVFilterContext* pSource = ends[static_cast<std::size_t>(found - sources.begin())];
        if (pSource->outputs[0] != nullptr) {
            Refuse(fmt::format("[{}] is used twice: split makes two of it", label));
        }
        link(pSource, 0, p->filter_ctx, p->pad_idx);
    }
    const auto refuseUnused = [&](const std::string& label) {
        Refuse(fmt::format("the description does not use [{}]; labels here: {}", label, Labels(sources)));
    };
    for (const AVFilterInOut* p = open.pOutputs; p != nullptr; p = p->next) {
        for (const End& source : sources) {
            if (p->name != nullptr && NameOf(source) == p->name) {
                refuseUnused(p->name);
            }
        }
        if ((p->name != nullptr && std::string_view(p->name) != "out") ||
            ends.back()->inputs[0] != nullptr) {
            Refuse(fmt::format("nothing takes {} of {}; labels here: {}",
                               p->name != nullptr ? fmt::format("[{}]", p->name) : "the output",
                               p->filter_ctx->filter->name, Labels(sources)));
        }
        link(p->filter_ctx, p->pad_idx, ends.back(), 0);
    }
    for (std::size_t i = 0; i < ends.size(); ++i) {
        if (i < sources.size() ? ends[i]->outputs[0] == nullptr : ends[i]->inputs[0] == nullptr) {
            refuseUnused(i < sources.size() ? NameOf(sources[i]) : "out");
        }
    }
    CheckText(avfilter_graph_config(graph.get(), nullptr));
    return graph;
}

Outcome Preview(const std::vector<std::unique_ptr<Input>>& inputs, const std::vector<std::string>& labels,
                const std::string& text)
{
    ForgetLog();
    const Muted muted;
    const Silenced silenced;
    const bool bVideo = inputs[0]->Gives().kind == AVMEDIA_TYPE_VIDEO;
    std::vector<End> sources;
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        sources.push_back(SourceFor(*inputs[i], labels[i]));
    }
    std::vector<AVFilterContext*> ends;
    const GraphPtr graph = BuildGraph(sources, bVideo ? "buffersink" : "abuffersink", text, ends);
    AVFilterContext* pSink = ends.back();
    Outcome out;
    out.form.kind = inputs[0]->Gives().kind;
    out.timeBase = av_buffersink_get_time_base(pSink);
    char* szDump = avfilter_graph_dump(graph.get(), nullptr);
    out.dump = szDump != nullptr ? szDump : "";
    av_free(szDump);
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
    out.aspect = av_buffersink_get_sample_aspect_ratio(pSink);
    // A few pictures of each, and their end: nearly every filter gives something then.
    constexpr int kTried = 3;
    const AVFrame* pTells = &inputs[0]->First();
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
    const FramePtr seen = NewFrame();
    if (av_buffersink_get_frame(pSink, seen.get()) >= 0) {
        pTells = seen.get();
    }
    out.colour = {pTells->color_range, pTells->color_primaries, pTells->color_trc, pTells->colorspace};
    out.bInterlaced = IsInterlaced(*pTells);
    out.bTopFirst = IsTopFirst(*pTells);
    return out;
}

std::string Append(const std::string& text, const std::string& filters)
{
    constexpr std::string_view kOut = "[out]";
    constexpr std::string_view kBefore = "[before_out]";
    const std::size_t nFound = text.rfind(kOut);
    if (nFound == std::string::npos) {
        return text + "," + filters;
    }
    std::string renamed = text;
    renamed.replace(nFound, kOut.size(), kBefore);
    return fmt::format("{};{}{}{}", renamed, kBefore, filters, kOut);
}

} // namespace tool
