// What the C++ layer adds to the C functions: bounds, refusals, errors, ownership.
#include "Telvane_AVFilter.hpp"

#include "by_ffmpeg.h"
#include "support/faults.h"
#include "support/jobs.h"

#include <algorithm>
#include <filesystem>
#include <new>
#include <string>
#include <type_traits>

using namespace telvane;

namespace
{

const VideoStream kVideo{{AV_PIX_FMT_YUV420P, 32, 16}, {25}};
const AudioStream kAudio{AV_SAMPLE_FMT_S16, 48000, 2, 480};

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

// How many outputs each description gives for eight inputs, asked eight times each; or who refuses it.
// The outputs are received right before a page that faults.
constexpr int kByLayer = -1, kByFFmpeg = -2;
template <class Filter, class Stream, class Out>
void ExpectOutputs(const Stream& in, const Out& out, const std::vector<std::pair<std::string, int>>& cases)
{
    for (const auto& entry : cases) {
        const std::string& description = entry.first;
        const test::KeepsMemoryByContract keeps;
        int nOutputs = 0;
        const int code = CodeOf([&] {
            Filter filter(in, description, out);
            const test::Bytes input = test::Noise(filter.InputBytes());
            test::GuardedBuffer output(filter.OutputBytes());
            for (int i = 0; i < 64; ++i) {
                if (i % 8 == 0) {
                    filter.Send(Bytes(input));
                }
                const Received received = filter.Receive(Span(output));
                EXPECT_LE(received.bytes, received ? output.Size() : 0) << description;
                nOutputs += received ? 1 : 0;
            }
        });
        const int nRefused = (code & ~0x1000) == AVFILTER_ERROR_AUDIO_INVALID_PARAM ? kByLayer : kByFFmpeg;
        EXPECT_EQ(code == 0 ? nOutputs : nRefused, entry.second) << description;
    }
}

TEST(Layer, OutputsStayInTheBufferWhateverTheDescription)
{
    ExpectOutputs<VideoFilter>(
        kVideo, Picture{AV_PIX_FMT_YUV420P, 30, 15},
        {{"[in]scale=w=32+16*n:h=64:eval=frame[out]", 8},
         {"zoompan=s=400x400:d=2", 16},
         {"[in]split[a][b];[a][b]vstack,format=yuv444p [out] \n", 8},
         {"[in]null[out];[out]scale=300:300[out];", 8},
         {"[in]nullsink;testsrc2=s=640x480[out]", 64},
         {"[in]split[a][b];[a]scale=64:64[out];[b]nullsink", 8},
         {"[in]metadata=mode=add:key=k:value='v[out]", 8}, // the quote swallows the label
         {"metadata=mode=add:key=k:value=v\\", 8},
         // Past the layer's own end, or into it:
         {"[in]null[out];[telvane_out]scale=400:400[telvane_out]", kByLayer},
         {"[in]null[out];[tel'vane'_out]scale=400:400[telvane\\_out]", kByLayer},
         {"se\\ndc'm'd@x=c='0.04 scale w 400'", kByLayer},
         {"zmq", kByLayer},
         {std::string("hflip\0,vflip", 12), kByLayer},
         {" \n", kByLayer},
         {"reverse", kByLayer}, // of a stream without end
         {"palettegen", kByLayer},
         {"[in]split[out][out]", kByFFmpeg},
         {"hflip[x]", kByFFmpeg}});
    const AudioStream slow{AV_SAMPLE_FMT_U8, 1, 6, 1};
    ExpectOutputs<AudioFilter>(slow, slow, {{"anull", 8}});
    ExpectOutputs<AudioFilter>(kAudio, kAudio,
                               {{"aresample=96000,aformat=sample_fmts=dblp:channel_layouts=7.1", 7},
                                {"asetrate=8000", 47},
                                {"[in]anullsink;sine=d=0.025[out]", 3}, // the last one is half as long
                                {"asetpts=N/SR/TB,asendcmd=c='0 asetnsamples n 9999'", kByLayer},
                                {"areverse", kByLayer},
                                {"asplit[out]", kByFFmpeg}});
}

constexpr Picture kSmall{AV_PIX_FMT_YUV420P, 16, 8};

// Byte for byte and to the microsecond what FFmpeg gives, for inputs "a" and "b" of these lengths.
void ExpectAsFFmpeg(const std::vector<std::string>& filters, const VideoStream& stream,
                    const std::vector<int>& lengths, const Picture& out = kSmall)
{
    std::vector<VideoInput> in;
    std::vector<by_ffmpeg::Items> sent;
    std::string sources, labels;
    for (const int n : lengths) {
        in.push_back({in.empty() ? "a" : "b", stream});
        in.back().stream.length = n;
        const std::string source = by_ffmpeg::Source(in.back().stream, in.size());
        sent.push_back(by_ffmpeg::Run(source));
        EXPECT_EQ(static_cast<int>(sent.back().size()), n);
        labels.append("[").append(in.back().name).append("]");
        sources.append(source).append(labels.substr(labels.size() - 3)).append(";");
    }
    for (const std::string& filter : filters) {
        const std::string description = labels + filter + "[out]";
        const std::string whole = sources + description + ";[out]scale=" + std::to_string(out.width) + ":" +
                                  std::to_string(out.height) + ",format=" + FindFormat(out.format)->name;
        EXPECT_EQ(by_ffmpeg::ByLayer(in, sent, description, out), by_ffmpeg::Run(whole)) << whole;
    }
}

// Each way in and out of every format, at sizes that share the planes unevenly.
TEST(Layer, EveryFormatIsGivenAsFFmpegGivesIt)
{
    for (const PixelFormat& format : kPixelFormats) {
        SCOPED_TRACE(format.name);
        const bool bLoose = format.planes.size() == 4 && format.shiftX == 1; // the last sample of odd ones
        for (const auto& [nWidth, nHeight] : {std::pair{1, 1}, {33, 15}, {64, 48}, {351, 288}}) {
            const Picture picture{format.format, bLoose ? (nWidth + 1) & ~1 : nWidth, nHeight};
            EXPECT_EQ(PictureBytes({format.format, nWidth, nHeight}),
                      av_image_get_buffer_size(format.format, nWidth, nHeight, 1));
            if (nWidth != 351 || format.bits <= 8 || format.bits == 10) { // the small sizes do for others
                ExpectAsFFmpeg({"null", "vflip"}, {picture}, {2}, picture);
            }
        }
    }
}

TEST(Layer, PicturesComeInColourNumberAndTimeAsFFmpegGivesThem)
{
    constexpr Colour kHd{AVCOL_RANGE_MPEG, AVCOL_PRI_BT709, AVCOL_TRC_BT709, AVCOL_SPC_BT709};
    constexpr Colour kFull{AVCOL_RANGE_JPEG, AVCOL_PRI_BT709, AVCOL_TRC_BT709, AVCOL_SPC_BT709};
    constexpr Picture kYuv{AV_PIX_FMT_YUV420P, 64, 48};
    constexpr Picture kRgb{AV_PIX_FMT_RGB24, 63, 47};
    const VideoStream even{kSmall, {30000, 1001}};
    const VideoStream uneven{.picture = kSmall,
                             .times = {0, 20, 40, 41, 500, 520, 1000, 1040, 1080, 1120, 1160}};
    const VideoStream film{
        .picture = kSmall, .times = {0, 1, 3, 4}, .timeBase = {1001, 24000}, .toldRate = {24000, 1001}};
    ExpectAsFFmpeg({"null"}, {kYuv}, {5}, kRgb);
    ExpectAsFFmpeg({"null", "eq=saturation=1.5,format=gbrp,negate", "colorspace=bt601-6-625"},
                   {.picture = kYuv, .colour = kHd}, {5}, kRgb);
    ExpectAsFFmpeg({"null"}, {.picture = kYuv, .colour = kFull}, {5}, kRgb);
    ExpectAsFFmpeg({"null"}, {.picture = kRgb, .colour = kFull}, {5}, {AV_PIX_FMT_GRAY10LE, 31, 50});
    ExpectAsFFmpeg({"null"}, {.picture = {AV_PIX_FMT_YUVJ444P, 64, 48}, .colour = kHd}, {5}, kRgb);
    ExpectAsFFmpeg({"scale=w=iw*sar:h=ih,setsar=1"}, {.picture = kYuv, .colour = kHd, .aspect = {3, 2}},
                   {5}, {AV_PIX_FMT_YUV422P10LE, 70, 49});
    ExpectAsFFmpeg({"split[x][y];[x]yadif=deint=interlaced[z];[z][y]vstack"},
                   {.picture = kYuv, .aspect = {1, 1}, .fields = Fields::kBottomFirst}, {5},
                   {AV_PIX_FMT_NV12, 64, 96});
    ExpectAsFFmpeg({"drawbox=t=fill:enable=gte(t\\,0.1)"}, {{AV_PIX_FMT_BGRA, 9, 7}}, {5},
                   {AV_PIX_FMT_YUVA420P, 10, 8});
    ExpectAsFFmpeg({"null", "reverse", "fps=50", "tile=2x2", "telecine", "loop=1:3",
                    "minterpolate=fps=60:mi_mode=dup", "metadata=mode=add:key=telvane:value='a\nb'"},
                   even, {7});
    ExpectAsFFmpeg({"fps=10", "setpts=PTS*2+1/TB", "trim=start=0.1,setpts=PTS-STARTPTS"}, uneven, {10});
    ExpectAsFFmpeg({"overlay=shortest=1", "overlay=eof_action=pass", "concat", "interleave"}, even, {7, 4});
    ExpectAsFFmpeg({"xfade=duration=0.1:offset=0.1"}, even, {7, 8});
    ExpectAsFFmpeg({"framepack=frameseq"}, even, {4, 4});
    ExpectAsFFmpeg({"trim=end_frame=3"}, {kSmall, {1, 1}}, {7});
    ExpectAsFFmpeg({"null"}, even, {0});
    ExpectAsFFmpeg({"null"}, {.picture = kSmall, .times = {0}, .toldRate = {25}}, {0});
    ExpectAsFFmpeg({"null"}, {.picture = kSmall, .times = {0, 1, 3}, .timeBase = {1, 1}}, {3});
    ExpectAsFFmpeg({"histogram"}, {{AV_PIX_FMT_RGB24, 16, 8}}, {2});
    ExpectAsFFmpeg({"setpts=PTS+1,drawbox=t=fill:enable=gt(t\\,0.1)"}, film, {3});
#if LIBAVFILTER_VERSION_MAJOR != 10 // whose setpts forgets the rate
    ExpectAsFFmpeg({"setpts=PTS+N/FRAME_RATE/TB"}, film, {4});
#endif

    // So many times as the memory of a long file of a phone has.
    VideoStream phone{{AV_PIX_FMT_GRAY8, 2, 2}};
    phone.times.assign(100001, 0);
    for (std::size_t i = 1; i < phone.times.size(); ++i) {
        phone.times[i] = phone.times[i - 1] + 15 + static_cast<std::int64_t>(i * 7919 % 37);
    }
    phone.length = 100000;
    VideoFilter filter(phone, "null");
    test::Bytes buffer(4);
    for (std::size_t i = 0; i < 100000; ++i) {
        filter.Send(Bytes(buffer));
        const Received received = filter.Receive(Bytes(buffer));
        ASSERT_TRUE(received && received.time == std::chrono::milliseconds(phone.times[i])) << i;
    }
    EXPECT_EQ(filter.Receive(Bytes(buffer)).state, State::kEnd);
    EXPECT_EQ(CodeOf([&] { filter.Send(Bytes(buffer)); }), AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    for (const auto& file : std::filesystem::directory_iterator("/proc/self/fd")) {
        const bool bTimes = read_symlink(file).string().starts_with("/memfd:telvane");
        EXPECT_TRUE(!bTimes || file_size(file) < 8192); // however many have been told
    }
}

// Streams of unknown length: what comes comes, and what would wait for ever is refused.
TEST(Layer, UnknownLengthsDoNotEnd)
{
    VideoFilter filter(kVideo, "fps=10,drawbox=enable='gte(t,1)':t=fill:color=white");
    test::Bytes picture(filter.InputBytes(), 16);
    std::string seen;
    Received received;
    for (int i = 0; i < 50; ++i) {
        filter.Send(Bytes(picture));
        test::Bytes out(filter.OutputBytes());
        while ((received = filter.Receive(Bytes(out)))) {
            EXPECT_EQ(received.time, std::chrono::milliseconds(100 * seen.size()));
            seen += out[0] > 100 ? 'w' : 'b';
        }
        EXPECT_EQ(received.state, State::kNotYet);
    }
    EXPECT_EQ(seen, std::string(10, 'b') + std::string(10, 'w'));
    VideoStream two = kVideo;
    two.length = 2;
    VideoFilter untimed(two, "reverse", {}, Times::kNone);
    untimed.Send(Bytes(picture));
    EXPECT_EQ(untimed.Receive(Bytes(picture)).state, State::kNotYet);
    untimed.Send(Bytes(picture));
    for (const State state : {State::kOutput, State::kOutput, State::kEnd, State::kEnd}) {
        received = untimed.Receive(Bytes(picture));
        EXPECT_TRUE(received.state == state && !received.time);
    }
    for (const Rational rate : {Rational{30000, 1001}, Rational{10000000, 1}}) {
        VideoFilter timeless({{AV_PIX_FMT_GRAY8, 2, 2}, rate}, "setpts=NAN");
        timeless.Send(Bytes(picture).first(4));
        received = timeless.Receive(Bytes(picture));
        EXPECT_TRUE(received && !received.time);
        timeless.Send(Bytes(picture).first(4));
        EXPECT_TRUE(timeless.Receive(Bytes(picture)));
    }
    VideoFilter rational({kVideo.picture, {24000, 1001}}, "setpts=PTS+1");
    rational.Send(Bytes(picture));
    EXPECT_EQ(rational.Receive(Bytes(picture)).time, std::chrono::microseconds(41708));
    EXPECT_EXIT(
        {
            const int code = CodeOf([&] { static_cast<void>(rational.Receive(Bytes(picture))); });
            std::_Exit(code == AVFILTER_ERROR_VIDEO_INVALID_PARAM ? 7 : 0);
        },
        testing::ExitedWithCode(7), "");
}

TEST(Layer, ConstInputIsNeverWrittenTo)
{
    VideoFilter filter(kVideo, "negate,drawbox=t=fill");
    test::GuardedBuffer in(filter.InputBytes() + VideoFilter::kSpareBytes, 0x20);
    test::GuardedBuffer out(filter.InputBytes());
    const auto picture = Span(in).first(filter.InputBytes());
    in.Protect();
    filter.Send(picture);
    ASSERT_TRUE(filter.Receive(Span(out)));
    VideoScaler scaler(kVideo.picture, kVideo.picture);
    scaler.Scale(picture, Span(out));
    EXPECT_EQ(out.Copy(), test::Bytes(768, 0x20));
    // Planes that are not there must not turn the call into one that hands over the whole picture.
    VideoFilter gray({{AV_PIX_FMT_GRAY8, 32, 16}}, "negate");
    gray.Send(picture.first(512), {}, {});
    ASSERT_TRUE(gray.Receive(Span(out)));

    // Without a copy it is the caller's own memory that is worked in.
    test::Bytes own(in.Size(), 0x20);
    VideoFilter inPlace(kVideo, "negate");
    inPlace.SendWithoutCopy(Bytes(own));
    ASSERT_TRUE(inPlace.Receive(Span(out)));
    EXPECT_EQ(own[0] + 256 * out.Data()[0], 0xDFDF);
}

TEST(Layer, WhatCannotBeIsRefusedBeforeTheCall)
{
    VideoFilter video(kVideo, "null");
    AudioFilter audio(kAudio, "anull");
    VideoScaler scaler(kVideo.picture, kVideo.picture);
    test::Bytes a(2000);
    const std::span<std::byte> all = Bytes(a);
    const auto y = all.first(512);
    const auto c = all.first(128);
    const auto expect = [](const auto& call) {
        EXPECT_EQ(CodeOf(call) & ~0x1000, AVFILTER_ERROR_AUDIO_INVALID_PARAM);
    };
    faults::Reset();
    for (const std::span<std::byte> bad : {all.first(0), all.first(767), all.first(769)}) {
        expect([&] { video.Send(bad); });
        expect([&] { video.SendWithoutCopy(bad); });
        expect([&] { scaler.Scale(bad, all); });
        expect([&] { audio.Send(bad); });
        expect([&] { video.Send(bad, c, c); });
        expect([&] { video.Send(y, bad, c); });
        expect([&] { video.Send(y, c, bad); });
        if (bad.size() < 768) {
            expect([&] { static_cast<void>(video.Receive(bad)); });
            expect([&] { static_cast<void>(audio.Receive(bad)); });
            expect([&] { scaler.Scale(all.first(768), bad); });
        }
    }
    EXPECT_TRUE(faults::Log().empty()); // FFmpeg was not called
    video.Send(y, c, c);
    EXPECT_EQ(video.Receive(all).bytes, 768U); // larger is enough

    for (const Picture bad : {Picture{AV_PIX_FMT_PAL8, 32, 16}, Picture{AV_PIX_FMT_NONE, 32, 16},
                              Picture{AV_PIX_FMT_YUV420P, 0, 16}, Picture{AV_PIX_FMT_RGBA, -8, -8},
                              Picture{AV_PIX_FMT_GRAY8, 1 << 20, 1 << 20}}) {
        expect([&] { VideoFilter({bad}, "null", kVideo.picture); });
        expect([&] { VideoFilter(kVideo, "null", bad); });
        expect([&] { VideoScaler(kVideo.picture, bad); });
        expect([&] { VideoScaler(bad, kVideo.picture); });
    }
    const Picture good = kVideo.picture;
    for (const Rational bad : {Rational{-1, 1}, {1, 0}, {0, 1}}) {
        expect([&] { VideoFilter({good, bad}, "null"); });
        expect([&] { VideoFilter({.picture = good, .timeBase = bad}, "null"); });
        if (bad.num != 0) {
            expect([&] { VideoFilter({.picture = good, .toldRate = bad}, "null"); });
            expect([&] { VideoFilter({.picture = good, .aspect = bad}, "null"); });
        }
    }
    expect([&] { VideoFilter({.picture = good, .length = -1}, "null"); });
    expect([&] { VideoFilter({.picture = good, .length = 3, .times = {1, 2}}, "null"); });
    expect([&] { VideoFilter({.picture = good, .times = {0, (std::int64_t{1} << 53) + 1}}, "null"); });
    for (const AudioStream bad :
         {AudioStream{AV_SAMPLE_FMT_S16P, 48000, 2, 480}, AudioStream{AV_SAMPLE_FMT_S16, 0, 2, 480},
          AudioStream{AV_SAMPLE_FMT_S16, 48000, 0, 480}, AudioStream{AV_SAMPLE_FMT_S16, 48000, 2, 0},
          AudioStream{AV_SAMPLE_FMT_S16, 48000, 1 << 16, 1 << 15}}) {
        expect([&] { AudioFilter(bad, "anull"); });
        expect([&] { AudioFilter(kAudio, "anull", bad); });
    }
    expect([] { VideoMixer({{"a]", kVideo}}, "null"); });
    expect([] { VideoMixer({{std::string("a\0", 2), kVideo}}, "null"); });
    expect([] { VideoMixer({}, "testsrc"); });
    EXPECT_EQ(CodeOf([&] { video.VideoMixer::Send(1, all.first(768)); }), AVFILTER_ERROR_VIDEO_NOT_FOUND);
}

TEST(Layer, LackOfMemoryIsNotTakenForNoOutput)
{
    VideoFilter video(kVideo, "null");
    AudioFilter audio(kAudio, "anull");
    std::vector<std::byte> bytes(1920);
    const auto picture = std::span(bytes).first(768);
    const auto expect = [](const char* szFunction, int nCode, const auto& call) {
        faults::Fail(szFunction);
        EXPECT_EQ(CodeOf([&] { static_cast<void>(call()); }), nCode);
    };
    expect("av_frame_alloc", AVFILTER_ERROR_VIDEO_ALLOC, [&] { return video.Receive(bytes); });
    expect("av_frame_alloc", AVFILTER_ERROR_AUDIO_FRAME_BUFFER, [&] { return audio.Receive(bytes); });
    expect("av_buffersrc_add_frame", AVFILTER_ERROR_VIDEO_SEND_FRAME, [&] { video.Send(picture); });
    expect("av_buffersrc_add_frame", AVFILTER_ERROR_AUDIO_SEND_FRAME, [&] { audio.Send(bytes); });
    video.Send(picture);
    EXPECT_TRUE(video.Receive(bytes));
    VideoStream one = kVideo;
    one.length = 1;
    VideoFilter last(one, "null");
    last.Send(picture);
    EXPECT_TRUE(last.Receive(bytes));
    faults::Fail("av_buffersink_get_frame", 2);
    EXPECT_EQ(CodeOf([&] { static_cast<void>(last.Receive(bytes)); }), AVFILTER_ERROR_VIDEO_RECEIVE_FRAME);
}

template <class T>
constexpr bool kMoveOnly = std::is_nothrow_move_constructible_v<T>&& std::is_nothrow_move_assignable_v<T> &&
                           !std::is_copy_constructible_v<T> && !std::is_copy_assignable_v<T>;
static_assert(kMoveOnly<AudioFilter> && kMoveOnly<AudioMixer> && kMoveOnly<VideoFilter> &&
              kMoveOnly<VideoMixer> && kMoveOnly<VideoScaler>);

constexpr unsigned long long kHandle = 5000000000; // for faults::NextHandle
// Whether no family knows it any more.
bool IsReleased()
{
    test::Bytes bytes(2000);
    int n = 2000;
    return std::ranges::all_of(jobs::kKinds, [&](const jobs::Kind& kind) {
        return !kind.Take(kHandle, {bytes.data(), {}, true}, bytes.data(), &n) &&
               AVFilter_GetLastError(nullptr) == kind.nBase + (kind.cFamily == 'a' ? 6 : 7);
    });
}

// NOLINTBEGIN(bugprone-use-after-move, clang-analyzer-cplusplus.Move): that is what is tested
// What may not be constructed leaves nothing; a moved-from object refuses all, and the one it went to works on.
template <class Make, class Use>
void ExpectOwned(const Make& make, int nNotFound, const Use& use)
{
    bool bThrown = true;
    int nth = 0;
    while (bThrown) {
        // The sound's graphs are kept by contract.
        const test::KeepsMemoryByContract keeps(nNotFound == AVFILTER_ERROR_AUDIO_NOT_FOUND);
        faults::NextHandle(kHandle);
        faults::FailNew(++nth);
        try {
            make();
            bThrown = false;
        } catch (const std::bad_alloc&) {
        }
        faults::Reset();
        EXPECT_TRUE(IsReleased()) << nth;
    }
    EXPECT_GT(nth, 1);

    auto object = make();
    const std::size_t nOutput = object.OutputBytes();
    auto other = std::move(object);
    EXPECT_TRUE(object.IsEmpty() && object.InputBytes() + object.OutputBytes() == 0);
    EXPECT_EQ(CodeOf([&] { use(object); }), nNotFound);
    use(other);
    faults::NextHandle(kHandle);
    object = make(); // an empty object can be filled again
    EXPECT_FALSE(IsReleased());
    object = std::move(other);
    EXPECT_TRUE(IsReleased());
    EXPECT_EQ(CodeOf([&] { use(other); }), nNotFound);
    EXPECT_EQ(object.OutputBytes(), nOutput);
    use(object);
}

TEST(Layer, ObjectsOwnTheirHandles)
{
    std::vector<std::byte> in(1920), out(1920);
    const auto receive = [&](auto& o) { static_cast<void>(o.Receive(out)); };
    ExpectOwned([] { return AudioFilter(kAudio, "anull"); }, AVFILTER_ERROR_AUDIO_NOT_FOUND,
                [&](auto& o) { o.Send(in); });
    ExpectOwned([] { return VideoFilter(kVideo, "null"); }, AVFILTER_ERROR_VIDEO_NOT_FOUND, receive);
    const Picture gray{AV_PIX_FMT_GRAY8, 8, 8};
    ExpectOwned([&] { return VideoScaler(kVideo.picture, gray); }, AVFILTER_ERROR_VIDEO_NOT_FOUND,
                [&](auto& o) { o.Scale(std::span(in).first(768), out); });
    faults::NextHandle(kHandle);
    faults::Fail("sws_getContext");
    EXPECT_THROW(VideoScaler(kVideo.picture, kVideo.picture), Error);
    EXPECT_TRUE(IsReleased());
    faults::Reset();
}

// NOLINTEND(bugprone-use-after-move, clang-analyzer-cplusplus.Move)

TEST(Layer, ErrorsSpeakOfTheCallersWords)
{
    for (int i = 1; i <= 9; ++i) {
        EXPECT_EQ(Category().message(0x80F0000 + i).find("AVFILTER_ERROR_AUDIO_"), 0U);
        EXPECT_EQ(Category().message(0x80F1000 + i).find("AVFILTER_ERROR_VIDEO_"), 0U);
    }
    try {
        const VideoFilter filter(kVideo, "nosuchfilter");
        FAIL();
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::error_code(AVFILTER_ERROR_VIDEO_PARSE_GRAPH, Category()));
        const std::string_view what = error.what();
        EXPECT_TRUE(what.starts_with("nosuchfilter\nlabels here: [in] [out]: AVFILTER_ERROR_VIDEO_"))
            << what;
    }
}

} // namespace
