#include "jobs_common.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace tool
{

namespace
{

struct AudioPlan {
    std::vector<telvane::AudioInput> inputs; // of the library: their labels are the clocks' inputs
    std::string description;
    std::unique_ptr<OwnGraph> graph;
    telvane::AudioStream out;
    AVChannelLayout layout;
};

Json Describe(const Options& options, const AudioPlan& plan)
{
    const auto describe = [](const telvane::AudioStream& stream) {
        return Json{{"rate", stream.rate},
                    {"channels", stream.channels},
                    {"format", av_get_sample_fmt_name(stream.format)}};
    };
    Json json;
    for (std::size_t i = 0; i < plan.inputs.size(); ++i) {
        json["inputs"].push_back(describe(plan.inputs[i].stream));
        json["inputs"].back()["name"] = options.inputs[i].name;
    }
    json["output"] = describe(plan.out);
    json["output"]["layout"] = LayoutName(plan.layout);
    return json;
}

// A filter that calls the channels by the places of another layout and leaves the samples as they are.
std::string Relabel(const AVChannelLayout& layout)
{
    std::string map = "0";
    for (int i = 1; i < layout.nb_channels; ++i) {
        map += fmt::format("|{}", i);
    }
    return fmt::format(",channelmap=map={}:channel_layout={}", map, LayoutName(layout));
}

AudioPlan PlanAudio(const Options& options, const std::vector<AudioSource>& sources)
{
    AudioPlan plan;
    std::vector<telvane::AudioInput> named;
    std::vector<AVChannelLayout> layouts;
    std::string clocks;
    for (std::size_t i = 0; i < sources.size(); ++i) {
        const std::string& name = options.inputs[i].name;
        const AVChannelLayout& layout = sources[i].Layout();
        named.push_back({name, sources[i].Stream()});
        layouts.push_back(layout);
        plan.inputs.push_back({SourceLabel(name), sources[i].Stream()});
        // Blocks have no times in the library, and its channels are the usual ones of their number.
        clocks += fmt::format("[{}]asetpts=NB_CONSUMED_SAMPLES/SR/TB{}[{}];", SourceLabel(name),
                              IsDefault(layout) ? "" : Relabel(layout), name);
    }
    const std::string text = TextOf(options);
    plan.description = clocks + text;
    BeginStep("building the graph");
    // First of all the library's own answer to the description.
    plan.out = sources[0].Stream();
    static_cast<void>(telvane::AudioMixer(plan.inputs, plan.description, plan.out));
    // Packed, as the library gives it; else a format is chosen that it does not end in.
    const auto open = WithoutOut(text);
    plan.graph = std::make_unique<OwnGraph>(
        named, layouts, open ? *open + ",aformat=sample_fmts=u8|s16|s32|flt|dbl" : text);
    plan.out = plan.graph->Audio();
    plan.layout = plan.graph->Layout();
    if (open && !IsDefault(plan.layout)) {
        AVChannelLayout usual{};
        av_channel_layout_default(&usual, plan.layout.nb_channels);
        plan.description = clocks + *open + Relabel(usual);
    }
    plan.out.samples = std::max(1, plan.out.rate / AudioSource::kBlocksPerSecond);
    if (!options.output.path.empty()) {
        const std::string format = Output::FormatOf(options.output.path, options.output.format);
        plan.out.format = Output::SamplesFor(format, sources[0].Stream().format);
    }
    return plan;
}

} // namespace

Exit RunAudio(const Options& options)
{
    Opened<AudioSource> opened(options, AVMEDIA_TYPE_AUDIO, AVMEDIA_TYPE_VIDEO);
    const auto& inputs = opened.inputs;
    std::vector<AudioSource>& sources = opened.sources;
    Input* const pPassing = opened.pPassing;
    AudioPlan plan = PlanAudio(options, sources);
    if (options.bExplain) {
        PrintExplanation(options, Describe(options, plan), *plan.graph);
        return kDone;
    }
    if (plan.graph->Uses({"areverse"})) {
        throw Failure(kNothing,
                      "areverse waits for the end of the stream, which the library cannot signal");
    }
    telvane::AudioMixer mixer(plan.inputs, plan.description, plan.out);
    OutputWish wish = WishOf(options, pPassing);
    wish.audio = plan.out;
    wish.layout = plan.layout;
    Output output(wish);
    output.DrainPile(pPassing, Until(options));

    const std::size_t nFrame = mixer.OutputBytes() / static_cast<std::size_t>(plan.out.samples);
    std::vector<std::byte> out(mixer.OutputBytes());
    int64_t nLimit = std::numeric_limits<int64_t>::max();
    if (options.dLength > 0) {
        nLimit = std::llround(options.dLength * plan.out.rate);
    }
    const auto receive = [&] {
        bool bAny = false;
        while (const auto nBytes = mixer.Receive(out)) {
            bAny = true;
            const auto nLeft = static_cast<std::size_t>(nLimit - output.Samples());
            const std::size_t nSamples = std::min(nLeft, *nBytes / nFrame);
            output.WriteSamples(std::span(out).first(nSamples * nFrame));
            if (nSamples == nLeft) {
                return bAny;
            }
        }
        return bAny;
    };

    Progress progress(options.bQuiet, SecondsToDo(options, inputs));
    constexpr double kStep = 1.0 / AudioSource::kBlocksPerSecond;
    constexpr int kPatience = 30 * AudioSource::kBlocksPerSecond;
    double dTime = 0; // of the inputs
    std::vector<std::vector<std::byte>> blocks(sources.size());
    double dPart = 1; // of the block that is within the inputs' length
    int nPatience = kPatience;
    while (output.Samples() < nLimit && !plan.graph->HasEnded() && nPatience > 0 && !IsInterrupted()) {
        BeginStep("reading the inputs");
        double dShortest = 1;
        double dLongest = 0;
        for (std::size_t i = 0; i < sources.size(); ++i) {
            const double d = static_cast<double>(sources[i].Read(blocks[i])) / sources[i].Stream().samples;
            dShortest = std::min(dShortest, d);
            dLongest = std::max(dLongest, d);
        }
        // With a length to reach, silence goes on for as long as that takes.
        dPart = options.atEnd == AtEnd::kStop ? dShortest : options.dLength > 0 ? 1 : dLongest;
        if (dPart == 0) {
            break;
        }
        BeginStep("filtering");
        bool bAny = options.dLength <= 0 || dLongest > 0;
        for (std::size_t i = 0; i < sources.size(); ++i) {
            // Rounded down, lest the silence of another input's coarser samples make it longer.
            const double dSamples = dPart * sources[i].Stream().samples;
            const bool bTaken =
                plan.graph->Send(i, blocks[i], static_cast<int>(std::floor(dSamples + 1e-6)));
            RefuseEndless(options, *plan.graph);
            if (bTaken && dPart == 1) {
                mixer.Send(i, blocks[i]);
                bAny = receive() || bAny;
            }
        }
        nPatience = bAny ? kPatience : nPatience - 1;
        dTime += dPart * kStep;
        if (dPart < 1) {
            break; // the last block, which the silence after it completes
        }
        progress.At(dTime);
        if (pPassing != nullptr) {
            output.WritePassed(pPassing->Passed(), dTime);
        }
    }

    // What the graph still holds is pushed out by silence; the rest of the silence is cut off.
    const bool bOver = plan.graph->HasEnded();
    if (!IsInterrupted() && output.Samples() < nLimit) {
        BeginStep("bringing out the end");
        std::vector<bool> takes(sources.size());
        for (std::size_t i = 0; i < sources.size(); ++i) {
            takes[i] = plan.graph->Takes(i);
        }
        plan.graph->End();
        nLimit = std::min(nLimit, plan.graph->Count().value_or(std::llround(dTime * plan.out.rate)));
        bool bLast = dPart > 0 && dPart < 1;
        nPatience = kPatience;
        while (output.Samples() < nLimit && !IsInterrupted()) {
            for (std::size_t i = 0; i < sources.size(); ++i) {
                if (!bLast) {
                    blocks[i].assign(mixer.InputBytes(i), std::byte{0});
                }
                if (takes[i]) {
                    mixer.Send(i, blocks[i]);
                }
            }
            bLast = false;
            nPatience = receive() ? nPatience : nPatience - 1;
            if (bOver || nPatience == 0) {
                break;
            }
        }
        if (output.Samples() < nLimit && !IsInterrupted() && nPatience == 0) {
            throw Failure(kNothing,
                          fmt::format("the description keeps {:.3f} s to itself until the end of the "
                                      "stream, which the library cannot signal",
                                      static_cast<double>(nLimit - output.Samples()) / plan.out.rate));
        }
    }
    if (output.Samples() == 0) {
        throw Failure(kNothing, "the description gave no sound");
    }
    const double dSeconds = static_cast<double>(output.Samples()) / plan.out.rate;
    if (pPassing != nullptr) {
        FinishPassed(options, *pPassing, output, dSeconds, bOver);
    }
    const bool bInterrupted = IsInterrupted();
    output.Finish();
    WarnOfDamage(inputs);
    Json json = Describe(options, plan);
    json["samples"] = output.Samples();
    json["seconds"] = dSeconds;
    json["speed"] = dTime / std::max(progress.Elapsed(), 1e-6);
    json["interrupted"] = bInterrupted;
    Report(options, json,
           fmt::format("{}: {:.3f} s, {} Hz, {}{}", options.output.path, dSeconds, plan.out.rate,
                       Count(plan.out.channels, "channel"), bInterrupted ? ", interrupted" : ""));
    return bInterrupted ? kInterrupted : kDone;
}

Json ForeseeAudio(const Options& options)
{
    const Opened<AudioSource> opened(options, AVMEDIA_TYPE_AUDIO, AVMEDIA_TYPE_VIDEO);
    return Describe(options, PlanAudio(options, opened.sources))["output"];
}

} // namespace tool
