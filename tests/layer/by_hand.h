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
}

#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace by_hand
{

// What comes out: microseconds, and the bytes of a picture or block.
using Items = std::vector<std::pair<std::int64_t, test::Bytes>>;
using Contents = std::vector<test::Bytes>; // of the pictures or blocks of an input
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
// The filters of both ends, with the name after "@".
inline std::string SourceOf(const std::string& name, const telvane::VideoStream& s)
{
    const bool bEven = s.times.empty();
    return "buffer@" + name + "=video_size=" + std::to_string(s.picture.width) + "x" +
           std::to_string(s.picture.height) + ":pix_fmt=" + std::to_string(s.picture.format) +
           ":time_base=" + Text(bEven ? telvane::Rational{s.rate.den, s.rate.num} : s.timeBase) +
           (bEven ? ":frame_rate=" + Text(s.rate) : "") + ":pixel_aspect=" + Text(s.aspect);
}
inline std::string SourceOf(const std::string& name, const telvane::AudioStream& s)
{
    return "abuffer@" + name + "=sample_rate=" + std::to_string(s.rate) +
           ":sample_fmt=" + std::to_string(s.format) + ":channel_layout=" + std::to_string(s.channels) +
           "c";
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

// What is said of the nth item of an input; the source copies its bytes. Gives the time of the stream's end.
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
inline std::int64_t Describe(AVFrame& frame, const telvane::AudioStream& s, test::Bytes& bytes,
                             std::size_t n)
{
    frame.format = s.format;
    frame.sample_rate = s.rate;
    av_channel_layout_default(&frame.ch_layout, s.channels);
    frame.nb_samples = static_cast<int>(bytes.size()) / s.channels / av_get_bytes_per_sample(s.format);
    frame.pts = static_cast<std::int64_t>(n) * s.samples;
    frame.data[0] = bytes.data();
    return frame.pts + frame.nb_samples;
}
inline test::Bytes BytesOf(const AVFrame& frame)
{
    test::Bytes bytes;
    if (frame.nb_samples > 0) {
        const auto format = static_cast<AVSampleFormat>(frame.format);
        const int n = frame.nb_samples * frame.ch_layout.nb_channels * av_get_bytes_per_sample(format);
        bytes.assign(frame.data[0], frame.data[0] + n);
    } else {
        const auto format = static_cast<AVPixelFormat>(frame.format);
        const int n = av_image_get_buffer_size(format, frame.width, frame.height, 1);
        bytes.resize(static_cast<std::size_t>(n));
        av_image_copy_to_buffer(bytes.data(), n, frame.data, frame.linesize, format, frame.width,
                                frame.height, 1);
    }
    return bytes;
}

// One picture or block of each input in turn, and the end after each input's last.
template <class Stream, class Out>
Items ByHand(const std::vector<telvane::Input<Stream>>& inputs, std::vector<Contents> contents,
             const std::string& description, const Out& out)
{
    const std::unique_ptr<AVFilterGraph, Free> graph(avfilter_graph_alloc());
    graph->nb_threads = 1;
    std::string text = "[out]" + EndOf(out) + ";" + description;
    for (const telvane::Input<Stream>& input : inputs) {
        text.insert(0, SourceOf(input.name, input.stream) + "[" + input.name + "];");
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
template <class Mixer, class Stream, class Out>
Items ByLayer(std::vector<telvane::Input<Stream>> inputs, const std::vector<Contents>& contents,
              const std::string& description, const Out& out)
{
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        Stream& stream = inputs[i].stream;
        stream.length = static_cast<std::int64_t>(contents[i].size());
        if constexpr (std::is_same_v<Stream, telvane::AudioStream>) {
            const std::size_t nSample = telvane::detail::Audio::SampleBytes(stream);
            stream.length = 0;
            for (const test::Bytes& block : contents[i]) {
                *stream.length += static_cast<std::int64_t>(block.size() / nSample);
            }
        }
    }
    Mixer mixer(inputs, description, out);
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
                items.emplace_back(received.time ? received.time->count() : -1,
                                   test::Bytes(buffer.data(), buffer.data() + received.bytes));
            }
        }
    }
    EXPECT_TRUE(items.size() == kMostItems || received.state == telvane::State::kEnd) << description;
    return items;
}

} // namespace by_hand
