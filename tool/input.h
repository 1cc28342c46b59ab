// Files and pipes: what FFmpeg reads as pictures and samples on an honest clock.
#pragma once

#include "ffmpeg.h"
#include "support.h"

#include "Telvane_AVFilter.hpp"

#include <array>
#include <atomic>
#include <functional>
#include <future>
#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace tool
{

// Whether this name leads to a file that was opened as an input, or as a part of one.
bool IsInput(const std::string& path);

constexpr double kForever = std::numeric_limits<double>::infinity();

struct Source {
    std::string name;   // the label in the description
    std::string path;   // "-" is standard input
    std::string format; // FFmpeg's name, perhaps with options ("rawvideo:video_size=64x64"); or empty
    std::string stream; // which one is decoded, as the ffmpeg command names them ("a:1"); empty: the best
};

// The packets of a file on a clock that starts with it and does not jump.
class Demuxer
{
  public:
    explicit Demuxer(const Source& source);

    AVFormatContext& Format() const { return *m_Format; }
    // The stream of this kind that the source asks for, or the best one; nothing if there is none.
    AVStream* Choose(AVMediaType kind) const;
    // Whether it can be read from its start again, and ends.
    bool IsRepeatable() const;
    // False at the end.
    bool Read(AVPacket& packet);
    double Seconds() const;                  // by the file's header; 0: not known
    double At(const AVPacket& packet) const; // seconds; minus infinity: not known
    // Whether it broke off, or before the length that its header tells.
    bool IsCut() const;

  private:
    void SetClock(AVPacket& packet);
    Source m_Source;
    FormatPtr m_Format;
    std::map<int, int64_t> m_Last; // time of each stream's last packet on our clock, in AV_TIME_BASE
    int64_t m_nStart = 0;          // the file's time where our clock is 0, in AV_TIME_BASE
    int64_t m_nEnd = 0;            // the latest end of a packet
    bool m_bEnded = false;
    bool m_bBroken = false;
};

// What the library is given: the decoder's pictures, in the nearest format that it knows, or packed samples
// in blocks. Changes on the way are converted away; sound has no gaps, but silence.
struct Form {
    AVMediaType kind = AVMEDIA_TYPE_VIDEO;
    telvane::Picture picture;
    telvane::AudioStream audio;
    AVChannelLayout layout{}; // of native order: nothing to free
};

// The whole length of an input.
struct Length {
    std::vector<int64_t> times; // of its pictures, in the stream's time base
    int64_t n = 0;              // pictures or samples
};

// A demuxer, the decoder of one stream, and the thread on which they run.
class Input
{
  public:
    Input(const Source& source, AVMediaType kind);
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;
    ~Input();

    const Source& Of() const { return m_Source; }
    const Demuxer& File() const { return m_Demuxer; }
    const AVStream& Stream() const { return *m_pStream; }
    const AVFrame& First() const { return *m_First; }
    const Form& Gives() const { return m_Form; }
    AVRational Rate() const { return m_Rate; } // of pictures, as far as the file tells
    // From its packets, or by decoding it all.
    Length Measure(bool bDecode) const;

    // Starts reading: packets of the streams that are marked go to pass, on the input's thread, until it
    // takes no more.
    using Pass = std::function<bool(PacketPtr)>;
    // What begins dUntil seconds after the start or later is not passed on.
    void Start(std::vector<bool> passed, double dUntil, Pass pass);
    // The next picture or block, its pts in the stream's time base; null at the end.
    FramePtr Next();
    // Nothing more is decoded; packets are still passed on.
    void Stop();
    // Waits until all has been passed on.
    void Join();
    // Damaged packets, or at least one where the file breaks off.
    int Damaged() const { return m_nDamaged + (m_Demuxer.IsCut() ? 1 : 0); }

  private:
    bool ReadPacket();
    bool PassOn(PacketPtr packet);
    FramePtr Decode();
    void Run();
    void Prepare(FramePtr frame);
    void OpenConverter(const AVFrame& frame);
    void Drain();

    Source m_Source;
    Demuxer m_Demuxer;
    AVStream* m_pStream;
    CodecPtr m_Codec;
    PacketPtr m_Packet;
    AVRational m_Rate{25, 1};
    FramePtr m_First;
    Form m_Form;
    int64_t m_nNext = 0; // for frames without a time
    std::atomic<int> m_nDamaged = 0;
    bool m_bFlushed = false;

    GraphPtr m_Converter; // to the form
    Form m_Converted;     // what it converts
    std::vector<AVFilterContext*> m_Ends;
    int64_t m_nSamples = 0;

    std::vector<PacketPtr> m_Early; // read before it was known what is passed on
    std::vector<bool> m_Passed;
    Pass m_Pass;
    std::atomic<bool> m_bStopped = false;
    std::atomic<double> m_dUntil = 0;
    Queue<FramePtr> m_Frames;
    std::atomic<pthread_t> m_Thread{};
    std::exception_ptr m_Error;
    std::future<void> m_Done;
};

// The filters, each with a comma in front, that turn the pictures upright, as the file says they are shown.
std::string TurnOf(const AVStream& stream);
// The layout if its channels have places, else the usual one of as many channels. Owns nothing.
AVChannelLayout Native(const AVChannelLayout& layout);
// "stereo", "quad", "9 channels" as "9c".
std::string LayoutName(const AVChannelLayout& layout);

} // namespace tool
