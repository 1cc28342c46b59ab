#include "jobs.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

namespace tool
{

Inputs OpenInputs(const Options& options, AVMediaType kind)
{
    Inputs inputs;
    for (const Source& source : options.inputs) {
        inputs.push_back(std::make_unique<Input>(source, kind));
    }
    return inputs;
}

namespace
{

// A filter that calls the channels by the places of another layout and leaves the samples as they are.
std::string Relabel(const AVChannelLayout& layout)
{
    std::string map = "0";
    for (int i = 1; i < layout.nb_channels; ++i) {
        map += fmt::format("|{}", i);
    }
    return fmt::format("channelmap=map={}:channel_layout={}", map, LayoutName(layout));
}

// What stands between the library's input and its label: "" or filters.
std::string Head(const Options& options, const Input& input)
{
    std::string text;
    const auto add = [&text](const std::string& filter) {
        text += (text.empty() || filter.empty() ? "" : ",") + filter;
    };
    const double dLength = options.output.dLength;
    if (input.Gives().kind == AVMEDIA_TYPE_VIDEO) {
        // The file's, because filters round to it.
        const AVRational base = input.Stream().time_base;
        add(fmt::format("settb={}/{}", base.num, base.den));
        add(TurnOf(input.Stream()));
        add(dLength > 0 ? fmt::format("tpad=stop_mode=clone:stop_duration={}", dLength) : "");
        return text;
    }
    add(IsUsual(input.Gives().layout) ? "" : Relabel(input.Gives().layout));
    add(dLength > 0 ? fmt::format("apad=whole_dur={}", dLength) : "");
    return text;
}

} // namespace

bool IsUsual(const AVChannelLayout& layout)
{
    AVChannelLayout usual{};
    av_channel_layout_default(&usual, layout.nb_channels);
    return av_channel_layout_compare(&layout, &usual) == 0;
}

int DepthOf(const Input& input)
{
    const AVCodecParameters& parameters = *input.Stream().codecpar;
    if (parameters.codec_type == AVMEDIA_TYPE_AUDIO) {
        return parameters.bits_per_raw_sample;
    }
    const AVPixFmtDescriptor* pPixels = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(parameters.format));
    return pPixels != nullptr ? pPixels->comp[0].depth : 0;
}

Text TextOf(const Options& options, const Inputs& inputs)
{
    Text text;
    std::string heads;
    for (const auto& input : inputs) {
        const std::string& name = input->Of().name;
        const std::string head = Head(options, *input);
        text.labels.push_back(head.empty() ? name : "source@" + name);
        heads += head.empty() ? "" : fmt::format("[{}]{}[{}];", text.labels.back(), head, name);
    }
    text.text = heads + (inputs.size() == 1 && inputs[0]->Of().name == "in"
                             ? telvane::detail::FromIn(options.description)
                             : options.description);
    return text;
}

std::string Ending(const Outcome& outcome)
{
    if (outcome.form.kind == AVMEDIA_TYPE_VIDEO) {
        return fmt::format("format={}", av_get_pix_fmt_name(outcome.form.picture.format));
    }
    const telvane::AudioStream& audio = outcome.form.audio;
    std::string text =
        fmt::format("aformat=sample_fmts={}:sample_rates={}:channel_layouts={}",
                    av_get_sample_fmt_name(audio.format), audio.rate, LayoutName(outcome.form.layout));
    if (!IsUsual(outcome.form.layout)) {
        AVChannelLayout usual{};
        av_channel_layout_default(&usual, audio.channels);
        text += "," + Relabel(usual);
    }
    return text;
}

Input* ChooseOthers(const Options& options, const Inputs& inputs, const Output& output)
{
    if (options.pass == "none" || !output.TakesOthers()) {
        return nullptr;
    }
    for (const auto& input : inputs) {
        const bool bHas = input->File().Format().nb_streams > 1;
        if (options.pass.empty() ? bHas : options.pass == input->Of().name) {
            return input.get();
        }
    }
    if (!options.pass.empty()) {
        throw Failure(kUsage, fmt::format("--pass {}: there is no such input", options.pass));
    }
    return nullptr;
}

FramePtr Wrapped(AVBufferPool& pool, const telvane::Picture& picture)
{
    FramePtr frame = NewFrame();
    frame->buf[0] = av_buffer_pool_get(&pool);
    if (frame->buf[0] == nullptr) {
        throw std::bad_alloc();
    }
    frame->data[0] = frame->buf[0]->data;
    frame->extended_data = frame->data;
    if (picture.width > 0) {
        frame->format = picture.format;
        frame->width = picture.width;
        frame->height = picture.height;
        av_image_fill_arrays(frame->data, frame->linesize, frame->buf[0]->data, picture.format,
                             picture.width, picture.height, 1);
    }
    return frame;
}

void Pack(const AVFrame& frame, std::vector<std::byte>& bytes)
{
    const telvane::Picture picture{static_cast<AVPixelFormat>(frame.format), frame.width, frame.height};
    bytes.resize(telvane::PictureBytes(picture));
    Check(av_image_copy_to_buffer(reinterpret_cast<uint8_t*>(bytes.data()), static_cast<int>(bytes.size()),
                                  frame.data, frame.linesize, picture.format, picture.width, picture.height,
                                  1),
          kOther, "a picture");
}

std::array<std::span<const std::byte>, 4> Planes(const AVFrame& frame, std::vector<std::byte>& buffer)
{
    const telvane::Picture picture{static_cast<AVPixelFormat>(frame.format), frame.width, frame.height};
    const telvane::Planes sizes = telvane::PlaneBytes(picture);
    std::array<std::span<const std::byte>, 4> planes;
    bool bTight = true;
    for (int i = 0; i < 4; ++i) {
        bTight = bTight && (sizes[static_cast<std::size_t>(i)] == 0 ||
                            frame.linesize[i] == av_image_get_linesize(picture.format, frame.width, i));
    }
    const std::byte* pNext = nullptr;
    if (!bTight) {
        Pack(frame, buffer);
        pNext = buffer.data();
    }
    for (std::size_t i = 0; i < planes.size(); ++i) {
        const auto* pPlane = bTight ? reinterpret_cast<const std::byte*>(frame.data[i]) : pNext;
        planes[i] = {pPlane, sizes[i]};
        pNext += bTight ? 0 : sizes[i];
    }
    return planes;
}

// ---- Reports ------------------------------------------------------------------------------------

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

} // namespace

Json Describe(const Options& options, const Inputs& inputs, const Outcome& outcome)
{
    Json json;
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        Json entry{{"name", options.inputs[i].name}};
        entry.update(Describe(inputs[i]->Gives()));
        json["inputs"].push_back(entry);
    }
    json["output"] = Describe(outcome.form);
    if (outcome.form.kind == AVMEDIA_TYPE_VIDEO) {
        json["output"]["rate"] = RateText(outcome.rate);
    }
    return json;
}

void PrintExplanation(const Options& options, Json json, const std::string& dump)
{
    json["graph"] = dump;
    std::string text = dump;
    for (const Json& input : json["inputs"]) {
        text += fmt::format("input \"{}\": {}\n", input["name"].get<std::string>(), InWords(input));
    }
    text += "output: " + InWords(json["output"]);
    fmt::print("{}\n", options.bJson ? InJson(json) : text);
}

Exit Finish(const Options& options, const Inputs& inputs, Output& output, Json json, double dElapsed,
            bool bCut)
{
    const bool bVideo = inputs[0]->Gives().kind == AVMEDIA_TYPE_VIDEO;
    const bool bInterrupted = IsInterrupted();
    for (const auto& input : inputs) {
        input->Join();
    }
    output.Finish(bCut || bInterrupted);
    if (output.Count() == 0) {
        throw Failure(kNothing, bVideo ? "the description gave no picture at the time asked for"
                                       : "the description gave no sound");
    }
    const double dSeconds = output.Seconds();
    std::string text;
    if (bVideo) {
        const telvane::Picture coded = output.Coded();
        const Json& out = json["output"];
        const bool bPadded = coded.width != out["width"] || coded.height != out["height"];
        text = fmt::format("{}: {}, {}x{}", options.output.path, Count(output.Count(), "picture"),
                           out["width"].get<int>(), out["height"].get<int>());
        if (output.Count() > 1) {
            text += fmt::format(", {:.3f} s", dSeconds);
        }
        if (bPadded) {
            text +=
                fmt::format(", stored as {}x{}: this codec has no odd sizes", coded.width, coded.height);
        }
        json["pictures"] = output.Count();
        json["coded"] = {{"width", coded.width}, {"height", coded.height}};
    } else {
        text = fmt::format("{}: {:.3f} s, {} Hz, {}", options.output.path, dSeconds,
                           json["output"]["rate"].get<int>(),
                           Count(json["output"]["channels"].get<int>(), "channel"));
        json["samples"] = output.Count();
    }
    json["seconds"] = dSeconds;
    json["speed"] = dSeconds / std::max(dElapsed, 1e-6);
    json["interrupted"] = bInterrupted;
    for (const std::string& note : output.Notes()) {
        json["notes"].push_back(note);
        if (!options.bJson) {
            Tell(options, note);
        }
    }
    bool bDamaged = false;
    for (const auto& input : inputs) {
        if (input->Damaged() > 0) {
            bDamaged = true;
            json["damaged"].push_back(input->Of().path);
            Tell(options,
                 fmt::format("{} is damaged or cut: what could be decoded was used", input->Of().path));
        }
    }
    std::FILE* pTo = output.IsPipe() ? stderr : stdout; // a pipe carries the result alone
    if (options.bJson) {
        fmt::print(pTo, "{}\n", InJson(json));
    } else if (!options.bQuiet) {
        fmt::print(pTo, "{}{}\n", text, bInterrupted ? ", interrupted" : "");
    }
    return bInterrupted ? kInterrupted : bDamaged ? kDamaged : kDone;
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
    const auto word = [&](const char* szName) { return stream[szName].get<std::string>(); };
    const auto addWord = [&](const char* szName, const char* szWords) {
        if (stream.contains(szName)) {
            add(fmt::format(fmt::runtime(szWords), word(szName)));
        }
    };
    addWord("codec", "{}");
    if (stream.contains("width")) {
        add(fmt::format("{}x{}, {}", stream["width"].get<int>(), stream["height"].get<int>(),
                        word("format")));
        addWord("rate", "{} pictures a second");
        addWord("aspect", "pixels of {}");
        addWord("fields", "interlaced, {}");
        addWord("turned", "shown by {}");
        std::string colour;
        if (const auto found = stream.find("colour"); found != stream.end()) {
            for (const auto& [name, value] : found->items()) {
                colour +=
                    fmt::format("{}{} {}", colour.empty() ? "" : ", ", name, value.get<std::string>());
            }
        }
        add(colour.empty() ? "colours not told" : colour);
    } else if (stream.contains("channels")) {
        add(fmt::format("{} Hz, {} ({}), {}", stream["rate"].get<int>(),
                        Count(stream["channels"].get<int>(), "channel"), word("layout"), word("format")));
    }
    if (stream.contains("seconds")) {
        add(fmt::format("{:.3f} s", stream["seconds"].get<double>()));
    }
    addWord("language", "language {}");
    addWord("title", "\"{}\"");
    add(stream.contains("cover") ? "cover" : "");
    text.resize(text.ends_with(", ") ? text.size() - 2 : text.size());
    return text;
}

} // namespace tool
