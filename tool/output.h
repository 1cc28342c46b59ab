// Files and pipes that are written: safely, with what belongs to the file they come from.
#pragma once

#include "graph.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace tool
{

struct OutputWish {
    std::string path;   // "-" is standard output
    std::string format; // FFmpeg's name of a container, or an extension, or raw; empty: by the path
    // Of encoder and container, as the ffmpeg command names them: "crf" "18", "b:a" "96k".
    std::vector<std::pair<std::string, std::string>> options;
    double dAt = 0;            // for a single picture: which second's
    double dLength = kForever; // seconds
    bool bForce = false;       // replace what is there
    std::string pass;          // "none": no other streams, tags and chapters
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

    // The filter that leaves, of what may come out, the formats that the encoder takes and the layer gives.
    std::string Restriction(const Outcome& outcome);
    // The filters, with a comma in front, that repeat the last column or row for an encoder that has no odd
    // sizes; or "". They change what comes out.
    std::string MakeEven(telvane::Picture& picture);
    // Whether there are streams of an input that can go along.
    bool TakesOthers(const Input& input) const
    {
        return m_Wish.pass != "none" && input.File().Format().nb_streams > 1 &&
               m_pFormat->audio_codec != AV_CODEC_ID_NONE && m_pFormat->video_codec != AV_CODEC_ID_NONE;
    }

    // Writes the head; throws if the output is an input or may not be replaced. pOthers: the input whose other streams are copied, or null; about: the one whose
    // stream was filtered, with its tags and chapters. Marks the streams that it wants.
    std::vector<bool> Open(const Outcome& outcome, const Input* pOthers, const Input& about);
    // Samples of a block that suit the encoder.
    int BlockSamples() const { return m_Codec->frame_size > 0 ? m_Codec->frame_size : 4096; }
    // What was left out or changed, for the user.
    const std::vector<std::string>& Notes() const { return m_Notes; }

    // A picture or block and its time in seconds; false once the output is full, or has failed.
    bool Put(FramePtr frame, double dTime);
    // In its input's time base; may come from another thread. False once the output has failed.
    bool Pass(PacketPtr packet);
    // Throws what the thread threw.
    void Finish();

    int64_t Count() const { return m_nCount; } // pictures or samples
    double Seconds() const { return m_dEnd; }
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
    void MayReplace(const std::string& target) const;
    void SetVideo(const Outcome& outcome);
    void SetAudio(const Outcome& outcome);
    void SetCommon();
    AVStream& AddStream(const AVStream& from);
    bool AddCopy(const AVStream& from);
    void CopyTags(const AVFormatContext& from);
    void Create();
    void OpenPart(const std::string& target);
    void Stand(const std::string& target);

    void Run();
    void WritePicture(FramePtr frame, double dTime);
    void EndPictures();
    void WriteSamples(FramePtr frame, double dTime);
    void Encode(const AVFrame* pFrame);
    void WriteFile(const AVPacket& packet);
    void WritePassed(AVPacket& packet);

    struct FormatFreer {
        void operator()(AVFormatContext* p) const;
    };
    OutputWish m_Wish;
    AVMediaType m_Kind;
    Dictionary m_Options; // that nothing has taken yet
    const AVOutputFormat* m_pFormat = nullptr;
    const AVCodec* m_pEncoder = nullptr;
    bool m_bPipe = false;
    bool m_bFiles = false; // each picture in one of its own
    bool m_bSeries = false;
    std::string m_Target; // with symbolic links followed
    std::string m_Part;   // removed unless finished
    std::vector<std::string> m_Notes;

    std::unique_ptr<AVFormatContext, FormatFreer> m_Format;
    CodecPtr m_Codec;
    AVStream* m_pStream = nullptr;
    bool m_bSingle = false; // one picture
    bool m_bEven = false;   // constant distances between pictures
    bool m_bUneven = false; // times that are no multiples of a rate
    int64_t m_nFirst = 0;
    int64_t m_nNext = 0;
    std::atomic<int64_t> m_nCount = 0;
    int64_t m_nLimit = std::numeric_limits<int64_t>::max();
    double m_dEnd = 0; // seconds
    int m_nFile = 1;   // of a series
    FramePtr m_Last;
    std::array<int64_t, 3> m_Befores{}; // how often the last pictures' predecessors were repeated
    SwrPtr m_Resampler;
    std::map<int, Copied> m_Copied; // by the input's stream

    Queue<Item> m_Items;
    std::atomic<bool> m_bStopped = false; // full
    std::atomic<bool> m_bAbandoned = false;
    std::future<void> m_Done;
};

} // namespace tool
