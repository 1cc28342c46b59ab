// The same streams through a graph built by hand with libavfilter: what the layer's output is compared with.
#pragma once

#include "Telvane_AVFilter.hpp"

#include "support/support.h"

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/channel_layout.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
}

#include <map>
#include <memory>
#include <string>

namespace by_hand
{

// What comes out: microseconds, and the bytes of a picture or block.
struct Item {
    std::int64_t nTime = 0;
    test::Bytes bytes;
    bool operator==(const Item&) const = default;
};
using Items = std::vector<Item>;
using Contents = std::vector<test::Bytes>; // of the pictures or blocks of an input
constexpr std::size_t kMostItems = 100;    // of a description, which may be endless

struct FreeFrame {
    void operator()(AVFrame* p) const { av_frame_free(&p); }
};
using Frame = std::unique_ptr<AVFrame, FreeFrame>;
struct FreeGraph {
    void operator()(AVFilterGraph* p) const { avfilter_graph_free(&p); }
};

inline std::string Text(telvane::Rational r)
{
    return std::to_string(r.num) + "/" + std::to_string(r.den);
}
inline std::string SourceOf(const telvane::VideoStream& s)
{
    const bool bEven = s.times.empty();
    return "buffer=video_size=" + std::to_string(s.picture.width) + "x" + std::to_string(s.picture.height) +
           ":pix_fmt=" + std::to_string(s.picture.format) +
           ":time_base=" + Text(bEven ? telvane::Rational{s.rate.den, s.rate.num} : s.timeBase) +
           (bEven ? ":frame_rate=" + Text(s.rate) : "") + ":pixel_aspect=" + Text(s.aspect);
}
inline std::string SourceOf(const telvane::AudioStream& s)
{
    return "abuffer=sample_rate=" + std::to_string(s.rate) + ":sample_fmt=" + std::to_string(s.format) +
           ":channel_layout=" + std::to_string(s.channels) + "c:time_base=1/" + std::to_string(s.rate);
}
inline Frame FrameOf(const telvane::VideoStream& s, const test::Bytes& bytes, std::size_t n,
                     std::int64_t& nEnd)
{
    Frame frame(av_frame_alloc());
    frame->format = s.picture.format;
    frame->width = s.picture.width;
    frame->height = s.picture.height;
    frame->color_range = s.colour.range;
    frame->color_primaries = s.colour.primaries;
    frame->color_trc = s.colour.transfer;
    frame->colorspace = s.colour.matrix;
    frame->sample_aspect_ratio = {s.aspect.num, s.aspect.den};
    frame->pts = s.times.empty() ? static_cast<std::int64_t>(n) : s.times[n];
    nEnd = s.times.empty() ? frame->pts + 1 : s.times[std::min(n + 1, s.times.size() - 1)];
    EXPECT_GE(av_frame_get_buffer(frame.get(), 0), 0);
    std::uint8_t* planes[4];
    int strides[4];
    av_image_fill_arrays(planes, strides, bytes.data(), s.picture.format, frame->width, frame->height, 1);
    const std::uint8_t* from[4] = {planes[0], planes[1], planes[2], planes[3]};
    av_image_copy(frame->data, frame->linesize, from, strides, s.picture.format, frame->width,
                  frame->height);
    return frame;
}
inline Frame FrameOf(const telvane::AudioStream& s, const test::Bytes& bytes, std::size_t n,
                     std::int64_t& nEnd)
{
    Frame frame(av_frame_alloc());
    frame->format = s.format;
    frame->sample_rate = s.rate;
    av_channel_layout_default(&frame->ch_layout, s.channels);
    frame->nb_samples = static_cast<int>(bytes.size()) / s.channels / av_get_bytes_per_sample(s.format);
    frame->pts = static_cast<std::int64_t>(n) * s.samples;
    nEnd = frame->pts + frame->nb_samples;
    EXPECT_GE(av_frame_get_buffer(frame.get(), 0), 0);
    std::copy(bytes.begin(), bytes.end(), frame->data[0]);
    return frame;
}
inline std::string EndOf(const telvane::Picture& out)
{
    return "scale=" + std::to_string(out.width) + ":" + std::to_string(out.height) +
           ",format=" + telvane::FindFormat(out.format)->name + ",buffersink@end";
}
inline std::string EndOf(const telvane::AudioStream& out)
{
    return std::string("aformat=sample_fmts=") + av_get_sample_fmt_name(out.format) +
           ":sample_rates=" + std::to_string(out.rate) +
           ":channel_layouts=" + std::to_string(out.channels) +
           "c,asetnsamples=n=" + std::to_string(out.samples) + ":p=0,abuffersink@end";
}
inline test::Bytes BytesOf(const AVFrame& frame)
{
    if (frame.nb_samples > 0) {
        const auto n = static_cast<std::size_t>(
            av_samples_get_buffer_size(nullptr, frame.ch_layout.nb_channels, frame.nb_samples,
                                       static_cast<AVSampleFormat>(frame.format), 1));
        return {frame.data[0], frame.data[0] + n};
    }
    const auto format = static_cast<AVPixelFormat>(frame.format);
    test::Bytes bytes(
        static_cast<std::size_t>(av_image_get_buffer_size(format, frame.width, frame.height, 1)));
    av_image_copy_to_buffer(bytes.data(), static_cast<int>(bytes.size()), frame.data, frame.linesize,
                            format, frame.width, frame.height, 1);
    return bytes;
}

// One picture or block of each input in turn, and the end after each input's last.
template <class Stream, class Out>
Items ByHand(const std::vector<telvane::Input<Stream>>& inputs, const std::vector<Contents>& contents,
             const std::string& description, const Out& out)
{
    const std::unique_ptr<AVFilterGraph, FreeGraph> graph(avfilter_graph_alloc());
    graph->nb_threads = 1;
    std::string text = "[out]" + EndOf(out) + ";" + description;
    for (const telvane::Input<Stream>& input : inputs) {
        const std::string source = SourceOf(input.stream);
        const std::size_t nName = source.find('=');
        std::string head = source.substr(0, nName);
        head.append("@").append(input.name).append(source.substr(nName)).append("[").append(input.name);
        text.insert(0, head.append("];"));
    }
    AVFilterInOut* pInputs = nullptr;
    AVFilterInOut* pOutputs = nullptr;
    const bool bBuilt =
        avfilter_graph_parse_ptr(graph.get(), text.c_str(), &pInputs, &pOutputs, nullptr) >= 0 &&
        avfilter_graph_config(graph.get(), nullptr) >= 0;
    EXPECT_TRUE(bBuilt) << text;
    Items items;
    std::map<std::string, AVFilterContext*> filters;
    for (unsigned i = 0; bBuilt && i < graph->nb_filters; ++i) {
        const std::string name = graph->filters[i]->name;
        filters[name.substr(name.find('@') + 1)] = graph->filters[i];
    }
    AVFilterContext* const pEnd = filters["end"];
    std::vector<std::int64_t> ends(inputs.size());
    bool bAny = bBuilt;
    for (std::size_t n = 0; bAny; ++n) {
        bAny = false;
        for (std::size_t i = 0; i < inputs.size(); ++i) {
            if (n > contents[i].size()) {
                continue;
            }
            AVFilterContext* const pSource = filters[inputs[i].name];
            if (n < contents[i].size()) {
                const Frame frame = FrameOf(inputs[i].stream, contents[i][n], n, ends[i]);
                bAny = av_buffersrc_add_frame(pSource, frame.get()) >= 0 || bAny;
            } else {
                bAny = av_buffersrc_close(pSource, ends[i], 0) >= 0 || bAny;
            }
            const Frame got(av_frame_alloc());
            while (items.size() < kMostItems && av_buffersink_get_frame(pEnd, got.get()) >= 0) {
                const AVRational base = av_buffersink_get_time_base(pEnd);
                items.push_back({av_rescale_q(got->pts, base, {1, 1000000}), BytesOf(*got)});
                av_frame_unref(got.get());
            }
        }
    }
    return items;
}

// The same through the layer, whose streams have the lengths of the contents.
template <class Mixer, class Stream, class Out>
Items ByLayer(std::vector<telvane::Input<Stream>> inputs, const std::vector<Contents>& contents,
              const std::string& description, const Out& out)
{
    std::size_t nMost = 0;
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        std::size_t nLength = contents[i].size();
        if constexpr (std::is_same_v<Stream, telvane::AudioStream>) {
            nLength = 0;
            for (const test::Bytes& block : contents[i]) {
                nLength += block.size() / telvane::detail::Audio::SampleBytes(inputs[i].stream);
            }
        }
        inputs[i].stream.length = static_cast<std::int64_t>(nLength);
        nMost = std::max(nMost, contents[i].size());
    }
    Mixer mixer(inputs, description, out);
    test::Bytes buffer(mixer.OutputBytes());
    Items items;
    telvane::Received received;
    for (std::size_t n = 0; n <= nMost; ++n) {
        for (std::size_t i = 0; i < inputs.size(); ++i) {
            if (n < contents[i].size()) {
                mixer.Send(i, telvane::Bytes(contents[i][n]));
            }
            while (items.size() < kMostItems && (received = mixer.Receive(telvane::Bytes(buffer)))) {
                items.push_back({received.time ? received.time->count() : -1,
                                 test::Bytes(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(
                                                                                  received.bytes))});
            }
        }
    }
    EXPECT_TRUE(items.size() == kMostItems || received.state == telvane::State::kEnd) << description;
    return items;
}

} // namespace by_hand
