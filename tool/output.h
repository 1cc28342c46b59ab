// Files and pipes that are written: safely, with what belongs to the file they come from.
#pragma once

#include "graph.h"

#include <deque>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace tool
{

// "-crf 18", "-b:a 96k": an encoder's or container's option as the ffmpeg command names it.
struct CodecOption {
    std::string name;
    std::string kind; // "v", "a" or "": both
    std::string value;
};

struct OutputWish {
    std::string path;   // "-" is standard output
    std::string format; // FFmpeg's name of a container, or an extension, or raw; empty: by the path
    std::vector<CodecOption> options;
    AVRational rate{0, 1}; // pictures a second, evenly; 0: as they come
    double dAt = 0;        // for a single picture: which second's
    double dLength = 0;    // seconds; 0: all
    bool bForce = false;   // replace what is there
    bool bPass = true;     // what else belongs to the file
};

// A file that stands under its name only once it is finished. Encoders and container run on a thread of
// their own.
class Output
{
  public:
    // Chooses container and encoder. Throws before anything is written.
    Output(const OutputWish& wish, AVMediaType kind, const Input& first);
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    ~Output();

    // Throws if the output is one of these files or may not be replaced.
    void Guard(const std::set<FileId>& inputs);
    // The filter that leaves, of what may come out, the formats that the encoder takes and the layer gives.
    std::string Restriction(const Outcome& outcome) const;
    AVPixelFormat Nearest(AVPixelFormat format) const;
    // Whether streams of an input can go along.
    bool TakesOthers() const
    {
        return m_pFormat != nullptr && m_Wish.bPass && m_pFormat->audio_codec != AV_CODEC_ID_NONE &&
               m_pFormat->video_codec != AV_CODEC_ID_NONE;
    }

    // Writes the head. pOthers: the input whose other streams are copied, or null; about: the one whose
    // stream was filtered, with its tags and chapters. Marks the streams that it wants.
    std::vector<bool> Open(const Outcome& outcome, const Input* pOthers, const Input& about);
    // Samples of a block that suit the encoder.
    int BlockSamples() const;
    // What was left out or changed, for the user.
    const std::vector<std::string>& Notes() const { return m_Notes; }

    // A picture or block and its time in seconds; false once the output is full, or has failed.
    bool Put(FramePtr frame, double dTime);
    void Pass(PacketPtr packet); // in its input's time base; may come from another thread
    // bCut: other streams end where this one does. Throws what the thread threw.
    void Finish(bool bCut);

    int64_t Count() const { return m_nCount; } // pictures or samples
    double Seconds() const { return m_dEnd; }
    telvane::Picture Coded() const { return {m_Codec->pix_fmt, m_Codec->width, m_Codec->height}; }
    bool IsPipe() const { return m_bPipe; }

  private:
    struct Item {
        FramePtr frame;
        double dTime = 0;
        PacketPtr packet;
    };
    struct Copied { // a stream of an input
        AVRational base{0, 1};
        AVStream* pTo = nullptr;
        int64_t nLast = AV_NOPTS_VALUE;
    };

    void Choose(const Input& first);
    std::vector<AVPixelFormat> Pixels() const;
    void MayReplace(const std::string& target) const;
    AVDictionary* Options(const std::string& kind) const;
    int OpenWithOptions(AVDictionary* pOptions);
    void RefuseUnused(AVDictionary* pOptions) const;
    void OpenVideo(const Outcome& outcome);
    void OpenAudio(const Outcome& outcome);
    AVStream& AddStream(const AVStream& from);
    bool AddCopy(const AVStream& from);
    void CopyTags(const AVFormatContext& from);
    void Create();
    std::string PartOf(const std::string& target) const;
    void Stand(const std::string& target);

    void Run();
    void WritePicture(FramePtr frame, double dTime);
    void EndPictures();
    FramePtr Suited(FramePtr frame);
    static void Repeat(const AVFrame& from, AVFrame& to);
    void WriteSamples(FramePtr frame, double dTime);
    void Encode(const AVFrame* pFrame);
    void WriteFile(const AVPacket& packet);
    void WritePassed(double dUntil);

    struct FormatFreer {
        void operator()(AVFormatContext* p) const;
    };
    OutputWish m_Wish;
    AVMediaType m_Kind;
    const AVOutputFormat* m_pFormat = nullptr; // none: pictures in files of their own
    const AVCodec* m_pEncoder = nullptr;
    AVCodecID m_Id = AV_CODEC_ID_NONE;
    bool m_bRaw = false;
    bool m_bPipe = false;
    bool m_bSeries = false;
    std::string m_Target; // with symbolic links followed
    std::string m_Part;   // removed unless finished
    std::set<FileId> m_Inputs;
    std::set<std::string> m_Used; // options that something took
    std::vector<std::string> m_Notes;

    std::unique_ptr<AVFormatContext, FormatFreer> m_Format;
    CodecPtr m_Codec;
    AVStream* m_pStream = nullptr;
    PacketPtr m_Packet;
    bool m_bSingle = false; // one picture
    bool m_bEven = false;   // constant distances between pictures
    bool m_bUneven = false; // times that are no multiples of a rate
    double m_dRate = 25;    // of pictures or samples
    int64_t m_nFirst = 0;
    int64_t m_nNext = 0;
    std::atomic<int64_t> m_nCount = 0;
    int64_t m_nLimit = std::numeric_limits<int64_t>::max();
    double m_dEnd = 0; // seconds
    int m_nFile = 1;   // of a series
    PictureConverter m_Converter;
    FramePtr m_Last;
    std::array<int64_t, 3> m_Befores{}; // how often the last pictures' predecessors were repeated
    SwrPtr m_Resampler;

    std::map<int, Copied> m_Copied; // by the input's stream
    std::deque<PacketPtr> m_Waiting;
    bool m_bCut = false;

    Queue<Item> m_Items;
    std::atomic<bool> m_bStopped = false; // full
    std::atomic<bool> m_bAbandoned = false;
    std::exception_ptr m_Error;
    std::thread m_Thread;
};

} // namespace tool
