// Files and pipes: what FFmpeg reads as pictures and samples on an honest clock, and what it writes.
#pragma once

#include "support.h"

#include "Telvane_AVFilter.hpp"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <array>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tool
{

template <auto Free>
struct Freer {
    template <class T>
    void operator()(T* p) const
    {
        Free(&p);
    }
};
struct SwsFreer {
    void operator()(SwsContext* p) const { sws_freeContext(p); }
};
using FormatPtr = std::unique_ptr<AVFormatContext, Freer<avformat_close_input>>;
using CodecPtr = std::unique_ptr<AVCodecContext, Freer<avcodec_free_context>>;
using PacketPtr = std::unique_ptr<AVPacket, Freer<av_packet_free>>;
using FramePtr = std::unique_ptr<AVFrame, Freer<av_frame_free>>;
using SwrPtr = std::unique_ptr<SwrContext, Freer<swr_free>>;
using SwsPtr = std::unique_ptr<SwsContext, SwsFreer>;

FramePtr NewFrame();

// What the numbers of a picture mean. The library carries none of this; the tool takes it around it.
struct Colour {
    AVColorRange range = AVCOL_RANGE_UNSPECIFIED;
    AVColorSpace space = AVCOL_SPC_UNSPECIFIED;
    AVColorPrimaries primaries = AVCOL_PRI_UNSPECIFIED;
    AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED;
};

// A file or pipe ("-" is standard input) of which one stream is decoded, and another one may be passed on
// as it is.
class Input
{
  public:
    struct Source {
        std::string name; // the label in the description
        std::string path;
        std::string format; // FFmpeg's name, perhaps with options ("rawvideo:video_size=64x64"); or empty
    };

    explicit Input(const Source& source);

    // Chooses the stream of this kind to decode; false if there is none.
    bool Decode(AVMediaType kind);
    // The same for a stream whose packets are kept in Passed().
    bool PassOn(AVMediaType kind);

    const std::string& Name() const { return m_Name; }
    AVFormatContext& Format() const { return *m_Format; }
    const AVStream& Stream() const { return *m_pStream; }
    const AVStream* PassedStream() const { return m_pPassed; }
    std::deque<PacketPtr>& Passed() { return m_Passed; }
    // Called when Passed() has grown large, because the decoded stream is far behind or has ended.
    void OnPile(std::function<void()> drain) { m_Drain = std::move(drain); }

    // The next frame, with its pts counted from the start of the file; false at the end.
    bool Next(AVFrame& frame);
    // The end of the decoded stream so far, in its time base.
    int64_t End() const { return m_nEnd; }
    // Reads one more packet for Passed() alone; false at the end.
    bool ReadOn();
    double Duration() const; // seconds; 0: not known
    int Damaged() const { return m_nDamaged; }

  private:
    bool ReadPacket(AVPacket& packet);
    void SetClock(AVPacket& packet);
    const AVStream* Best(AVMediaType kind) const;

    struct Clock { // of one stream, in AV_TIME_BASE
        int64_t nLast = AV_NOPTS_VALUE;
        int64_t nExpected = AV_NOPTS_VALUE;
    };

    std::string m_Name;
    std::string m_Path;
    FormatPtr m_Format;
    CodecPtr m_Codec;
    PacketPtr m_Packet;
    const AVStream* m_pStream = nullptr;
    const AVStream* m_pPassed = nullptr;
    std::deque<PacketPtr> m_Passed;
    std::size_t m_nPile = 0; // bytes of it, at most
    std::function<void()> m_Drain;
    std::vector<Clock> m_Clocks;
    int64_t m_nStart = 0; // the file's time where our clock is 0, in AV_TIME_BASE
    bool m_bAvi = false;
    int64_t m_nEnd = 0;
    int64_t m_nNext = 0; // for frames without a time
    int m_nDamaged = 0;
    bool m_bDrained = false;
};

// Converts pictures between any two formats and sizes, with the right matrix and range.
class PictureConverter
{
  public:
    void Convert(const AVFrame& from, const Colour& fromColour, AVFrame& to, const Colour& toColour);

  private:
    SwsPtr m_Context;
    std::array<int, 9> m_Key{}; // what it was set up for
};

// An input's pictures at a constant rate: the picture of tick k is the one nearest before (k + 1/2) / rate.
class VideoSource
{
  public:
    explicit VideoSource(Input& input);

    AVRational NativeRate() const { return m_Native; }
    AVRational Aspect() const { return m_Aspect; }
    const telvane::Picture& Picture() const { return m_Picture; }
    const Colour& Colours() const { return m_Colour; }
    // One picture and no more: shown for as long as the others last.
    bool IsStill() const { return !m_Next && m_bStill; }
    void SetRate(AVRational rate) { m_Rate = rate; }
    // In limited range unless they are RGB: that is what filters take pictures for.
    void SetLimited() { m_Colour.range = AVCOL_RANGE_MPEG; }
    void SetFormat(AVPixelFormat format);

    // Makes Bytes() the picture of the tick; false when the input has ended, and Bytes() stays.
    bool At(int64_t nTick);
    std::span<const std::byte> Bytes() const { return m_Bytes; }
    void Blacken();

  private:
    void Fetch();
    void Store();

    Input* m_pInput;
    AVRational m_Rate{25, 1};
    AVRational m_Native{25, 1};
    AVRational m_Aspect{0, 1};
    telvane::Picture m_Picture;
    Colour m_FileColour;
    Colour m_Colour;
    FramePtr m_Current;
    FramePtr m_Next;
    FramePtr m_Converted;
    PictureConverter m_Converter;
    std::vector<std::byte> m_Bytes;
    bool m_bStored = false;
    bool m_bStill = true;
};

// The layout if its channels have places, else the usual one of as many channels. Owns nothing.
AVChannelLayout Native(const AVChannelLayout& layout);
// "stereo", "quad", "9 channels" as "9c".
std::string LayoutName(const AVChannelLayout& layout);
// The one that the library takes a number of channels for.
bool IsDefault(const AVChannelLayout& layout);

// An input's sound as packed samples without gaps: silence where the file has none.
class AudioSource
{
  public:
    static constexpr int kBlocksPerSecond = 25;

    explicit AudioSource(Input& input);

    const telvane::AudioStream& Stream() const { return m_Stream; }
    const AVChannelLayout& Layout() const { return m_Layout; }
    // Fills one block, with silence after the end; returns how many of its samples are real.
    int Read(std::vector<std::byte>& block);

  private:
    void Configure(const AVFrame& frame);
    void Place();
    void Append(const AVFrame* pFrame);

    Input* m_pInput;
    telvane::AudioStream m_Stream;
    telvane::AudioStream m_From; // what the decoder gives now
    std::size_t m_nFrameBytes = 0;
    SwrPtr m_Resampler;
    AVChannelLayout m_Layout{}; // of native order: nothing to free
    FramePtr m_Frame;
    std::vector<std::byte> m_Waiting;
    std::size_t m_nTaken = 0;
    int64_t m_nSamples = 0; // appended so far
    int64_t m_nSilence = 0; // samples of silence that come before m_Frame, which waits for them
    int64_t m_nSkip = 0;    // samples of m_Frame that are dropped
    bool m_bEnded = false;
};

struct OutputVideo {
    telvane::Picture stored; // the layout of the bytes
    telvane::Size shown;     // at most the stored size
    AVRational rate;
    AVRational aspect;
    Colour colour;
};

struct OutputWish {
    std::string path;   // "-" is standard output
    std::string format; // wav, flac, mp4, mkv, y4m, png or raw; empty: by the extension
    std::optional<OutputVideo> video;
    std::optional<telvane::AudioStream> audio;
    AVChannelLayout layout{};          // of the sound
    const AVStream* pPassed = nullptr; // a stream whose packets are copied
};

// A file that stands under its name only once it is finished.
class Output
{
  public:
    static std::string FormatOf(const std::string& path, const std::string& format);
    // The samples that a format keeps best, of those that came in.
    static AVSampleFormat SamplesFor(const std::string& format, AVSampleFormat in);

    explicit Output(const OutputWish& wish);
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    ~Output();

    void WritePicture(std::span<const std::byte> bytes);
    void WriteSamples(std::span<const std::byte> bytes);
    // The packets of an input's passed-on stream that begin before this time, in seconds; false if there is
    // one that does not.
    bool WritePassed(std::deque<PacketPtr>& packets, double dUntil);
    // Writes what piles up in the input ahead of its time, up to this one, and drops what comes after.
    void DrainPile(Input* pInput, double dUntil);
    // The rest until then, reading on as far as needed. No pictures or samples can follow.
    void WriteRest(Input& input, double dUntil);
    void Finish();

    int64_t Pictures() const { return m_nPictures; }
    int64_t Samples() const { return m_nSamples; }
    telvane::Size CodedSize() const;

  private:
    void OpenVideo(const OutputVideo& video, const std::string& format);
    void OpenAudio(const telvane::AudioStream& audio, const AVChannelLayout& layout,
                   const std::string& format);
    void Encode(AVCodecContext& codec, const AVStream& stream, const AVFrame* pFrame);
    void EncodeWaiting(bool bAll);
    void EndEncoders();
    AVStream& AddStream();

    struct FormatFreer {
        void operator()(AVFormatContext* p) const;
    };
    std::string m_Path;
    std::string m_Target;    // the same with symbolic links followed
    std::string m_Temporary; // removed unless finished; empty: none (pipes, devices, finished pictures)
    bool m_bPng = false;     // named files, which FFmpeg itself writes beside the target
    std::unique_ptr<AVFormatContext, FormatFreer> m_Format;
    PacketPtr m_Packet;

    CodecPtr m_Video;
    AVStream* m_pVideoStream = nullptr;
    OutputVideo m_Wish{};
    FramePtr m_Picture;
    PictureConverter m_Converter;
    int64_t m_nPictures = 0;

    CodecPtr m_Audio;
    AVStream* m_pAudioStream = nullptr;
    std::size_t m_nFrameBytes = 0;
    SwrPtr m_Resampler;
    std::vector<std::byte> m_Waiting;
    int64_t m_nSamples = 0;
    int64_t m_nEncoded = 0;

    AVStream* m_pPassedStream = nullptr;
    AVRational m_PassedBase{0, 1};
    int64_t m_nPassedLast = AV_NOPTS_VALUE;
    bool m_bEncodersEnded = false;
};

} // namespace tool
