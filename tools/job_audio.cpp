#include "jobs_common.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace tool
{

namespace
{

// The label of an input in the library's graph; the description's own label comes after the clock filter.
std::string SourceLabel(const std::string& name)
{
    return "source_" + name;
}

struct AudioPlan {
    std::vector<telvane::AudioInput> inputs;
    std::string description;
    std::unique_ptr<OwnGraph> graph;
    telvane::AudioStream out;
};

Json Describe(const telvane::AudioStream& stream)
{
    return {{"rate", stream.rate},
            {"channels", stream.channels},
            {"format", av_get_sample_fmt_name(stream.format)}};
}

Json Describe(const AudioPlan& plan)
{
    Json json;
    for (const auto& [name, stream] : plan.inputs) {
        json["inputs"].push_back(Describe(stream));
        json["inputs"].back()["name"] = name;
    }
    json["output"] = Describe(plan.out);
    return json;
}

// What the layer is given. Blocks have no times in the library, so each input gets its clock in the graph.
std::shared_ptr<telvane::AudioMixer> MakeAudio(const AudioPlan& plan, const telvane::AudioStream& out)
{
    if (plan.inputs.size() == 1 && plan.inputs[0].name == "in") {
        return std::make_shared<telvane::AudioFilter>(plan.inputs[0].stream, plan.description, out);
    }
    return std::make_shared<telvane::AudioMixer>(plan.inputs, plan.description, out);
}

AudioPlan PlanAudio(const Options& options, const std::vector<AudioSource>& sources)
{
    constexpr const char* kClock = "asetpts=NB_CONSUMED_SAMPLES/SR/TB";
    AudioPlan plan;
    const bool bSingle = options.inputs.size() == 1 && options.inputs[0].name == "in";
    for (std::size_t i = 0; i < sources.size(); ++i) {
        const std::string& name = options.inputs[i].name;
        plan.inputs.push_back({bSingle ? name : SourceLabel(name), sources[i].Stream()});
        if (!bSingle) {
            plan.description += fmt::format("[{}]{}[{}];", SourceLabel(name), kClock, name);
        }
    }
    const std::string& text = options.description;
    const std::size_t nStart = text.starts_with("[in]") ? 4 : 0;
    plan.description += bSingle && text.find_first_not_of(" \n\t\r", nStart) != std::string::npos &&
                                (nStart > 0 || !text.starts_with('['))
                            ? fmt::format("[in]{},{}", kClock, text.substr(nStart))
                            : text;
    BeginStep("building the graph");
    // First of all the library's own answer to the description.
    plan.out = sources[0].Stream();
    MakeAudio(plan, plan.out);
    // Packed, as the library gives it; else a format is chosen that it does not end in.
    plan.graph =
        std::make_unique<OwnGraph>(plan.inputs, WithoutOut(plan.description).value_or(plan.description) +
                                                    ",aformat=sample_fmts=u8|s16|s32|flt|dbl");
    plan.out = plan.graph->Audio();
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
    const auto inputs = OpenInputs(options, AVMEDIA_TYPE_AUDIO);
    Input* pPassing = options.bExplain ? nullptr : ChoosePassed(options, inputs, AVMEDIA_TYPE_VIDEO);
    std::vector<AudioSource> sources;
    sources.reserve(inputs.size());
    for (const auto& input : inputs) {
        sources.emplace_back(*input);
    }
    AudioPlan plan = PlanAudio(options, sources);
    if (options.bExplain) {
        PrintExplanation(options, Describe(plan), *plan.graph);
        return kDone;
    }
    if (plan.graph->Uses({"areverse"})) {
        throw Failure(kNothing,
                      "areverse waits for the end of the stream, which the library cannot signal");
    }
    const auto mixer = MakeAudio(plan, plan.out);
    OutputWish wish = options.output;
    wish.audio = plan.out;
    wish.pPassed = pPassing != nullptr ? pPassing->PassedStream() : nullptr;
    Output output(wish);
    output.DrainPile(pPassing, options.dLength > 0 ? options.dLength : 1e18);

    const std::size_t nFrame = mixer->OutputBytes() / static_cast<std::size_t>(plan.out.samples);
    std::vector<std::byte> out(mixer->OutputBytes());
    int64_t nLimit = std::numeric_limits<int64_t>::max();
    if (options.dLength > 0) {
        nLimit = std::llround(options.dLength * plan.out.rate);
    }
    const auto receive = [&] {
        bool bAny = false;
        while (const auto nBytes = mixer->Receive(out)) {
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

    Progress progress(options.bQuiet, options.dLength > 0 ? options.dLength : LongestOf(inputs));
    constexpr double kStep = 1.0 / AudioSource::kBlocksPerSecond;
    double dTime = 0; // of the inputs
    std::vector<std::vector<std::byte>> blocks(sources.size());
    const bool bCount = options.dLength <= 0;
    double dPart = 1; // of the block that is within the inputs' length
    while (dPart == 1 && output.Samples() < nLimit && !plan.graph->HasEnded() && !IsInterrupted()) {
        BeginStep("reading the inputs");
        double dShortest = 1;
        double dLongest = 0;
        for (std::size_t i = 0; i < sources.size(); ++i) {
            const double d = static_cast<double>(sources[i].Read(blocks[i])) / sources[i].Stream().samples;
            dShortest = std::min(dShortest, d);
            dLongest = std::max(dLongest, d);
        }
        dPart = options.atEnd == AtEnd::kStop ? dShortest : dLongest;
        if (dPart == 0) {
            break;
        }
        BeginStep("filtering");
        for (std::size_t i = 0; i < sources.size(); ++i) {
            // Rounded down, lest the silence of another input's coarser samples make it longer.
            const double dSamples = dPart * sources[i].Stream().samples;
            const bool bTaken =
                !bCount || plan.graph->Send(i, blocks[i], static_cast<int>(std::floor(dSamples + 1e-6)));
            RefuseEndless(options, *plan.graph);
            if (bTaken && dPart == 1) {
                mixer->Send(i, blocks[i]);
                receive();
            }
        }
        if (dPart < 1) {
            dTime += dPart * kStep;
            break; // the last block, which the silence after it completes
        }
        dTime += kStep;
        progress.At(dTime);
        if (pPassing != nullptr) {
            output.WritePassed(pPassing->Passed(), dTime);
        }
    }

    // What the graph still holds is pushed out by silence; the rest of the silence is cut off.
    if (!IsInterrupted()) {
        BeginStep("bringing out the end");
        std::vector<bool> takes(sources.size());
        for (std::size_t i = 0; i < sources.size(); ++i) {
            takes[i] = plan.graph->Takes(i);
        }
        const bool bOver = plan.graph->HasEnded();
        if (bCount) {
            plan.graph->End();
            nLimit = plan.graph->Count().value_or(std::llround(dTime * plan.out.rate));
        }
        int nPatience = 30 * AudioSource::kBlocksPerSecond;
        bool bLast = dPart > 0 && dPart < 1;
        while (output.Samples() < nLimit && !IsInterrupted()) {
            for (std::size_t i = 0; i < sources.size(); ++i) {
                if (!bLast) {
                    blocks[i].assign(mixer->InputBytes(i), std::byte{0});
                }
                if (takes[i]) {
                    mixer->Send(i, blocks[i]);
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
    if (pPassing != nullptr) {
        output.WriteRest(*pPassing, IsInterrupted() ? dTime : options.dLength > 0 ? options.dLength : 1e18);
    }
    const bool bInterrupted = IsInterrupted();
    output.Finish();
    WarnOfDamage(inputs);
    const double dSeconds = static_cast<double>(output.Samples()) / plan.out.rate;
    Json json = Describe(plan);
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
    const auto inputs = OpenInputs(options, AVMEDIA_TYPE_AUDIO);
    std::vector<AudioSource> sources;
    sources.emplace_back(*inputs[0]);
    return Describe(PlanAudio(options, sources))["output"];
}

} // namespace tool
