#include "jobs.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string_view>

namespace tool
{

namespace
{

// "640x360", "640x" or "x360"; a side that is missing, or below 1, is -1 and follows the other one.
std::array<int, 2> ParseSize(const std::string& text)
{
    constexpr int kLargest = 32768;
    const std::size_t nCross = std::min(text.find('x'), text.size());
    std::array<int, 2> sides{-1, -1};
    const std::string_view parts[2] = {std::string_view(text).substr(0, nCross),
                                       std::string_view(text).substr(std::min(nCross + 1, text.size()))};
    bool bRight = true;
    for (std::size_t i = 0; i < 2; ++i) {
        const char* pEnd = parts[i].data() + parts[i].size();
        const auto [pStop, error] = std::from_chars(parts[i].data(), pEnd, sides.at(i));
        bRight = bRight && (parts[i].empty() || (error == std::errc() && pStop == pEnd)) &&
                 sides.at(i) <= kLargest;
        sides.at(i) = sides.at(i) > 0 ? sides.at(i) : -1;
    }
    if (!bRight || (sides[0] < 0 && sides[1] < 0)) {
        throw Failure(kUsage, fmt::format("\"{}\" is no size: 640x360, 640x or x360, and no side above {}",
                                          text, kLargest));
    }
    return sides;
}

bool IsYuv(AVPixelFormat format)
{
    const AVPixFmtDescriptor* pDescriptor = av_pix_fmt_desc_get(format);
    return (pDescriptor->flags & AV_PIX_FMT_FLAG_RGB) == 0 && pDescriptor->nb_components >= 3;
}

} // namespace

Exit RunScale(const Options& options)
{
    auto [nWidth, nHeight] = ParseSize(options.size);
    Inputs inputs = OpenInputs(options, AVMEDIA_TYPE_VIDEO);
    Input& input = *inputs[0];
    if (!TurnOf(input.Stream()).empty()) { // which takes filters, among them the same scaler
        Options filtered = options;
        filtered.description = fmt::format("scale={}:{}:flags=bilinear", nWidth, nHeight);
        if (options.pixelFormat != AV_PIX_FMT_NONE) {
            filtered.output.options.push_back({"pix_fmt", "v", av_get_pix_fmt_name(options.pixelFormat)});
        }
        inputs.clear();
        return RunFilter(filtered, AVMEDIA_TYPE_VIDEO);
    }
    const telvane::Picture from = input.Gives().picture;
    const double dShape = static_cast<double>(from.width) / from.height;
    nWidth = nWidth < 1 ? std::max(1, static_cast<int>(std::lround(nHeight * dShape))) : nWidth;
    nHeight = nHeight < 1 ? std::max(1, static_cast<int>(std::lround(nWidth / dShape))) : nHeight;

    Outcome outcome;
    outcome.form.kind = AVMEDIA_TYPE_VIDEO;
    outcome.rate = input.Rate();
    outcome.timeBase = input.Stream().time_base;
    outcome.bInterlaced = IsInterlaced(input.First());
    outcome.nDepth = DepthOf(input);
    outcome.bTopFirst = IsTopFirst(input.First());
    // Pixels get the shape that keeps the picture's.
    const AVRational aspect = input.First().sample_aspect_ratio;
    if (aspect.num > 0) {
        av_reduce(&outcome.aspect.num, &outcome.aspect.den, int64_t{aspect.num} * from.width * nHeight,
                  int64_t{aspect.den} * from.height * nWidth, std::numeric_limits<int>::max());
    }
    Output output(options.output, AVMEDIA_TYPE_VIDEO, input);
    const AVPixelFormat wished =
        output.Nearest(options.pixelFormat != AV_PIX_FMT_NONE ? options.pixelFormat : from.format);
    // The library's scaler knows no matrix but BT.601 and no full range: between kinds of colour the tool
    // converts, and the library scales like to like.
    if (!IsYuv(wished) || !IsYuv(from.format)) {
        input.SetFormat(wished);
    }
    const AVFrame& first = input.First();
    outcome.colour = {first.color_range, first.color_primaries, first.color_trc, first.colorspace};
    outcome.form.picture = {wished, nWidth, nHeight};
    const Json json = Describe(options, inputs, outcome);
    if (options.bExplain) {
        PrintExplanation(options, json, "");
        return kDone;
    }
    output.Guard(input.Files());
    Input* pOthers = ChooseOthers(options, inputs, output);
    const std::vector<bool> wanted = output.Open(outcome, pOthers, input);
    telvane::VideoScaler scaler(input.Gives().picture, outcome.form.picture);
    const PoolPtr pool =
        Made<PoolPtr>(av_buffer_pool_init(scaler.OutputBytes() + AV_INPUT_BUFFER_PADDING_SIZE, nullptr));
    std::vector<std::byte> bytes;
    Progress progress(options.bQuiet, input.File().Seconds());
    input.Start(wanted, [&output](PacketPtr packet) { output.Pass(std::move(packet)); });
    bool bFull = false;
    while (!bFull) {
        const FramePtr frame = input.Next();
        if (!frame) {
            break;
        }
        const double dTime = static_cast<double>(frame->pts) * av_q2d(input.Stream().time_base);
        Pack(*frame, bytes);
        FramePtr scaled = Wrapped(*pool, outcome.form.picture);
        scaler.Scale(bytes, {reinterpret_cast<std::byte*>(scaled->buf[0]->data), scaler.OutputBytes()});
        bFull = !output.Put(std::move(scaled), dTime);
        progress.At(dTime);
        if (bFull) {
            input.Stop(dTime);
        }
    }
    return Finish(options, inputs, output, json, progress.Elapsed(), bFull);
}

} // namespace tool
