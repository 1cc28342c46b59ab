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

std::string Count(int64_t n, const char* szOne)
{
    return fmt::format("{} {}{}", n, szOne, n == 1 ? "" : "s");
}

std::string InJson(const Json& json)
{
    return json.dump(2, ' ', false, Json::error_handler_t::replace);
}

std::string InWords(const Json& stream)
{
    std::string text;
    const auto add = [&text](const std::string& part) { text += (text.empty() ? "" : ", ") + part; };
    if (stream.contains("codec")) {
        add(stream["codec"].get<std::string>());
    }
    if (stream.contains("width")) {
        add(fmt::format("{}x{}, {}", stream["width"].get<int>(), stream["height"].get<int>(),
                        stream["format"].get<std::string>()));
        if (stream.contains("rate")) {
            add(stream["rate"].get<std::string>() + " pictures a second");
        }
    } else if (stream.contains("channels")) {
        add(fmt::format("{} Hz, {}, {}", stream["rate"].get<int>(),
                        Count(stream["channels"].get<int>(), "channel"),
                        stream["format"].get<std::string>()));
    }
    if (stream.contains("seconds")) {
        add(fmt::format("{:.3f} s", stream["seconds"].get<double>()));
    }
    return text;
}

void Report(const Options& options, const Json& json, const std::string& text)
{
    // A pipe that carries the result carries nothing else.
    std::FILE* pTo = options.output.path == "-" ? stderr : stdout;
    if (options.bJson) {
        fmt::print(pTo, "{}\n", InJson(json));
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

std::string SourceLabel(const std::string& name)
{
    return "source@" + name;
}

std::string TextOf(const Options& options)
{
    return options.inputs.size() == 1 && options.inputs[0].name == "in"
               ? telvane::detail::FromIn(options.description)
               : options.description;
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
    if (options.bExplain || options.output.path.empty()) {
        return nullptr;
    }
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

OutputWish WishOf(const Options& options, const Input* pPassing)
{
    OutputWish wish = options.output;
    wish.pPassed = pPassing != nullptr ? pPassing->PassedStream() : nullptr;
    return wish;
}

double Until(const Options& options)
{
    return options.dLength > 0 ? options.dLength : kForever;
}

void FinishPassed(const Options& options, Input& passing, Output& output, double dSeconds, bool bOver)
{
    const bool bCut = IsInterrupted() || bOver || options.dLength > 0 || options.atEnd == AtEnd::kStop;
    output.WriteRest(passing, bCut ? dSeconds : kForever);
}

double SecondsToDo(const Options& options, const std::vector<std::unique_ptr<Input>>& inputs)
{
    if (options.dLength > 0) {
        return options.dLength;
    }
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
        text += fmt::format("input \"{}\": {}\n", input["name"].get<std::string>(), InWords(input));
    }
    text += "output: " + InWords(json["output"]);
    fmt::print("{}\n", options.bJson ? InJson(json) : text);
}

} // namespace tool
