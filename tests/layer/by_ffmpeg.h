// The same through a graph of FFmpeg's own sources and filters: what the layer's output is compared with.
#pragma once

#include "Telvane_AVFilter.hpp"

#include "support/support.h"

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavutil/imgutils.h>
}

#include <sstream>
#include <string>
#include <utility>

namespace by_ffmpeg
{

// What comes out: microseconds, and the bytes of a picture.
using Items = std::vector<std::pair<std::int64_t, test::Bytes>>;
constexpr std::size_t kMostItems = 100; // of a description, which may be endless

// Of a description without inputs.
inline Items Run(const std::string& description)
{
    AVFilterGraph* pGraph = avfilter_graph_alloc();
    AVFilterInOut* pInputs = nullptr;
    AVFilterInOut* pOutputs = nullptr;
    pGraph->nb_threads = 1;
    const bool bBuilt = avfilter_graph_parse_ptr(pGraph, (description + ",buffersink@end").c_str(),
                                                 &pInputs, &pOutputs, nullptr) >= 0 &&
                        avfilter_graph_config(pGraph, nullptr) >= 0;
    EXPECT_TRUE(bBuilt) << description;
    AVFilterContext* const pEnd = avfilter_graph_get_filter(pGraph, "buffersink@end");
    AVFrame* pFrame = av_frame_alloc();
    Items items;
    while (bBuilt && items.size() < kMostItems && av_buffersink_get_frame(pEnd, pFrame) >= 0) {
        const auto format = static_cast<AVPixelFormat>(pFrame->format);
        const int n = av_image_get_buffer_size(format, pFrame->width, pFrame->height, 1);
        test::Bytes bytes(static_cast<std::size_t>(n));
        av_image_copy_to_buffer(bytes.data(), n, pFrame->data, pFrame->linesize, format, pFrame->width,
                                pFrame->height, 1);
        const AVRational base = av_buffersink_get_time_base(pEnd);
        items.emplace_back(av_rescale_q(pFrame->pts, base, {1, 1000000}), std::move(bytes));
        av_frame_unref(pFrame);
    }
    av_frame_free(&pFrame);
    avfilter_graph_free(&pGraph);
    return items;
}

// Gradients that turn, as the stream describes them: the samples have all values of the format, and bytes that mean nothing are 255.
inline std::string Source(const telvane::VideoStream& s, std::size_t nSeed)
{
    const telvane::PixelFormat& format = *telvane::FindFormat(s.picture.format);
    const bool bFull =
        s.colour.range == AVCOL_RANGE_JPEG || std::string_view(format.name).starts_with("yuvj");
    const bool bAlpha = format.planes.find('x') == std::string_view::npos;
    const telvane::Rational rate = s.times.empty()      ? s.rate
                                   : s.toldRate.num > 0 ? s.toldRate
                                                        : telvane::Rational{25};
    constexpr std::array kFields{"auto", "prog", "tff", "bff"};
    std::ostringstream text;
    text << "gradients=c0=0xF01080" << (bAlpha ? "10" : "FF") << ":c1=0x20E050FF:n=2:speed=1:seed=" << nSeed
         << ":s=" << s.picture.width << "x" << s.picture.height << ":r=" << rate.num << "/" << rate.den
         << ",format=" << format.name;
    for (std::size_t i = 1; i < s.times.size(); ++i) {
        text << (i > 1 ? "+"
                       : ",settb=" + std::to_string(s.timeBase.num) + "/" + std::to_string(s.timeBase.den) +
                             ",setpts=");
        text << s.times[i] - s.times[i - 1] << "*gte(N\\," << i << ")";
    }
    text << ",trim=end_frame=" << s.length.value_or(0)
         << ",setparams=field_mode=" << kFields.at(static_cast<std::size_t>(s.fields))
         << ":range=" << (bFull ? AVCOL_RANGE_JPEG : s.colour.range)
         << ":color_primaries=" << s.colour.primaries << ":color_trc=" << s.colour.transfer
         << ":colorspace=" << s.colour.matrix << ",setsar=" << s.aspect.num << "/" << s.aspect.den
         << ",format=" << format.name;
    return text.str();
}

// Through the layer, the pictures of the inputs in turn.
inline Items ByLayer(const std::vector<telvane::VideoInput>& inputs, const std::vector<Items>& sent,
                     const std::string& description, const telvane::Picture& out)
{
    telvane::VideoMixer mixer(inputs, description, out);
    test::Bytes buffer(mixer.OutputBytes());
    Items items;
    telvane::Received received;
    for (std::size_t n = 0; items.size() < kMostItems && received.state != telvane::State::kEnd; ++n) {
        for (std::size_t i = 0; i < inputs.size(); ++i) {
            if (n < sent[i].size()) {
                mixer.Send(i, telvane::Bytes(sent[i][n].second));
            }
            while (items.size() < kMostItems && (received = mixer.Receive(telvane::Bytes(buffer)))) {
                items.emplace_back(received.time ? received.time->count() : -1, buffer);
            }
        }
    }
    return items;
}

} // namespace by_ffmpeg
