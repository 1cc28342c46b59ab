#include "jobs.h"

#include <fmt/format.h>

#include <cstdio>

namespace tool
{

namespace
{

std::string TagOf(const AVDictionary* pTags, const char* szName)
{
    const AVDictionaryEntry* pTag = av_dict_get(pTags, szName, nullptr, 0);
    return pTag != nullptr ? pTag->value : "";
}

const char* OrUnknown(const char* sz)
{
    return sz != nullptr ? sz : "unknown";
}

std::string RateText(AVRational rate)
{
    return rate.den == 1 ? fmt::format("rate {}", rate.num) : fmt::format("rate {}/{}", rate.num, rate.den);
}

std::string Describe(const Form& form)
{
    if (form.kind == AVMEDIA_TYPE_VIDEO) {
        return fmt::format("width {}, height {}, format {}", form.picture.width, form.picture.height,
                           OrUnknown(av_get_pix_fmt_name(form.picture.format)));
    }
    return fmt::format("rate {}, channels {}, format {}, layout {}", form.audio.rate, form.audio.channels,
                       OrUnknown(av_get_sample_fmt_name(form.audio.format)), LayoutName(form.layout));
}

std::string DescribeOutput(const Outcome& outcome)
{
    const bool bVideo = outcome.form.kind == AVMEDIA_TYPE_VIDEO;
    return Describe(outcome.form) + (bVideo ? ", " + RateText(outcome.rate) : "");
}

std::string DescribeStream(const Demuxer& file, AVStream& stream)
{
    const AVCodecParameters& parameters = *stream.codecpar;
    const AVMediaType kind = parameters.codec_type;
    const bool bMedia = kind == AVMEDIA_TYPE_VIDEO || kind == AVMEDIA_TYPE_AUDIO;
    std::string text = fmt::format(
        "{} index {}, kind {}, codec {}", bMedia && file.Choose(kind) == &stream ? '*' : ' ', stream.index,
        OrUnknown(av_get_media_type_string(kind)), avcodec_get_name(parameters.codec_id));
    const auto add = [&](const char* szName, const std::string& value) {
        text += value.empty() || value == "unknown" ? "" : fmt::format(", {} {}", szName, value);
    };
    if (bMedia) {
        const telvane::AudioStream audio{static_cast<AVSampleFormat>(parameters.format),
                                         parameters.sample_rate, parameters.ch_layout.nb_channels, 0};
        text +=
            ", " +
            Describe({kind,
                      {static_cast<AVPixelFormat>(parameters.format), parameters.width, parameters.height},
                      audio,
                      parameters.ch_layout});
    }
    if (kind == AVMEDIA_TYPE_VIDEO) {
        text += ", " + RateText(av_guess_frame_rate(&file.Format(), &stream, nullptr));
        const AVRational aspect = av_guess_sample_aspect_ratio(&file.Format(), &stream, nullptr);
        if (aspect.num > 0 && av_cmp_q(aspect, {1, 1}) != 0) {
            add("aspect", fmt::format("{}:{}", aspect.num, aspect.den));
        }
        add("range", OrUnknown(av_color_range_name(parameters.color_range)));
        add("matrix", OrUnknown(av_color_space_name(parameters.color_space)));
        add("primaries", OrUnknown(av_color_primaries_name(parameters.color_primaries)));
        add("transfer", OrUnknown(av_color_transfer_name(parameters.color_trc)));
        if (parameters.field_order > AV_FIELD_PROGRESSIVE) {
            const bool bTop =
                parameters.field_order == AV_FIELD_TT || parameters.field_order == AV_FIELD_TB;
            add("fields", bTop ? "top first" : "bottom first");
        }
        add("shown by", TurnOf(stream));
    }
    if (stream.duration != AV_NOPTS_VALUE) {
        add("seconds",
            fmt::format("{:.3f}", static_cast<double>(stream.duration) * av_q2d(stream.time_base)));
    }
    add("language", TagOf(stream.metadata, "language"));
    add("title", TagOf(stream.metadata, "title"));
    return text + ((stream.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0 ? ", cover" : "") + "\n";
}

} // namespace

Exit Explain(const Inputs& inputs, const Outcome& outcome)
{
    std::string text = outcome.dump;
    for (const auto& input : inputs) {
        text += fmt::format("input: name {}, {}\n", input->Of().name, Describe(input->Gives()));
    }
    fmt::print("{}output: {}\n", text, DescribeOutput(outcome));
    return kDone;
}

Exit Finish(const Options& options, const Inputs& inputs, Output& output, const Outcome& outcome)
{
    const bool bInterrupted = IsInterrupted();
    for (const auto& input : inputs) {
        input->Join();
    }
    output.Finish();
    FailIf(output.Count() == 0, kNothing, "the description gave nothing, or nothing at the time asked for");
    for (const std::string& note : output.Notes()) {
        Tell(options, note);
    }
    bool bDamaged = false;
    for (const auto& input : inputs) {
        if (input->Damaged() > 0) {
            bDamaged = true;
            Tell(options, input->Of().path + " is damaged or cut: what could be decoded was used");
        }
    }
    if (!options.bQuiet) { // a pipe carries the result alone
        fmt::print(output.IsPipe() ? stderr : stdout, "{}: {} {}{}, {:.3f} s, {}{}\n", options.output.path,
                   output.Count(), outcome.form.kind == AVMEDIA_TYPE_VIDEO ? "picture" : "sample",
                   output.Count() == 1 ? "" : "s", output.Seconds(), DescribeOutput(outcome),
                   bInterrupted ? ", interrupted" : "");
    }
    return bInterrupted ? kInterrupted : bDamaged ? kDamaged : kDone;
}

void Tell(const Options& options, const std::string& text)
{
    if (!options.bQuiet) {
        fmt::print(stderr, "telvane-avfilter: {}\n", text);
    }
}

Exit RunProbe(const Options& options)
{
    const Source& source = options.inputs[0];
    const Demuxer file(source);
    const AVFormatContext& format = file.Format();
    std::string text =
        fmt::format("{}: format {}, seconds {:.3f}\n", source.path, format.iformat->name, file.Seconds());
    const AVDictionaryEntry* pTag = nullptr;
    while ((pTag = av_dict_get(format.metadata, "", pTag, AV_DICT_IGNORE_SUFFIX)) != nullptr) {
        text += fmt::format("  tag: {} {}\n", pTag->key, pTag->value);
    }
    for (unsigned i = 0; i < format.nb_streams; ++i) {
        text += DescribeStream(file, *format.streams[i]);
    }
    for (unsigned i = 0; i < format.nb_chapters; ++i) {
        const AVChapter& chapter = *format.chapters[i];
        text += fmt::format("  chapter: start {:.3f}, title {}\n",
                            static_cast<double>(chapter.start) * av_q2d(chapter.time_base),
                            TagOf(chapter.metadata, "title"));
    }
    fmt::print("{}* is what a command takes unless --stream says otherwise\n", text);
    return kDone;
}

} // namespace tool
