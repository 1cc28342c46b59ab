// The same pictures through a graph built by hand with libavfilter: what the layer's output is compared with.
#pragma once

#include "Telvane_AVFilter.hpp"

#include "support/support.h"

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/imgutils.h>
}

#include <map>
#include <memory>
#include <string>
#include <utility>

namespace by_hand
{

// What comes out: microseconds, and the bytes of a picture.
using Items = std::vector<std::pair<std::int64_t, test::Bytes>>;
using Contents = std::vector<test::Bytes>; // of the pictures of an input
constexpr std::size_t kMostItems = 100;    // of a description, which may be endless

struct Free {
    void operator()(AVFrame* p) const { av_frame_free(&p); }
    void operator()(AVFilterGraph* p) const { avfilter_graph_free(&p); }
};
using Frame = std::unique_ptr<AVFrame, Free>;

inline std::string Text(telvane::Rational r)
{
    return std::to_string(r.num) + "/" + std::to_string(r.den);
}
inline std::string SourceOf(const telvane::VideoInput& input)
{
    const telvane::VideoStream& s = input.stream;
    const bool bEven = s.times.empty();
    return "buffer@" + input.name + "=video_size=" + std::to_string(s.picture.width) + "x" +
           std::to_string(s.picture.height) + ":pix_fmt=" + std::to_string(s.picture.format) +
           ":time_base=" + Text(bEven ? telvane::Rational{s.rate.den, s.rate.num} : s.timeBase) +
           ":frame_rate=" + Text(bEven ? s.rate : s.toldRate) +
#if LIBAVFILTER_VERSION_MAJOR >= 10 // which negotiates colours
           ":range=" + std::to_string(s.colour.range) + ":colorspace=" + std::to_string(s.colour.matrix) +
#endif
           ":pixel_aspect=" + Text(s.aspect);
}
// What is said of the nth picture of an input; the source copies its bytes. Gives the time of the stream's end.
inline std::int64_t Describe(AVFrame& frame, const telvane::VideoStream& s, test::Bytes& bytes,
                             std::size_t n)
{
    frame.format = s.picture.format;
    frame.width = s.picture.width;
    frame.height = s.picture.height;
    frame.color_range = s.colour.range;
    frame.color_primaries = s.colour.primaries;
    frame.color_trc = s.colour.transfer;
    frame.colorspace = s.colour.matrix;
    frame.sample_aspect_ratio = {s.aspect.num, s.aspect.den};
    frame.pts = s.times.empty() ? static_cast<std::int64_t>(n) : s.times[n];
    av_image_fill_arrays(frame.data, frame.linesize, bytes.data(), s.picture.format, frame.width,
                         frame.height, 1);
    return s.times.empty() ? frame.pts + 1 : s.times[std::min(n + 1, s.times.size() - 1)];
}
inline test::Bytes BytesOf(const AVFrame& frame)
{
    const auto format = static_cast<AVPixelFormat>(frame.format);
    const int n = av_image_get_buffer_size(format, frame.width, frame.height, 1);
    test::Bytes bytes(static_cast<std::size_t>(n));
    av_image_copy_to_buffer(bytes.data(), n, frame.data, frame.linesize, format, frame.width, frame.height,
                            1);
    return bytes;
}

// One picture of each input in turn, and the end after each input's last.
inline Items ByHand(const std::vector<telvane::VideoInput>& inputs, std::vector<Contents> contents,
                    const std::string& description, const telvane::Picture& out)
{
    const std::unique_ptr<AVFilterGraph, Free> graph(avfilter_graph_alloc());
    graph->nb_threads = 1;
    std::string text = description + ";[out]scale=" + std::to_string(out.width) + ":" +
                       std::to_string(out.height) + ",format=" + telvane::FindFormat(out.format)->name +
                       ",buffersink@end";
    for (const telvane::VideoInput& input : inputs) {
        text.insert(0, SourceOf(input) + "[" + input.name + "];");
    }
    AVFilterInOut* pInputs = nullptr;
    AVFilterInOut* pOutputs = nullptr;
    bool bAny = avfilter_graph_parse_ptr(graph.get(), text.c_str(), &pInputs, &pOutputs, nullptr) >= 0 &&
                avfilter_graph_config(graph.get(), nullptr) >= 0;
    EXPECT_TRUE(bAny) << text;
    std::map<std::string, AVFilterContext*> filters;
    for (unsigned i = 0; i < graph->nb_filters; ++i) {
        const std::string name = graph->filters[i]->name;
        filters[name.substr(name.find('@') + 1)] = graph->filters[i];
    }
    Items items;
    std::vector<std::int64_t> ends(inputs.size());
    for (std::size_t n = 0; bAny; ++n) {
        bAny = false;
        for (std::size_t i = 0; i < inputs.size(); ++i) {
            AVFilterContext* const pSource = filters[inputs[i].name];
            const Frame frame(av_frame_alloc());
            if (n < contents[i].size()) {
                ends[i] = Describe(*frame, inputs[i].stream, contents[i][n], n);
                bAny = av_buffersrc_write_frame(pSource, frame.get()) >= 0 || bAny;
            } else if (n == contents[i].size()) {
                bAny = av_buffersrc_close(pSource, ends[i], 0) >= 0 || bAny;
            }
            const Frame got(av_frame_alloc());
            while (items.size() < kMostItems && av_buffersink_get_frame(filters["end"], got.get()) >= 0) {
                const AVRational base = av_buffersink_get_time_base(filters["end"]);
                items.emplace_back(av_rescale_q(got->pts, base, {1, 1000000}), BytesOf(*got));
                av_frame_unref(got.get());
            }
        }
    }
    return items;
}

// The same through the layer, whose streams have the lengths of the contents.
inline Items ByLayer(std::vector<telvane::VideoInput> inputs, const std::vector<Contents>& contents,
                     const std::string& description, const telvane::Picture& out)
{
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        inputs[i].stream.length = static_cast<std::int64_t>(contents[i].size());
    }
    telvane::VideoMixer mixer(inputs, description, out);
    test::Bytes buffer(mixer.OutputBytes());
    Items items;
    telvane::Received received;
    bool bAny = true;
    for (std::size_t n = 0; bAny; ++n) {
        bAny = false;
        for (std::size_t i = 0; i < inputs.size(); ++i) {
            if (n < contents[i].size()) {
                mixer.Send(i, telvane::Bytes(contents[i][n]));
                bAny = true;
            }
            while (items.size() < kMostItems && (received = mixer.Receive(telvane::Bytes(buffer)))) {
                items.emplace_back(received.time ? received.time->count() : -1, buffer);
            }
        }
    }
    EXPECT_TRUE(items.size() == kMostItems || received.state == telvane::State::kEnd) << description;
    return items;
}

} // namespace by_hand
