#include "jobs_common.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

namespace tool
{

std::string RateText(AVRational rate)
{
    return rate.den == 1 ? fmt::format("{}", rate.num) : fmt::format("{}/{}", rate.num, rate.den);
}

void Report(const Options& options, const Json& json, const std::string& text)
{
    // A pipe that carries the result carries nothing else.
    std::FILE* pTo = options.output.path == "-" ? stderr : stdout;
    if (options.bJson) {
        fmt::print(pTo, "{}\n", json.dump(2));
    } else if (!options.bQuiet) {
        fmt::print(pTo, "{}\n", text);
    }
}

void WarnOfDamage(const std::vector<std::unique_ptr<Input>>& inputs)
{
    for (const auto& input : inputs) {
        if (input->Damaged() > 0) {
            fmt::print(stderr, "telvane-avfilter: {}: {} damaged packets were left out\n", input->Name(),
                       input->Damaged());
        }
    }
}

std::vector<std::unique_ptr<Input>> OpenInputs(const Options& options, AVMediaType kind)
{
    std::vector<std::unique_ptr<Input>> inputs;
    for (const Input::Source& source : options.inputs) {
        inputs.push_back(std::make_unique<Input>(source));
        if (!inputs.back()->Decode(kind)) {
            throw Failure(kInput, fmt::format("{}: it holds no {}", source.path,
                                              kind == AVMEDIA_TYPE_VIDEO ? "pictures" : "sound"));
        }
    }
    return inputs;
}

Input* ChoosePassed(const Options& options, const std::vector<std::unique_ptr<Input>>& inputs,
                    AVMediaType kind)
{
    const std::string format = Output::FormatOf(options.output.path, options.output.format);
    if (options.pass == "none" || (format != "mp4" && format != "mkv")) {
        return nullptr;
    }
    for (const auto& input : inputs) {
        if ((options.pass.empty() || options.pass == input->Name()) && input->PassOn(kind)) {
            return input.get();
        }
    }
    if (!options.pass.empty()) {
        throw Failure(kUsage,
                      fmt::format("--pass {}: no such input, or it has nothing to pass on", options.pass));
    }
    return nullptr;
}

double LongestOf(const std::vector<std::unique_ptr<Input>>& inputs)
{
    double dLongest = 0;
    for (const auto& input : inputs) {
        dLongest = std::max(dLongest, input->Duration());
    }
    return dLongest;
}

void RefuseEndless(const Options& options, const OwnGraph& graph)
{
    if (options.dLength <= 0 && !graph.Count()) {
        throw Failure(kUsage, "the description goes on without end: set one with --length");
    }
}

void PrintExplanation(const Options& options, Json json, const OwnGraph& graph)
{
    json["graph"] = graph.Dump();
    std::string text = graph.Dump();
    for (const Json& input : json["inputs"]) {
        text += fmt::format("input  {}\n", input.dump());
    }
    text += fmt::format("output {}", json["output"].dump());
    fmt::print("{}\n", options.bJson ? json.dump(2) : text);
}

} // namespace tool
