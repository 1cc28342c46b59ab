#include "jobs.h"

#include <fmt/format.h>

namespace tool
{

namespace
{

const char* OrUnknown(const char* sz)
{
    return sz != nullptr ? sz : "unknown";
}

Json DescribeStream(const Demuxer& file, AVStream& stream)
{
    const AVCodecParameters& parameters = *stream.codecpar;
    Json entry = {{"index", stream.index},
                  {"kind", OrUnknown(av_get_media_type_string(parameters.codec_type))},
                  {"codec", avcodec_get_name(parameters.codec_id)}};
    if (parameters.codec_type == AVMEDIA_TYPE_VIDEO) {
        const auto format = static_cast<AVPixelFormat>(parameters.format);
        entry.update({{"width", parameters.width},
                      {"height", parameters.height},
                      {"format", OrUnknown(av_get_pix_fmt_name(format))},
                      {"rate", RateText(av_guess_frame_rate(&file.Format(), &stream, nullptr))}});
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
            entry["turned"] = turn;
        }
    } else if (parameters.codec_type == AVMEDIA_TYPE_AUDIO) {
        const auto format = static_cast<AVSampleFormat>(parameters.format);
        entry.update({{"rate", parameters.sample_rate},
                      {"channels", parameters.ch_layout.nb_channels},
                      {"format", OrUnknown(av_get_sample_fmt_name(format))},
                      {"layout", LayoutName(parameters.ch_layout)}});
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

Exit RunProbe(const Options& options)
{
    const Source& source = options.inputs[0];
    const Demuxer file(source);
    const AVFormatContext& format = file.Format();
    Json json{{"path", source.path}, {"format", format.iformat->name}, {"seconds", file.Seconds()}};
    std::string text = fmt::format("{}: {}, {:.3f} s", source.path, format.iformat->name, file.Seconds());
    const AVDictionaryEntry* pTag = nullptr;
    while ((pTag = av_dict_get(format.metadata, "", pTag, AV_DICT_IGNORE_SUFFIX)) != nullptr) {
        json["tags"][pTag->key] = pTag->value;
    }
    if (const AVDictionaryEntry* pTitle = av_dict_get(format.metadata, "title", nullptr, 0)) {
        text += fmt::format(", \"{}\"", pTitle->value);
    }
    for (unsigned i = 0; i < format.nb_streams; ++i) {
        AVStream& stream = *format.streams[i];
        Json entry = DescribeStream(file, stream);
        const AVMediaType kind = stream.codecpar->codec_type;
        const bool bTaken =
            (kind == AVMEDIA_TYPE_VIDEO || kind == AVMEDIA_TYPE_AUDIO) && file.Choose(kind) == &stream;
        entry["taken"] = bTaken;
        text += fmt::format("\n{} {} {}: {}", bTaken ? "*" : " ", i, entry["kind"].get<std::string>(),
                            InWords(entry));
        json["streams"].push_back(entry);
    }
    for (unsigned i = 0; i < format.nb_chapters; ++i) {
        const AVChapter& chapter = *format.chapters[i];
        const AVDictionaryEntry* pTitle = av_dict_get(chapter.metadata, "title", nullptr, 0);
        const double dStart = static_cast<double>(chapter.start) * av_q2d(chapter.time_base);
        const char* szTitle = pTitle != nullptr ? pTitle->value : "";
        json["chapters"].push_back({{"start", dStart}, {"title", szTitle}});
        text += fmt::format("\n  chapter at {:.3f} s: {}", dStart, szTitle);
    }
    text += "\n* is what a command takes unless --stream says otherwise";
    fmt::print("{}\n", options.bJson ? InJson(json) : text);
    return kDone;
}

} // namespace tool
