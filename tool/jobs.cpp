#include "jobs.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cstdio>

namespace tool
{

namespace
{

Json Describe(const Form& form)
{
    if (form.kind == AVMEDIA_TYPE_VIDEO) {
        return {{"width", form.picture.width},
                {"height", form.picture.height},
                {"format", av_get_pix_fmt_name(form.picture.format)}};
    }
    return {{"rate", form.audio.rate},
            {"channels", form.audio.channels},
            {"format", av_get_sample_fmt_name(form.audio.format)},
            {"layout", LayoutName(form.layout)}};
}

// How the parts of a stream's description are put, in this order.
constexpr std::pair<const char*, const char*> kWords[] = {
    {"codec", "{}"},
    {"format", "{}"},
    {"layout", "{}"},
    {"aspect", "pixels of {}"},
    {"fields", "interlaced, {}"},
    {"turned", "shown by {}"},
    {"colour", "{1} {0}"},
    {"seconds", "{:.8} s"},
    {"language", "language {}"},
    {"title", "\"{}\""},
    {"cover", "cover"},
};

} // namespace

std::string InWords(const Json& stream)
{
    std::vector<std::string> words;
    for (const auto& [szName, szWords] : kWords) {
        const auto found = stream.find(szName);
        if (found == stream.end()) {
            continue;
        }
        if (szName == std::string_view("format") && stream.contains("width")) {
            words.push_back(fmt::format("{}x{}", stream["width"].get<int>(), stream["height"].get<int>()));
        }
        for (const auto& [name, value] : found->items()) { // without a name if it is no object
            const std::string text = value.is_string() ? value.get<std::string>() : value.dump();
            words.push_back(fmt::format(fmt::runtime(szWords), text, name));
        }
    }
    if (const auto rate = stream.find("rate"); rate != stream.end()) {
        words.push_back(rate->is_string() ? rate->get<std::string>() + " pictures a second"
                                          : rate->dump() + " Hz");
    }
    return fmt::format("{}", fmt::join(words, ", "));
}

Json Describe(const Inputs& inputs, const Outcome& outcome)
{
    Json json;
    for (const auto& input : inputs) {
        Json entry{{"name", input->Of().name}};
        entry.update(Describe(input->Gives()));
        json["inputs"].push_back(entry);
    }
    json["output"] = Describe(outcome.form);
    if (outcome.form.kind == AVMEDIA_TYPE_VIDEO) {
        json["output"]["rate"] = RateText(outcome.rate);
    }
    return json;
}

Exit Explain(const Options& options, const Inputs& inputs, const Outcome& outcome)
{
    Json json = Describe(inputs, outcome);
    json["graph"] = outcome.dump;
    std::string text = outcome.dump;
    for (const Json& input : json["inputs"]) {
        text += fmt::format("input \"{}\": {}\n", input["name"].get<std::string>(), InWords(input));
    }
    fmt::print("{}\n", options.bJson ? InJson(json) : text + "output: " + InWords(json["output"]));
    return kDone;
}

Exit Finish(const Options& options, const Inputs& inputs, Output& output, Json json, double dElapsed)
{
    const bool bInterrupted = IsInterrupted();
    for (const auto& input : inputs) {
        input->Join();
    }
    output.Finish();
    if (output.Count() == 0) {
        throw Failure(kNothing, "the description gave nothing, or nothing at the time asked for");
    }
    const bool bVideo = inputs[0]->Gives().kind == AVMEDIA_TYPE_VIDEO;
    std::vector<std::string> notes = output.Notes();
    json[bVideo ? "pictures" : "samples"] = output.Count();
    json["seconds"] = output.Seconds();
    json["speed"] = output.Seconds() / dElapsed;
    json["interrupted"] = bInterrupted;
    for (const auto& input : inputs) {
        if (input->Damaged() > 0) {
            json["damaged"].push_back(input->Of().path);
            notes.push_back(
                fmt::format("{} is damaged or cut: what could be decoded was used", input->Of().path));
        }
    }
    json["notes"] = notes;
    std::FILE* pTo = output.IsPipe() ? stderr : stdout; // a pipe carries the result alone
    if (options.bJson) {
        fmt::print(pTo, "{}\n", InJson(json));
    } else if (!options.bQuiet) {
        for (const std::string& note : notes) {
            Tell(options, note);
        }
        fmt::print(pTo, "{}: {} {}{}, {:.3f} s, {}{}\n", options.output.path, output.Count(),
                   bVideo ? "picture" : "sample", output.Count() == 1 ? "" : "s", output.Seconds(),
                   InWords(json["output"]), bInterrupted ? ", interrupted" : "");
    }
    return bInterrupted ? kInterrupted : json.contains("damaged") ? kDamaged : kDone;
}

void Tell(const Options& options, const std::string& text)
{
    if (!options.bQuiet) {
        fmt::print(stderr, "telvane-avfilter: {}\n", text);
    }
}

std::string RateText(AVRational rate)
{
    return rate.den == 1 ? fmt::format("{}", rate.num) : fmt::format("{}/{}", rate.num, rate.den);
}

std::string InJson(const Json& json)
{
    return json.dump(2, ' ', false, Json::error_handler_t::replace);
}

} // namespace tool
