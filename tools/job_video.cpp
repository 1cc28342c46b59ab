#include "jobs_common.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <string_view>

namespace tool
{

namespace
{

struct VideoPlan {
    std::vector<telvane::VideoInput> inputs; // of the library: their labels are the clocks' inputs
    std::string description;
    std::unique_ptr<OwnGraph> graph;
    OutputVideo out;
    bool bTimes = false; // the copy runs beside the library and tells the times of its pictures
};

Json Describe(const Options& options, const VideoPlan& plan)
{
    Json json;
    for (std::size_t i = 0; i < plan.inputs.size(); ++i) {
        const telvane::Picture& picture = plan.inputs[i].stream.picture;
        json["inputs"].push_back({{"name", options.inputs[i].name},
                                  {"width", picture.width},
                                  {"height", picture.height},
                                  {"format", av_get_pix_fmt_name(picture.format)}});
    }
    json["output"] = {{"width", plan.out.shown.width},
                      {"height", plan.out.shown.height},
                      {"format", av_get_pix_fmt_name(plan.out.stored.format)},
                      {"rate", RateText(plan.out.rate)}};
    return json;
}

// The common rate: the fastest input's, or the one that was asked for.
AVRational CommonRate(const Options& options, const std::vector<VideoSource>& sources)
{
    AVRational rate = options.rate;
    if (rate.num <= 0) {
        for (const VideoSource& source : sources) {
            if (!source.IsStill() && (rate.num <= 0 || av_cmp_q(source.NativeRate(), rate) > 0)) {
                rate = source.NativeRate();
            }
        }
    }
    return rate.num > 0 ? rate : AVRational{25, 1};
}

VideoPlan PlanVideo(const Options& options, std::vector<VideoSource>& sources)
{
    VideoPlan plan;
    const AVRational rate = CommonRate(options, sources);
    std::vector<telvane::VideoInput> named;
    std::vector<AVRational> aspects;
    std::string clocks;
    for (std::size_t i = 0; i < sources.size(); ++i) {
        const std::string& name = options.inputs[i].name;
        sources[i].SetRate(rate);
        sources[i].SetLimited();
        aspects.push_back(sources[i].Aspect());
        named.push_back({name, {sources[i].Picture(), 1}});
        plan.inputs.push_back({SourceLabel(name), {sources[i].Picture(), 1}});
        // The library's clock has whole rates, and tells filters none.
        clocks += fmt::format("[{}]settb={}/{},setpts=N,fps={}/{}[{}];", SourceLabel(name), rate.den,
                              rate.num, rate.num, rate.den, name);
    }
    BeginStep("building the graph");
    const std::string text = TextOf(options);
    plan.description = clocks + text;
    // First of all the library's own answer.
    static_cast<void>(telvane::VideoMixer(plan.inputs, plan.description, {16, 16}));
    const auto open = WithoutOut(text);
    plan.graph = std::make_unique<OwnGraph>(named, aspects, rate, open ? *open + ",format=yuv420p" : text);

    plan.bTimes = plan.graph->ChangesTimes();
    plan.out.rate = plan.graph->Rate();
    plan.out.shown = plan.graph->Picture();
    plan.out.aspect = plan.graph->Aspect();
    plan.out.colour = sources[0].Colours();
    plan.out.colour.space =
        options.matrix != AVCOL_SPC_UNSPECIFIED ? options.matrix : plan.out.colour.space;
    plan.out.colour.range =
        options.range != AVCOL_RANGE_UNSPECIFIED ? options.range : plan.out.colour.range;
    // The library's packed pictures lose the last chroma column or row of odd sizes: it gets even ones.
    plan.out.stored = {AV_PIX_FMT_YUV420P, (plan.out.shown.width + 1) & ~1,
                       (plan.out.shown.height + 1) & ~1};
    if (open && (plan.out.stored.width != plan.out.shown.width ||
                 plan.out.stored.height != plan.out.shown.height)) {
        // 4:4:4, because pad rounds the picture down to whole chroma samples.
        plan.description = fmt::format(
            "{}{},format=yuv444p,pad={}:{},fillborders=right={}:bottom={}:mode=smear,format=yuv420p",
            clocks, *open, plan.out.stored.width, plan.out.stored.height,
            plan.out.stored.width - plan.out.shown.width, plan.out.stored.height - plan.out.shown.height);
    }
    return plan;
}

// Calls send(nTick) with all sources at the tick, until it returns false or the inputs end as the options
// say. Returns the number of ticks within the inputs' length.
template <class Send>
int64_t RunTicks(const Options& options, std::vector<VideoSource>& sources, AVRational rate,
                 const Send& send)
{
    const bool bAllStill =
        std::all_of(sources.begin(), sources.end(), [](const auto& s) { return s.IsStill(); });
    std::vector<bool> black(sources.size());
    for (int64_t nTick = 0;; ++nTick) {
        BeginStep("reading the inputs");
        bool bAny = false;
        bool bAll = true;
        for (std::size_t i = 0; i < sources.size(); ++i) {
            const bool bRuns = sources[i].At(nTick);
            const bool bCounts = bAllStill || !sources[i].IsStill(); // a still lasts as long as the others
            bAny = bAny || (bRuns && bCounts);
            bAll = bAll && (bRuns || !bCounts);
            if (!bRuns && bCounts && options.atEnd == AtEnd::kBlack && !black[i]) {
                sources[i].Blacken();
                black[i] = true;
            }
        }
        const bool bLength = options.dLength > 0;
        const bool bGoOn =
            bLength && options.atEnd != AtEnd::kStop
                ? static_cast<double>(nTick) < std::floor(options.dLength * av_q2d(rate) + 0.5)
                : (options.atEnd == AtEnd::kStop ? bAll : bAny);
        if (!bGoOn || IsInterrupted() || !send(nTick)) {
            return nTick;
        }
    }
}

// Puts pictures on the constant rate of the output, and knows when that is full.
class PictureWriter
{
  public:
    PictureWriter(const Options& options, Output& output, AVRational rate) : m_Output(output)
    {
        const OutputWish& wish = options.output;
        if (Output::FormatOf(wish.path, wish.format) == "png" &&
            (wish.path == "-" || av_filename_number_test(wish.path.c_str()) == 0)) {
            m_nOnly = std::llround(options.dAt * av_q2d(rate)); // one PNG holds one picture
        }
        if (options.dLength > 0) {
            m_nLimit = std::llround(options.dLength * av_q2d(rate));
        }
    }
    void SetLimit(int64_t n) { m_nLimit = n; }
    bool IsFull() const { return m_nCount >= m_nLimit || (m_nOnly >= 0 && m_nCount > m_nOnly); }

    // The next picture.
    void Write(std::span<const std::byte> picture)
    {
        if (!IsFull()) {
            if (m_nOnly < 0 || m_nCount == m_nOnly) {
                m_Output.WritePicture(picture);
            }
            ++m_nCount;
        }
    }
    // The picture of this time: those before it are shown until then.
    void WriteAt(std::span<const std::byte> picture, int64_t nTime)
    {
        nTime = std::max(nTime, m_nTime);
        m_nShown = m_Held.empty() ? 1 : nTime - m_nTime;
        while (!m_Held.empty() && m_nCount < nTime && !IsFull()) {
            Write(m_Held);
        }
        m_Held.assign(picture.begin(), picture.end());
        m_nTime = nTime;
    }
    int64_t Time() const { return m_nTime; }
    // The last picture is shown until the input's end, or for as long as the one before it.
    void EndTimes(int64_t nInputEnd)
    {
        const int64_t nAsBefore = m_nTime + std::max<int64_t>(1, m_nShown);
        const int64_t nEnd = m_nTime < nInputEnd ? std::min(nInputEnd, nAsBefore) : nAsBefore;
        while (!m_Held.empty() && m_nCount < nEnd && !IsFull()) {
            Write(m_Held);
        }
    }

  private:
    Output& m_Output;
    int64_t m_nOnly = -1;
    int64_t m_nCount = 0;
    int64_t m_nLimit = std::numeric_limits<int64_t>::max();
    std::vector<std::byte> m_Held;
    int64_t m_nTime = 0;
    int64_t m_nShown = 1;
};

// The copied sound, the end of the file and the report.
Exit FinishVideo(const Options& options, const std::vector<std::unique_ptr<Input>>& inputs, Input* pPassing,
                 const VideoPlan& plan, Output& output, const Progress& progress, bool bOver)
{
    if (output.Pictures() == 0) {
        throw Failure(kNothing, "the description gave no picture at the time asked for");
    }
    const double dSeconds = static_cast<double>(output.Pictures()) / av_q2d(plan.out.rate);
    const bool bInterrupted = IsInterrupted();
    if (pPassing != nullptr) {
        FinishPassed(options, *pPassing, output, dSeconds, bOver);
    }
    output.Finish();
    WarnOfDamage(inputs);
    const telvane::Size coded = output.CodedSize();
    const bool bPadded = coded.width != plan.out.shown.width || coded.height != plan.out.shown.height;
    Json json = Describe(options, plan);
    json["pictures"] = output.Pictures();
    json["seconds"] = dSeconds;
    json["coded"] = {{"width", coded.width}, {"height", coded.height}};
    json["speed"] = dSeconds / std::max(progress.Elapsed(), 1e-6);
    json["interrupted"] = bInterrupted;
    std::string text =
        fmt::format("{}: {}, {}x{}", options.output.path, Count(output.Pictures(), "picture"),
                    plan.out.shown.width, plan.out.shown.height);
    if (output.Pictures() > 1) {
        text += fmt::format(", {:.3f} s, {:.5g} a second", dSeconds, av_q2d(plan.out.rate));
    }
    if (bPadded) {
        text += fmt::format(", stored as {}x{}: this codec has no odd sizes", coded.width, coded.height);
    }
    Report(options, json, text + (bInterrupted ? ", interrupted" : ""));
    return bInterrupted ? kInterrupted : kDone;
}

} // namespace

Exit RunVideo(const Options& options)
{
    Opened<VideoSource> opened(options, AVMEDIA_TYPE_VIDEO, AVMEDIA_TYPE_AUDIO);
    const auto& inputs = opened.inputs;
    std::vector<VideoSource>& sources = opened.sources;
    Input* const pPassing = opened.pPassing;
    VideoPlan plan = PlanVideo(options, sources);
    if (options.bExplain) {
        PrintExplanation(options, Describe(options, plan), *plan.graph);
        return kDone;
    }
    if (plan.graph->Uses({"reverse"})) {
        throw Failure(kNothing, "reverse waits for the end of the stream, which the library cannot signal");
    }
    telvane::VideoMixer mixer(plan.inputs, plan.description,
                              {plan.out.stored.width, plan.out.stored.height});
    OutputWish wish = WishOf(options, pPassing);
    wish.video = plan.out;
    Output output(wish);
    output.DrainPile(options.atEnd != AtEnd::kStop ? pPassing : nullptr, Until(options));
    PictureWriter writer(options, output, plan.out.rate);
    OwnGraph& twin = *plan.graph;

    std::vector<std::byte> out(mixer.OutputBytes());
    int64_t nReceived = 0;
    const auto receive = [&] {
        const int64_t nBefore = nReceived;
        while (!writer.IsFull() && mixer.Receive(out)) {
            ++nReceived;
            if (!plan.bTimes) {
                writer.Write(out);
                continue;
            }
            const int64_t nTime = twin.Times().empty() ? writer.Time() + 1 : twin.Times().front();
            if (!twin.Times().empty()) {
                twin.Times().pop_front();
            }
            writer.WriteAt(out, nTime);
        }
        return nReceived > nBefore;
    };
    // False once the graph takes no more of any input.
    std::vector<bool> takes(sources.size(), true);
    const auto push = [&] {
        bool bAny = false;
        for (std::size_t i = 0; i < sources.size(); ++i) {
            try {
                if (takes[i]) {
                    mixer.Send(i, sources[i].Bytes());
                }
            } catch (const telvane::Error& error) {
                if (error.code().value() != AVFILTER_ERROR_VIDEO_SEND_FRAME) {
                    throw;
                }
                takes[i] = false;
            }
            bAny = bAny || takes[i];
        }
        return bAny;
    };
    const AVRational rate = CommonRate(options, sources);
    Progress progress(options.bQuiet, SecondsToDo(options, inputs));
    const int64_t nTicks = RunTicks(options, sources, rate, [&](int64_t nTick) {
        BeginStep("filtering");
        for (std::size_t i = 0; i < sources.size(); ++i) {
            const bool bTaken = !plan.bTimes || twin.Send(i, sources[i].Bytes());
            RefuseEndless(options, twin);
            if (bTaken) {
                mixer.Send(i, sources[i].Bytes());
                receive();
            }
        }
        const double dTime = static_cast<double>(nTick + 1) / av_q2d(rate);
        progress.At(dTime);
        if (pPassing != nullptr) {
            output.WritePassed(pPassing->Passed(), dTime);
        }
        return !writer.IsFull() && !twin.HasEnded();
    });

    // The length of the inputs, in pictures of the output.
    const int64_t nSame = std::llround(static_cast<double>(nTicks) * av_q2d(plan.out.rate) / av_q2d(rate));

    // What the graph still holds is pushed out by each input's last picture again.
    const bool bOver = twin.HasEnded();
    if (!IsInterrupted() && !writer.IsFull()) {
        BeginStep("bringing out the end");
        int64_t nExpected = nSame; // pictures of the library
        if (plan.bTimes && (options.dLength <= 0 || bOver)) {
            twin.End();
            nExpected = twin.Count().value_or(nSame);
        }
        if (options.dLength <= 0 && (!plan.bTimes || !twin.Count())) {
            writer.SetLimit(nSame);
        }
        int nPatience = 300;
        while (nReceived < nExpected && !writer.IsFull() && !IsInterrupted() && nPatience > 0 && push()) {
            nPatience = receive() ? nPatience : nPatience - 1;
        }
        if (nPatience == 0) {
            throw Failure(kNothing,
                          fmt::format("the description keeps {} to itself until the end of the stream, "
                                      "which the library cannot signal",
                                      Count(nExpected - nReceived, "picture")));
        }
    }
    writer.EndTimes(nSame);
    return FinishVideo(options, inputs, pPassing, plan, output, progress, bOver);
}

namespace
{

// "640x360", "640x" or "x360"; a side that is missing, or below 1, is -1 and follows the other one.
telvane::Size ParseSize(const std::string& text)
{
    constexpr int kLargest = 32768;
    const std::size_t nCross = std::min(text.find('x'), text.size());
    int sides[2] = {-1, -1};
    const std::string_view parts[2] = {std::string_view(text).substr(0, nCross),
                                       std::string_view(text).substr(std::min(nCross + 1, text.size()))};
    bool bRight = true;
    for (int i = 0; i < 2; ++i) {
        const char* pEnd = parts[i].data() + parts[i].size();
        const auto [pStop, error] = std::from_chars(parts[i].data(), pEnd, sides[i]);
        bRight =
            bRight && (parts[i].empty() || (error == std::errc() && pStop == pEnd)) && sides[i] <= kLargest;
        sides[i] = sides[i] > 0 ? sides[i] : -1;
    }
    if (!bRight || (sides[0] < 0 && sides[1] < 0)) {
        throw Failure(kUsage, fmt::format("\"{}\" is no size: 640x360, 640x or x360, and no side above {}",
                                          text, kLargest));
    }
    return {sides[0], sides[1]};
}

bool IsYuv(AVPixelFormat format)
{
    const AVPixFmtDescriptor* pDescriptor = av_pix_fmt_desc_get(format);
    return (pDescriptor->flags & AV_PIX_FMT_FLAG_RGB) == 0 && pDescriptor->nb_components >= 3;
}

} // namespace

Exit RunScale(const Options& options)
{
    Opened<VideoSource> opened(options, AVMEDIA_TYPE_VIDEO, AVMEDIA_TYPE_AUDIO);
    const auto& inputs = opened.inputs;
    std::vector<VideoSource>& sources = opened.sources;
    Input* const pPassing = opened.pPassing;
    const telvane::Picture from = sources[0].Picture();

    BeginStep("reading the size");
    telvane::Size size = ParseSize(options.size);
    const double dShape = static_cast<double>(from.width) / from.height;
    if (size.width < 1) {
        size.width = std::max(1, static_cast<int>(std::lround(size.height * dShape)));
    } else if (size.height < 1) {
        size.height = std::max(1, static_cast<int>(std::lround(size.width / dShape)));
    }

    VideoPlan plan;
    const AVRational rate = CommonRate(options, sources);
    sources[0].SetRate(rate);
    // The library's scaler knows no matrix but BT.601 and no full range: between kinds of colour the tool
    // converts, and the library scales like to like.
    const AVPixelFormat wished = options.pixelFormat != AV_PIX_FMT_NONE ? options.pixelFormat : from.format;
    if (!IsYuv(wished) || !IsYuv(from.format)) {
        sources[0].SetFormat(wished);
    }
    const telvane::Picture given = sources[0].Picture();
    plan.inputs.push_back({"in", {from, 1}});
    plan.out.stored = {wished, size.width, size.height};
    plan.out.shown = size;
    plan.out.rate = rate;
    // Pixels get the shape that keeps the picture's.
    const AVRational aspect = sources[0].Aspect();
    if (aspect.num > 0) {
        av_reduce(&plan.out.aspect.num, &plan.out.aspect.den,
                  int64_t{aspect.num} * from.width * size.height,
                  int64_t{aspect.den} * from.height * size.width, std::numeric_limits<int>::max());
    }
    plan.out.colour = sources[0].Colours();
    if (options.bExplain) {
        const Json json = Describe(options, plan);
        fmt::print("{}\n", options.bJson ? InJson(json)
                                         : fmt::format("input: {}\noutput: {}", InWords(json["inputs"][0]),
                                                       InWords(json["output"])));
        return kDone;
    }
    BeginStep("setting up the scaler");
    telvane::VideoScaler scaler(given, plan.out.stored);
    OutputWish wish = WishOf(options, pPassing);
    wish.video = plan.out;
    Output output(wish);
    output.DrainPile(pPassing, Until(options));
    PictureWriter writer(options, output, rate);
    std::vector<std::byte> out(scaler.OutputBytes());
    Progress progress(options.bQuiet, SecondsToDo(options, inputs));
    RunTicks(options, sources, rate, [&](int64_t nTick) {
        BeginStep("scaling");
        scaler.Scale(sources[0].Bytes(), out);
        writer.Write(out);
        const double dTime = static_cast<double>(nTick + 1) / av_q2d(rate);
        progress.At(dTime);
        if (pPassing != nullptr) {
            output.WritePassed(pPassing->Passed(), dTime);
        }
        return !writer.IsFull();
    });
    return FinishVideo(options, inputs, pPassing, plan, output, progress, false);
}

Json ForeseeVideo(const Options& options)
{
    Opened<VideoSource> opened(options, AVMEDIA_TYPE_VIDEO, AVMEDIA_TYPE_AUDIO);
    return Describe(options, PlanVideo(options, opened.sources))["output"];
}

} // namespace tool
