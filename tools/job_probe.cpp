#include "jobs_common.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

#include <fmt/format.h>

namespace tool
{

Exit RunProbe(const Options& options, const std::string& audio, const std::string& video)
{
    Json json;
    std::string text;
    {
        const Input input(options.inputs[0]);
        const AVFormatContext& format = input.Format();
        json = {{"path", options.inputs[0].path},
                {"format", format.iformat->name},
                {"seconds", input.Duration()}};
        text =
            fmt::format("{}: {}, {:.3f} s", options.inputs[0].path, format.iformat->name, input.Duration());
        for (unsigned i = 0; i < format.nb_streams; ++i) {
            const AVStream& stream = *format.streams[i];
            const AVCodecParameters& parameters = *stream.codecpar;
            const char* szKind = av_get_media_type_string(parameters.codec_type);
            Json entry = {{"kind", szKind != nullptr ? szKind : "unknown"},
                          {"codec", avcodec_get_name(parameters.codec_id)}};
            if (parameters.codec_type == AVMEDIA_TYPE_VIDEO) {
                const char* szFormat = av_get_pix_fmt_name(static_cast<AVPixelFormat>(parameters.format));
                entry.update({{"width", parameters.width},
                              {"height", parameters.height},
                              {"format", szFormat != nullptr ? szFormat : "unknown"},
                              {"rate", RateText(stream.avg_frame_rate)}});
            } else if (parameters.codec_type == AVMEDIA_TYPE_AUDIO) {
                const char* szFormat =
                    av_get_sample_fmt_name(static_cast<AVSampleFormat>(parameters.format));
                entry.update({{"rate", parameters.sample_rate},
                              {"channels", parameters.ch_layout.nb_channels},
                              {"format", szFormat != nullptr ? szFormat : "unknown"}});
            }
            if (stream.duration != AV_NOPTS_VALUE) {
                entry["seconds"] = static_cast<double>(stream.duration) * av_q2d(stream.time_base);
            }
            text += fmt::format("\n  {}: {}", entry["kind"].get<std::string>(), InWords(entry));
            json["streams"].push_back(entry);
        }
    }
    if ((!audio.empty() || !video.empty()) && options.inputs[0].path == "-") {
        throw Failure(kUsage, "standard input can be read only once: probe a description on a file");
    }
    Options planned = options;
    if (!audio.empty()) {
        planned.description = audio;
        json["audio"] = ForeseeAudio(planned);
        text += "\nthe sound becomes: " + InWords(json["audio"]);
    }
    if (!video.empty()) {
        planned.description = video;
        json["video"] = ForeseeVideo(planned);
        text += "\nthe pictures become: " + InWords(json["video"]);
    }
    fmt::print("{}\n", options.bJson ? InJson(json) : text);
    return kDone;
}

} // namespace tool
