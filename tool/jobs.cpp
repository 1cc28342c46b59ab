#include "jobs.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cstdio>

namespace tool
{

namespace
{

std::string RateText(AVRational rate)
{
    return rate.den == 1 ? fmt::format("{}", rate.num) : fmt::format("{}/{}", rate.num, rate.den);
}

const char* OrUnknown(const char* sz)
{
    return sz != nullptr ? sz : "unknown";
}

Json Describe(const Form& form)
{
    if (form.kind == AVMEDIA_TYPE_VIDEO) {
        return {{"width", form.picture.width},
                {"height", form.picture.height},
                {"format", OrUnknown(av_get_pix_fmt_name(form.picture.format))}};
    }
    return {{"rate", form.audio.rate},
            {"channels", form.audio.channels},
            {"format", OrUnknown(av_get_sample_fmt_name(form.audio.format))},
            {"layout", LayoutName(form.layout)}};
}

// JSON as a reader wants it: "codec h264, width 320 ..."
std::string InWords(const Json& json)
{
    std::vector<std::string> words;
    const Json flat = json.flatten();
    for (const auto& [path, value] : flat.items()) {
        words.push_back(path.substr(1) + " " +
                        (value.is_string() ? value.get<std::string>() : value.dump()));
    }
    return fmt::format("{}", fmt::join(words, ", "));
}

Json DescribeStream(const Demuxer& file, AVStream& stream)
{
    const AVCodecParameters& parameters = *stream.codecpar;
    Json entry = {{"index", stream.index},
                  {"kind", OrUnknown(av_get_media_type_string(parameters.codec_type))},
                  {"codec", avcodec_get_name(parameters.codec_id)}};
    const AVMediaType kind = parameters.codec_type;
    if (kind == AVMEDIA_TYPE_VIDEO || kind == AVMEDIA_TYPE_AUDIO) {
        const telvane::AudioStream audio{static_cast<AVSampleFormat>(parameters.format),
                                         parameters.sample_rate, parameters.ch_layout.nb_channels, 0};
        entry.update(
            Describe({kind,
                      {static_cast<AVPixelFormat>(parameters.format), parameters.width, parameters.height},
                      audio,
                      parameters.ch_layout}));
        entry["taken"] = file.Choose(kind) == &stream;
    }
    if (kind == AVMEDIA_TYPE_VIDEO) {
        entry["rate"] = RateText(av_guess_frame_rate(&file.Format(), &stream, nullptr));
        const AVRational aspect = av_guess_sample_aspect_ratio(&file.Format(), &stream, nullptr);
        if (aspect.num > 0 && av_cmp_q(aspect, {1, 1}) != 0) {
            entry["aspect"] = fmt::format("{}:{}", aspect.num, aspect.den);
        }
        const std::pair<const char*, const char*> colours[] = {
            {"range", av_color_range_name(parameters.color_range)},
            {"matrix", av_color_space_name(parameters.color_space)},
            {"primaries", av_color_primaries_name(parameters.color_primaries)},
            {"transfer", av_color_transfer_name(parameters.color_trc)}};
        for (const auto& [szName, szValue] : colours) {
            if (std::string_view(OrUnknown(szValue)) != "unknown") {
                entry["colour"][szName] = szValue;
            }
        }
        if (parameters.field_order > AV_FIELD_PROGRESSIVE) {
            const bool bTop =
                parameters.field_order == AV_FIELD_TT || parameters.field_order == AV_FIELD_TB;
            entry["fields"] = bTop ? "top first" : "bottom first";
        }
        if (const std::string turn = TurnOf(stream); !turn.empty()) {
            entry["shown by"] = turn;
        }
    }
    if (stream.duration != AV_NOPTS_VALUE) {
        entry["seconds"] = static_cast<double>(stream.duration) * av_q2d(stream.time_base);
    }
    for (const char* szTag : {"language", "title"}) {
        if (const AVDictionaryEntry* pTag = av_dict_get(stream.metadata, szTag, nullptr, 0)) {
            entry[szTag] = pTag->value;
        }
    }
    if ((stream.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0) {
        entry["cover"] = true;
    }
    return entry;
}

} // namespace

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
        text += "input: " + InWords(input) + "\n";
    }
    fmt::print("{}\n", options.bJson ? InJson(json) : text + "output: " + InWords(json["output"]));
    return kDone;
}

Exit Finish(const Options& options, const Inputs& inputs, Output& output, Json json)
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

std::string InJson(const Json& json)
{
    return json.dump(2, ' ', false, Json::error_handler_t::replace);
}

Exit RunProbe(const Options& options)
{
    const Source& source = options.inputs[0];
    const Demuxer file(source);
    const AVFormatContext& format = file.Format();
    Json json{{"path", source.path}, {"format", format.iformat->name}, {"seconds", file.Seconds()}};
    const AVDictionaryEntry* pTag = nullptr;
    while ((pTag = av_dict_get(format.metadata, "", pTag, AV_DICT_IGNORE_SUFFIX)) != nullptr) {
        json["tags"][pTag->key] = pTag->value;
    }
    std::string text = InWords(json);
    for (unsigned i = 0; i < format.nb_streams; ++i) {
        const Json entry = DescribeStream(file, *format.streams[i]);
        text += (entry.value("taken", false) ? "\n* " : "\n  ") + InWords(entry);
        json["streams"].push_back(entry);
    }
    for (unsigned i = 0; i < format.nb_chapters; ++i) {
        const AVChapter& chapter = *format.chapters[i];
        const AVDictionaryEntry* pTitle = av_dict_get(chapter.metadata, "title", nullptr, 0);
        const Json entry{{"start", static_cast<double>(chapter.start) * av_q2d(chapter.time_base)},
                         {"title", pTitle != nullptr ? pTitle->value : ""}};
        text += "\n  chapter: " + InWords(entry);
        json["chapters"].push_back(entry);
    }
    text += "\n* is what a command takes unless --stream says otherwise";
    fmt::print("{}\n", options.bJson ? InJson(json) : text);
    return kDone;
}

} // namespace tool
