// What the C++ layer adds to the C functions: bounds, refusals, errors, ownership.
#include "Telvane_AVFilter.hpp"

#include "support/faults.h"
#include "support/support.h"

extern "C" {
#include <libavutil/imgutils.h>
}

#include <algorithm>
#include <set>
#include <string>
#include <type_traits>

using namespace telvane;

namespace
{

constexpr VideoStream kVideo{{AV_PIX_FMT_YUV420P, 32, 16}, 25};
constexpr AudioStream kAudio{AV_SAMPLE_FMT_S16, 48000, 2, 480};

std::span<std::byte> Span(test::GuardedBuffer& buffer)
{
    return std::as_writable_bytes(std::span(buffer.Data(), buffer.Size()));
}

// The code of the Error that the call must throw; 0 if it throws none.
template <class Call>
int CodeOf(const Call& call)
{
    try {
        call();
    } catch (const Error& error) {
        return error.code().value();
    }
    return 0;
}

// How many outputs a description gives for eight inputs, asked eight times each.
// Refusals are kByLayer and kByFFmpeg. The outputs are received right before a page that faults.
constexpr int kByLayer = -1;
constexpr int kByFFmpeg = -2;
template <class Filter, class Stream, class Out>
int OutputsOf(const Stream& in, const std::string& description, const Out& out)
{
    const test::KeepsMemoryByContract keeps;
    int nOutputs = 0;
    const int code = CodeOf([&] {
        Filter filter(in, description, out);
        const test::Bytes input = test::Noise(filter.InputBytes());
        test::GuardedBuffer output(filter.OutputBytes());
        for (int i = 0; i < 8; ++i) {
            filter.Send(Bytes(input));
            for (int k = 0; k < 8; ++k) {
                const std::optional<std::size_t> nSize = filter.Receive(Span(output));
                EXPECT_LE(nSize.value_or(0), output.Size()) << description;
                nOutputs += nSize ? 1 : 0;
            }
        }
    });
    const bool bByLayer =
        code == AVFILTER_ERROR_VIDEO_INVALID_PARAM || code == AVFILTER_ERROR_AUDIO_INVALID_PARAM;
    return code == 0 ? nOutputs : bByLayer ? kByLayer : kByFFmpeg;
}

struct Case {
    std::string description;
    int nOutputs;
};

TEST(Layer, VideoStaysInTheBufferWhateverTheDescription)
{
    const Case cases[] = {
        {"scale=400:300", 8},
        {"[in]scale=w=32+16*n:h=64:eval=frame[out]", 8},
        {"zoompan=s=400x400:d=2", 16},
        {"pad=1000:1000,format=rgb24", 8},
        {"[in]split[a][b];[a][b]vstack,format=yuv444p [out] \n", 8},
        {"fps=50", 14}, // the last one waits for its successor
        {"select=mod(n\\,2)", 4},
        {"[in]null[out];[out]scale=300:300[out]", kByFFmpeg},
        {"[in]nullsink;testsrc2=s=640x480[out]", 64},
        {"[in]split[a][b];[a]scale=64:64[out];[b]nullsink", 8},
        {"[in]metadata=mode=add:key=k:value='v[out]",
         8}, // the quote swallows the label, which is then supplied
        // Past the layer's own end, or into it:
        {"[in]null[out];[telvane_out]scale=400:400[telvane_out]", kByLayer},
        {"[in]null[out];[tel'vane'_out]scale=400:400[telvane\\_out]", kByLayer},
        {"sendcmd=c='0.04 scale w 400'", kByLayer},
        {"se\\ndc'm'd@x=c='0.04 scale w 400'", kByLayer},
        {"zmq", kByLayer},
        {std::string("hflip\0,vflip", 12), kByLayer},
        // Wrong:
        {"[in]split[out][out]", kByFFmpeg},
        {"hflip[x]", kByFFmpeg},
        {"[in]hflip[out]\\", kByFFmpeg},
        {" \n", kByLayer},
        {"nosuchfilter", kByFFmpeg},
    };
    for (const Case& entry : cases) {
        EXPECT_EQ(OutputsOf<VideoFilter>(kVideo, entry.description, Size{30, 15}), entry.nOutputs)
            << entry.description;
    }
}

TEST(Layer, AudioStaysInTheBufferWhateverTheDescription)
{
    const Case cases[] = {
        {"anull", 8},
        {"aresample=96000,aformat=sample_fmts=dblp:channel_layouts=7.1", 7},
        {"asetnsamples=n=4000", 0},
        {"asetnsamples=n=7", 7},
        {"asetrate=8000", 47},
        {"[in]anullsink;sine=d=0.025[out]", 3}, // the last one is half as long
        {"asetpts=N/SR/TB,asendcmd=c='0 asetnsamples n 9999'", kByLayer},
        {"asplit[out]", kByFFmpeg},
        {"[in]anull[out];[telvane_out]apad=pad_len=9999[telvane_out]", kByLayer},
    };
    for (const Case& entry : cases) {
        EXPECT_EQ(OutputsOf<AudioFilter>(kAudio, entry.description, kAudio), entry.nOutputs)
            << entry.description;
    }
    for (const AVSampleFormat format :
         {AV_SAMPLE_FMT_U8, AV_SAMPLE_FMT_S32, AV_SAMPLE_FMT_FLT, AV_SAMPLE_FMT_DBL}) {
        EXPECT_EQ(OutputsOf<AudioFilter>(AudioStream{format, 48000, 6, 480}, "anull",
                                         AudioStream{format, 48000, 1, 96}),
                  40);
    }
}

TEST(Layer, AudioIsTheSendersSamples)
{
    AudioFilter filter(kAudio, "volume=0.5:precision=fixed", AudioStream{AV_SAMPLE_FMT_S16, 48000, 2, 240});
    std::vector<std::int16_t> in(960);
    for (std::size_t i = 0; i < in.size(); ++i) {
        in[i] = static_cast<std::int16_t>(2 * i);
    }
    filter.Send(Bytes(in));
    std::vector<std::int16_t> all;
    std::vector<std::int16_t> out(480);
    while (const auto nSize = filter.Receive(Bytes(out))) {
        all.insert(all.end(), out.begin(), out.begin() + static_cast<std::ptrdiff_t>(*nSize / 2));
    }
    ASSERT_EQ(all.size(), in.size());
    for (std::size_t i = 0; i < all.size(); ++i) {
        ASSERT_EQ(all[i], static_cast<std::int16_t>(i));
    }
}

TEST(Layer, MixersKeepTheirInputsApart)
{
    AudioMixer audio({{"a", kAudio}, {"b", kAudio}}, "[a][b]amix=inputs=2:normalize=0:weights=1 0.5",
                     kAudio);
    const std::vector<std::int16_t> a(960, 500);
    const std::vector<std::int16_t> b(960, 200);
    std::vector<std::int16_t> sum(960);
    audio.Send(1, Bytes(b));
    EXPECT_EQ(audio.Receive(Bytes(sum)), std::nullopt);
    audio.Send(0, Bytes(a));
    ASSERT_EQ(audio.Receive(Bytes(sum)), 1920U);
    EXPECT_EQ(sum, std::vector<std::int16_t>(960, 600));

    VideoMixer video({{"left", {{AV_PIX_FMT_GRAY8, 4, 2}, 25}}, {"right", {{AV_PIX_FMT_NV12, 4, 2}, 25}}},
                     "[left]format=yuv420p[l];[right]format=yuv420p[r];[l][r]hstack[out]", {8, 2});
    const test::Bytes gray(8, 0x40);
    const test::Bytes nv12{9, 9, 9, 9, 9, 9, 9, 9, 1, 2, 1, 2};
    test::Bytes out(video.OutputBytes());
    video.Send(0, Bytes(gray), {}, {});
    video.Send(1, Bytes(nv12));
    ASSERT_EQ(video.Receive(Bytes(out)), 24U);
    EXPECT_EQ(test::Bytes(out.begin() + 4, out.begin() + 8), test::Bytes(4, 9));
    EXPECT_EQ(test::Bytes(out.begin() + 16, out.end()), (test::Bytes{128, 128, 1, 1, 128, 128, 2, 2}));
}

// Every format and size of the table against FFmpeg's own count, and through a graph.
TEST(Layer, PlaneSizesAreFFmpegs)
{
    int nKnown = 0;
    for (int i = 0; i < AV_PIX_FMT_NB; ++i) {
        const auto format = static_cast<AVPixelFormat>(i);
        for (const Size size : {Size{32, 16}, Size{33, 15}, Size{1, 1}}) {
            const Planes planes = PlaneBytes({format, size.width, size.height});
            if (planes[0] == 0) {
                continue;
            }
            ++nKnown;
            int nLinesize[4] = {};
            std::size_t nStart[4] = {};
            av_image_fill_linesizes(nLinesize, format, size.width);
            const std::ptrdiff_t nWide[4] = {nLinesize[0], nLinesize[1], nLinesize[2], nLinesize[3]};
            ASSERT_GE(av_image_fill_plane_sizes(nStart, format, size.height, nWide), 0);
            EXPECT_EQ(planes, (Planes{nStart[0], nStart[1], nStart[2]})) << i;
            EXPECT_EQ(nStart[3], 0U);
            EXPECT_EQ(OutputsOf<VideoFilter>(VideoStream{{format, size.width, size.height}, 25}, "null",
                                             Size{8, 8}),
                      8)
                << i;
        }
    }
    EXPECT_EQ(nKnown, 3 * 19);
    EXPECT_EQ(PlaneBytes({AV_PIX_FMT_RGBA, 1 << 20, 1 << 20}), Planes{});
    EXPECT_EQ(PlaneBytes({AV_PIX_FMT_RGBA, -8, -8}), Planes{});
}

TEST(Layer, ConstInputIsNeverWrittenTo)
{
    VideoFilter filter(kVideo, "negate,drawbox=t=fill", Size{32, 16});
    test::GuardedBuffer in(filter.InputBytes(), 0x20);
    test::GuardedBuffer out(filter.OutputBytes());
    in.Protect();
    filter.Send(Span(in));
    ASSERT_TRUE(filter.Receive(Span(out)));
    AudioFilter audio(kAudio, "volume=0.5");
    test::GuardedBuffer block(audio.InputBytes());
    block.Protect();
    audio.Send(Span(block));
    VideoScaler scaler(kVideo.picture, {AV_PIX_FMT_RGB24, 7, 5});
    test::GuardedBuffer rgb(scaler.OutputBytes());
    scaler.Scale(Span(in), Span(rgb));

    // Planes that are not there must not turn the call into one that hands over the whole picture.
    VideoFilter gray({{AV_PIX_FMT_GRAY8, 32, 16}, 25}, "negate");
    gray.Send(Span(in).first(512), {}, {});
    ASSERT_TRUE(gray.Receive(Span(out)));

    // Without a copy it is the caller's own memory that is worked in.
    test::Bytes picture(filter.InputBytes() + VideoFilter::kSpareBytes, 0x20);
    VideoFilter inPlace(kVideo, "negate");
    inPlace.SendWithoutCopy(Bytes(picture));
    ASSERT_TRUE(inPlace.Receive(Span(out)));
    EXPECT_EQ(picture[0], 0xDF);
    EXPECT_EQ(out.Data()[0], 0xDF);
}

TEST(Layer, PicturesHaveTimes)
{
    VideoFilter filter(kVideo, "fps=10,drawbox=enable='gte(t,1)':t=fill:color=white");
    const test::Bytes black(filter.InputBytes(), 16);
    test::Bytes out(filter.OutputBytes());
    std::string seen;
    for (int i = 0; i < 50; ++i) {
        filter.Send(Bytes(black));
        while (filter.Receive(Bytes(out))) {
            seen += out[0] > 100 ? 'w' : 'b';
        }
    }
    EXPECT_EQ(seen, std::string(10, 'b') + std::string(10, 'w'));
}

TEST(Layer, WrongSizesAreRefusedBeforeTheCall)
{
    VideoFilter video(kVideo, "null");
    AudioFilter audio(kAudio, "anull");
    VideoScaler scaler(kVideo.picture, kVideo.picture);
    test::Bytes a(2000);
    const std::span<std::byte> all = Bytes(a);
    const std::span<std::byte> null(static_cast<std::byte*>(nullptr), 768);
    const auto y = all.first(512);
    const auto c = all.first(128);
    const auto refused = [](const auto& call) {
        return CodeOf(call) == AVFILTER_ERROR_VIDEO_INVALID_PARAM ||
               CodeOf(call) == AVFILTER_ERROR_AUDIO_INVALID_PARAM;
    };
    faults::Reset();
    for (const std::span<std::byte> bad : {all.first(0), all.first(767), all.first(769), null}) {
        EXPECT_TRUE(refused([&] { video.Send(bad); }));
        EXPECT_TRUE(refused([&] { video.SendWithoutCopy(bad); }));
        EXPECT_TRUE(refused([&] { scaler.Scale(bad, all); }));
        EXPECT_TRUE(refused([&] { audio.Send(bad); }));
        EXPECT_TRUE(refused([&] { video.Send(bad, c, c); }));
        EXPECT_TRUE(refused([&] { video.Send(y, bad, c); }));
        EXPECT_TRUE(refused([&] { video.Send(y, c, bad); }));
    }
    for (const std::span<std::byte> bad : {all.first(0), all.first(767), null}) {
        EXPECT_TRUE(refused([&] { static_cast<void>(video.Receive(bad)); }));
        EXPECT_TRUE(refused([&] { static_cast<void>(audio.Receive(bad)); }));
        EXPECT_TRUE(refused([&] { scaler.Scale(all.first(768), bad); }));
    }
    EXPECT_TRUE(faults::Log().empty()); // FFmpeg was not called
    video.Send(y, c, c);
    EXPECT_EQ(video.Receive(all), 768U); // larger is enough

    for (const Size size : {Size{31, 16}, Size{32, 15}}) {
        VideoFilter odd({{AV_PIX_FMT_YUV420P, size.width, size.height}, 25}, "null");
        const auto fitting = all.first(odd.InputBytes() + VideoFilter::kSpareBytes);
        EXPECT_TRUE(refused([&] { odd.SendWithoutCopy(fitting); }));
    }

    const auto noVideo = [](VideoStream stream, Size out) {
        return CodeOf([&] { VideoFilter(stream, "null", out); });
    };
    EXPECT_EQ(noVideo({{AV_PIX_FMT_YUVA420P, 32, 16}, 25}, {32, 16}), AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    EXPECT_EQ(noVideo({{AV_PIX_FMT_NONE, 32, 16}, 25}, {32, 16}), AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    EXPECT_EQ(noVideo({{AV_PIX_FMT_YUV420P, 0, 16}, 25}, {32, 16}), AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    EXPECT_EQ(noVideo({{AV_PIX_FMT_YUV420P, 32, 16}, 0}, {32, 16}), AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    for (const Size size : {Size{0, 16}, Size{-1, 16}, Size{1 << 20, 1 << 20}}) {
        EXPECT_EQ(noVideo(kVideo, size), AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    }
    for (const AudioStream bad :
         {AudioStream{AV_SAMPLE_FMT_S16P, 48000, 2, 480}, AudioStream{AV_SAMPLE_FMT_NONE, 48000, 2, 480},
          AudioStream{AV_SAMPLE_FMT_S16, 0, 2, 480}, AudioStream{AV_SAMPLE_FMT_S16, 48000, 0, 480},
          AudioStream{AV_SAMPLE_FMT_S16, 48000, 2, 0},
          AudioStream{AV_SAMPLE_FMT_S16, 48000, 1 << 16, 1 << 15}}) {
        EXPECT_EQ(CodeOf([&] { AudioFilter(bad, "anull"); }), AVFILTER_ERROR_AUDIO_INVALID_PARAM);
        EXPECT_EQ(CodeOf([&] { AudioFilter(kAudio, "anull", bad); }), AVFILTER_ERROR_AUDIO_INVALID_PARAM);
    }
    EXPECT_EQ(CodeOf([] {
                  VideoScaler(kVideo.picture, {AV_PIX_FMT_PAL8, 8, 8});
              }),
              AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    EXPECT_EQ(CodeOf([] {
                  VideoMixer({{std::string(64, 'n'), kVideo}}, "null", {8, 8});
              }),
              AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    EXPECT_EQ(CodeOf([] { VideoMixer({}, "testsrc", {8, 8}); }), AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    EXPECT_EQ(CodeOf([&] { video.VideoMixer::Send(1, all.first(768)); }), AVFILTER_ERROR_VIDEO_NOT_FOUND);
}

TEST(Layer, ScalerGivesTheCInterfacesPictures)
{
    const test::Bytes in = test::Noise(768);
    VideoScaler scaler(kVideo.picture, {AV_PIX_FMT_RGB24, 13, 9});
    test::GuardedBuffer out(scaler.OutputBytes());
    scaler.Scale(Bytes(in), Span(out));
    unsigned long long hHandle = 0;
    ASSERT_TRUE(AVFilter_VideoScale_Init(&hHandle) &&
                AVFilter_VideoScale_Set(hHandle, AV_PIX_FMT_YUV420P, 32, 16, AV_PIX_FMT_RGB24, 13, 9));
    test::Bytes wanted(351);
    auto nSize = static_cast<int>(wanted.size());
    ASSERT_TRUE(
        AVFilter_VideoScale_Fmt(hHandle, reinterpret_cast<const char*>(in.data()), wanted.data(), &nSize));
    AVFilter_VideoScale_Destory(hHandle);
    EXPECT_EQ(out.Copy(), wanted);
}

TEST(Layer, LackOfMemoryIsNotTakenForNoOutput)
{
    VideoFilter video(kVideo, "null");
    AudioFilter audio(kAudio, "anull");
    test::Bytes out(2000);
    EXPECT_EQ(video.Receive(Bytes(out)), std::nullopt);
    EXPECT_EQ(audio.Receive(Bytes(out)), std::nullopt);
    faults::Fail("av_frame_alloc");
    EXPECT_EQ(CodeOf([&] { static_cast<void>(video.Receive(Bytes(out))); }), AVFILTER_ERROR_VIDEO_ALLOC);
    faults::Fail("av_frame_alloc");
    EXPECT_EQ(CodeOf([&] { static_cast<void>(audio.Receive(Bytes(out))); }),
              AVFILTER_ERROR_AUDIO_FRAME_BUFFER);
    faults::Fail("av_buffersrc_add_frame");
    EXPECT_EQ(CodeOf([&] { video.Send(Bytes(out).first(768)); }), AVFILTER_ERROR_VIDEO_SEND_FRAME);
    faults::Fail("av_buffersrc_add_frame");
    EXPECT_EQ(CodeOf([&] { audio.Send(Bytes(out).first(1920)); }), AVFILTER_ERROR_AUDIO_SEND_FRAME);
    faults::Reset();
    video.Send(Bytes(out).first(768));
    EXPECT_TRUE(video.Receive(Bytes(out)));
}

template <class T>
constexpr bool kMoveOnly = std::is_nothrow_move_constructible_v<T>&& std::is_nothrow_move_assignable_v<T> &&
                           !std::is_copy_constructible_v<T> && !std::is_copy_assignable_v<T>;
static_assert(kMoveOnly<AudioFilter> && kMoveOnly<AudioMixer> && kMoveOnly<VideoFilter> &&
              kMoveOnly<VideoMixer> && kMoveOnly<VideoScaler>);

// NOLINTBEGIN(bugprone-use-after-move, clang-analyzer-cplusplus.Move): that is what is tested
// Whether a moved-from object refuses all, and the object it went to works on.
template <class Object, class Use>
void ExpectMoves(Object object, int nNotFound, const Use& use)
{
    const std::size_t nOutput = object.OutputBytes();
    Object other = std::move(object);
    EXPECT_TRUE(object.IsEmpty());
    EXPECT_EQ(object.InputBytes() + object.OutputBytes(), 0U);
    EXPECT_EQ(CodeOf([&] { use(object); }), nNotFound);
    use(other);
    object = std::move(other); // an empty object can be filled again
    EXPECT_EQ(CodeOf([&] { use(other); }), nNotFound);
    EXPECT_EQ(object.OutputBytes(), nOutput);
    use(object);
}

TEST(Layer, MovedFromObjectsAreEmpty)
{
    std::vector<std::byte> in(1920);
    std::vector<std::byte> out(1920);
    const auto picture = std::span(in).first(768);
    ExpectMoves(AudioFilter(kAudio, "anull"), AVFILTER_ERROR_AUDIO_NOT_FOUND, [&](auto& o) { o.Send(in); });
    ExpectMoves(AudioMixer({{"a", kAudio}}, "[a]anull", kAudio), AVFILTER_ERROR_AUDIO_NOT_FOUND,
                [&](auto& o) { static_cast<void>(o.Receive(out)); });
    ExpectMoves(VideoFilter(kVideo, "null"), AVFILTER_ERROR_VIDEO_NOT_FOUND,
                [&](auto& o) { o.Send(picture); });
    ExpectMoves(VideoMixer({{"a", kVideo}}, "[a]null", {8, 8}), AVFILTER_ERROR_VIDEO_NOT_FOUND,
                [&](auto& o) { static_cast<void>(o.Receive(out)); });
    ExpectMoves(VideoScaler(kVideo.picture, {AV_PIX_FMT_RGB24, 8, 8}), AVFILTER_ERROR_VIDEO_NOT_FOUND,
                [&](auto& o) { o.Scale(picture, out); });
    VideoFilter filter(kVideo, "null");
    VideoFilter& same = filter;
    filter = std::move(same);
    EXPECT_TRUE(filter.IsEmpty() && filter.OutputBytes() == 0);
}

// NOLINTEND(bugprone-use-after-move, clang-analyzer-cplusplus.Move)

TEST(Layer, HandlesAreReleased)
{
    test::ExpectFlatMemory([] {
        VideoScaler a(kVideo.picture, kVideo.picture);
        VideoScaler b(kVideo.picture, {AV_PIX_FMT_RGB24, 8, 8});
        a = std::move(b);
        faults::Fail("sws_getContext");
        EXPECT_THROW(VideoScaler(kVideo.picture, kVideo.picture), Error);
        faults::Reset();
    });
}

TEST(Layer, CategoryNamesAndExplainsAllCodes)
{
    std::set<std::string> messages;
    const auto add = [&](int nCode) {
        const std::string message = Category().message(nCode);
        EXPECT_EQ(message.rfind(nCode < 0x80F1000 ? "AVFILTER_ERROR_AUDIO_" : "AVFILTER_ERROR_VIDEO_", 0),
                  0U);
        EXPECT_GT(message.size(), message.find(": ") + 10);
        messages.insert(message);
    };
    for (int i = 1; i <= 9; ++i) {
        add(0x80F0000 + i);
        add(0x80F1000 + i);
    }
    add(0x80F1010);
    add(0x80F1011);
    EXPECT_EQ(messages.size(), 20U);
    EXPECT_EQ(Category().message(0x80F100A).find("unknown"), 0U);
    try {
        const VideoFilter filter(kVideo, "nosuchfilter");
        FAIL();
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::error_code(AVFILTER_ERROR_VIDEO_PARSE_GRAPH, Category()));
        const std::string what = error.what();
        EXPECT_NE(what.find("nosuchfilter"), std::string::npos);
        EXPECT_NE(what.find("AVFILTER_ERROR_VIDEO_PARSE_GRAPH: "), std::string::npos);
    }
}

} // namespace
