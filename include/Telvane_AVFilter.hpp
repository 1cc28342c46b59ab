/*
 * telvane: the functions of Telvane_AVFilter.h as five C++20 classes, on buffers that know their size.
 *
 *   AudioFilter, AudioMixer, VideoFilter, VideoMixer   Send() a block or picture, Receive() what came of it
 *   VideoScaler                                        Scale() one picture into another
 *
 * Bounds. Every buffer's size is checked before anything is called, and nothing larger than OutputBytes()
 *   can come out: the layer itself ends each graph in the format and size that were declared. That costs
 *   nothing where the description gives them anyway. Still, descriptions are programs, which open files and
 *   load plugins: never take one from strangers.
 * Descriptions lead to the label [out], from [in] (filters) or from the inputs' names (mixers). A last
 *   output without a label is [out], a filter's first input without one is [in]: "hflip" is enough. Refused
 *   are the words telvane_out, the layer's own label, and sendcmd and zmq, filters that can change the
 *   layer's own; sws_flags in front of a graph is not understood.
 * Errors are thrown as Error, whose code() is an AVFILTER_ERROR_* value and whose what() explains it. The
 *   layer's own refusals are INVALID_PARAM, empty objects and unknown inputs NOT_FOUND: the object is then
 *   as it was before the call. After other failures it stays usable. Memory may also run out as
 *   std::bad_alloc. That a call failed is right, but its code comes from the C interface's process-wide
 *   variable: calls that fail on two threads at once may report each other's.
 * "No output yet" is an empty optional. Lack of memory is told apart from it by the code, as far as that can
 *   be relied on (see above), and thrown; a failure inside the graph cannot be, because both have one code.
 *   An endless source within the description never runs empty: do not receive until nothing comes.
 * Moving leaves an empty object, whose sizes are 0 and whose calls throw; it can be assigned to again.
 * Threads, for every class: different objects work in parallel; the calls on one object must be put in
 *   order by the caller. Creating and destroying wait for the calls of the same family that are running.
 */
#ifndef TELVANE_AVFILTER_HPP
#define TELVANE_AVFILTER_HPP

#include "Telvane_AVFilter.h"

extern "C" {
#include <libavutil/pixfmt.h>
#include <libavutil/samplefmt.h>
}

#include <array>
#include <climits>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

namespace telvane
{

class ErrorCategory final : public std::error_category
{
  public:
    const char* name() const noexcept override { return "telvane"; }
    std::string message(int nCode) const override
    {
#define TELVANE_EXPLAIN(code, text)                                                                        \
    case AVFILTER_ERROR_##code:                                                                            \
        return "AVFILTER_ERROR_" #code ": " text
        // clang-format off
        switch (nCode) {
        TELVANE_EXPLAIN(AUDIO_INVALID_PARAM, "an argument does not fit; correct the call");
        TELVANE_EXPLAIN(AUDIO_ALLOC, "no memory for the graph");
        TELVANE_EXPLAIN(AUDIO_CREATE_FILTER, "FFmpeg refused a stream; check format, rate and channels");
        TELVANE_EXPLAIN(AUDIO_PARSE_GRAPH, "the description is wrong; FFmpeg's log names the place");
        TELVANE_EXPLAIN(AUDIO_CONFIG_GRAPH, "the graph does not fit together; link every label once");
        TELVANE_EXPLAIN(AUDIO_NOT_FOUND, "no such object or input");
        TELVANE_EXPLAIN(AUDIO_FRAME_BUFFER, "no memory for a block");
        TELVANE_EXPLAIN(AUDIO_SEND_FRAME, "the graph did not take the block; it may have ended");
        TELVANE_EXPLAIN(AUDIO_RECEIVE_FRAME, "no block came out; send more");
        TELVANE_EXPLAIN(VIDEO_INVALID_PARAM, "an argument does not fit; correct the call");
        TELVANE_EXPLAIN(VIDEO_ALLOC, "no memory for the graph or a picture");
        TELVANE_EXPLAIN(VIDEO_CREATE_SOURCE, "FFmpeg refused a stream; check size, format and rate");
        TELVANE_EXPLAIN(VIDEO_CREATE_SINK, "FFmpeg could not make the output; check its installation");
        TELVANE_EXPLAIN(VIDEO_PARSE_GRAPH, "the description is wrong, see FFmpeg's log; or an unknown scaling");
        TELVANE_EXPLAIN(VIDEO_CONFIG_GRAPH, "the graph does not fit together; link every label once");
        TELVANE_EXPLAIN(VIDEO_NOT_FOUND, "no such object or input");
        TELVANE_EXPLAIN(VIDEO_SEND_FRAME, "the graph did not take the picture; it may have ended");
        TELVANE_EXPLAIN(VIDEO_RECEIVE_FRAME, "no picture came out; send more");
        TELVANE_EXPLAIN(VIDEO_BUFFER_TOO_SMALL, "the scaled picture needs a larger buffer");
        TELVANE_EXPLAIN(VIDEO_SCALE, "the scaler failed, or has no memory for its pictures");
        default: return "unknown code " + std::to_string(nCode);
        }
        // clang-format on
#undef TELVANE_EXPLAIN
    }
};

inline const ErrorCategory& Category()
{
    static const ErrorCategory category;
    return category;
}

class Error : public std::system_error
{
  public:
    Error(int nCode, const std::string& what) : std::system_error(nCode, Category(), what) {}
};

// The bytes of a vector, array or span of plain values, for the calls below: writable if the values are.
// They are not kept: do not store the bytes of a temporary.
template <class Values>
auto Bytes(Values&& values)
{
    const std::span view(values);
    using Value = typename decltype(view)::element_type;
    static_assert(std::is_trivially_copyable_v<Value>);
    if constexpr (std::is_const_v<Value>) {
        return std::as_bytes(view);
    } else {
        return std::as_writable_bytes(view);
    }
}

// Packed samples: AV_SAMPLE_FMT_U8, S16, S32, FLT or DBL, the channels in FFmpeg's default layout.
struct AudioStream {
    AVSampleFormat format = AV_SAMPLE_FMT_S16;
    int rate = 0;
    int channels = 0;
    int samples = 0; // of each channel in a block
};

// A tight picture: plane after plane, rows without padding.
struct Picture {
    AVPixelFormat format = AV_PIX_FMT_YUV420P;
    int width = 0;
    int height = 0;
};
struct VideoStream {
    Picture picture;
    int rate = 0; // pictures per second, by which the pictures sent get their times
};
struct Size {
    int width = 0;
    int height = 0;
};

// An input of a mixer: its label in the description, at most 63 characters, and what will be sent.
template <class Stream>
struct Input {
    std::string name;
    Stream stream;
};
using AudioInput = Input<AudioStream>;
using VideoInput = Input<VideoStream>;

// The bytes of each plane of a picture in the formats that the layer knows; 0 for other formats, and for
// sizes that cannot be.
using Planes = std::array<std::size_t, 3>;
constexpr Planes PlaneBytes(const Picture& picture)
{
    struct Layout {
        AVPixelFormat format;
        unsigned nPlanes;
        unsigned nBytes;       // per pixel in plane 0
        unsigned nChromaBytes; // per chroma sample in planes 1 and 2
        unsigned nShiftX;      // log2 of the pixels that share a chroma sample
        unsigned nShiftY;
    };
    constexpr Layout kLayouts[] = {
        {AV_PIX_FMT_YUV420P, 3, 1, 1, 1, 1},     {AV_PIX_FMT_YUV422P, 3, 1, 1, 1, 0},
        {AV_PIX_FMT_YUV444P, 3, 1, 1, 0, 0},     {AV_PIX_FMT_GBRP, 3, 1, 1, 0, 0},
        {AV_PIX_FMT_YUV420P10LE, 3, 2, 2, 1, 1}, {AV_PIX_FMT_YUV422P10LE, 3, 2, 2, 1, 0},
        {AV_PIX_FMT_YUV444P10LE, 3, 2, 2, 0, 0}, {AV_PIX_FMT_NV12, 2, 1, 2, 1, 1},
        {AV_PIX_FMT_NV21, 2, 1, 2, 1, 1},        {AV_PIX_FMT_P010LE, 2, 2, 4, 1, 1},
        {AV_PIX_FMT_GRAY8, 1, 1, 0, 0, 0},       {AV_PIX_FMT_YUYV422, 1, 2, 0, 1, 0},
        {AV_PIX_FMT_UYVY422, 1, 2, 0, 1, 0},     {AV_PIX_FMT_RGB24, 1, 3, 0, 0, 0},
        {AV_PIX_FMT_BGR24, 1, 3, 0, 0, 0},       {AV_PIX_FMT_RGBA, 1, 4, 0, 0, 0},
        {AV_PIX_FMT_BGRA, 1, 4, 0, 0, 0},        {AV_PIX_FMT_ARGB, 1, 4, 0, 0, 0},
        {AV_PIX_FMT_ABGR, 1, 4, 0, 0, 0},
    };
    if (picture.width < 1 || picture.height < 1 || picture.width > INT_MAX / 16 / picture.height) {
        return {};
    }
    for (const Layout& layout : kLayouts) {
        if (layout.format == picture.format) {
            const auto nWidth = static_cast<std::size_t>(picture.width);
            const auto nHeight = static_cast<std::size_t>(picture.height);
            const std::size_t nColumns = (nWidth + layout.nShiftX) >> layout.nShiftX;
            const std::size_t nRows = (nHeight + layout.nShiftY) >> layout.nShiftY;
            const std::size_t nChroma = nColumns * nRows * layout.nChromaBytes;
            // Without chroma planes it is whole groups of pixels that lie in plane 0.
            const std::size_t nRow = layout.nPlanes == 1 ? nColumns << layout.nShiftX : nWidth;
            return {nRow * nHeight * layout.nBytes, nChroma, layout.nPlanes == 3 ? nChroma : 0};
        }
    }
    return {};
}

namespace detail
{

inline std::size_t Sum(const Planes& planes)
{
    return planes[0] + planes[1] + planes[2];
}

// Takes what a C function returned.
inline void Check(bool bDone, const char* szWhat = "telvane")
{
    if (!bDone) {
        throw Error(static_cast<int>(AVFilter_GetLastError(nullptr)), szWhat);
    }
}

// For the C functions, whose pointers are to non-const bytes also where they only read.
inline unsigned char* Raw(std::span<const std::byte> bytes)
{
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): see above
    return const_cast<unsigned char*>(reinterpret_cast<const unsigned char*>(bytes.data()));
}

inline void Refuse(bool bRefuse, int nCode, const char* szWhy)
{
    if (bRefuse) {
        throw Error(nCode, szWhy);
    }
}

// Inputs must fit exactly, outputs may be larger. A plane of no bytes may be null.
inline void CheckSize(std::span<const std::byte> bytes, std::size_t nNeeded, bool bOrMore, int nCode)
{
    if ((bytes.data() == nullptr && nNeeded > 0) || bytes.size() < nNeeded ||
        (bytes.size() > nNeeded && !bOrMore)) {
        throw Error(nCode, "a buffer of " + std::to_string(bytes.size()) + " bytes, not " +
                               std::to_string(nNeeded));
    }
}

template <auto Destroy>
class Handle
{
  public:
    explicit Handle(unsigned long long n = 0) : m_n(n) {}
    Handle(Handle&& other) noexcept : m_n(std::exchange(other.m_n, 0)) {}
    Handle& operator=(Handle&& other) noexcept
    {
        const Handle old(std::exchange(m_n, 0)); // before the other is taken: moving to itself empties it
        m_n = std::exchange(other.m_n, 0);
        return *this;
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle()
    {
        if (m_n != 0) {
            Destroy(m_n);
        }
    }
    bool IsEmpty() const { return m_n == 0; }
    unsigned long long Get(int nNotFound) const
    {
        Refuse(m_n == 0, nNotFound, "an object that was moved from");
        return m_n;
    }

  private:
    unsigned long long m_n;
};

inline constexpr const char* kSinkLabel = "telvane_out";

// The description of the whole graph. The layer's part stands in front, where no quote that the text
// leaves open can swallow it, and its label for the sink occurs nowhere else.
inline std::string Complete(const std::string& text, const std::string& end, int nInvalid)
{
    std::string plain; // FFmpeg drops quotes and backslashes from names
    for (const char c : text) {
        Refuse(c == '\0', nInvalid, "the description contains a zero byte");
        if (c != '\\' && c != '\'') {
            plain += c;
        }
    }
    for (const char* szWord : {kSinkLabel, "sendcmd", "zmq"}) {
        Refuse(plain.find(szWord) != std::string::npos, nInvalid, szWord);
    }
    const std::size_t nLast = text.find_last_not_of(" \n\t\r");
    Refuse(nLast == std::string::npos, nInvalid, "the description is empty");
    // A text may also end in a filter without output, behind a chain that leads to [out].
    const bool bLabelled = text[nLast] == ']' || text.find("[out]") != std::string::npos;
    return "[out]" + end + "[" + kSinkLabel + "];" + text + (bLabelled ? "" : "[out]");
}

// A filter is a mix of the one input "in", which a description may leave out.
inline std::string FromIn(const std::string& text)
{
    const std::size_t nFirst = text.find_first_not_of(" \n\t\r");
    const bool bLabelled =
        nFirst == std::string::npos || text[nFirst] == '[' || text.find("[in]") != std::string::npos;
    return bLabelled ? text : "[in]" + text;
}

// Where audio and video differ.
struct Audio {
    using Info = AVFILTER_AUDIO_INFO;
    using Stream = AudioStream;
    using Out = AudioStream;
    static constexpr auto kCreate = AVFilter_Audio_MIXInit;
    static constexpr auto kReceive = AVFilter_Audio_MIXRecv;
    static constexpr auto kDestroy = AVFilter_Audio_MIXDestroy;
    static constexpr int kInvalid = AVFILTER_ERROR_AUDIO_INVALID_PARAM;
    static constexpr int kNotFound = AVFILTER_ERROR_AUDIO_NOT_FOUND;
    static constexpr int kNoMemory = AVFILTER_ERROR_AUDIO_FRAME_BUFFER;

    static Planes Bytes(const AudioStream& stream)
    {
        constexpr int kBytes[] = {1, 2, 4, 4, 8};
        Refuse(stream.format < AV_SAMPLE_FMT_U8 || stream.format > AV_SAMPLE_FMT_DBL || stream.rate < 1 ||
                   stream.channels < 1 || stream.samples < 1 ||
                   stream.channels > INT_MAX / kBytes[stream.format] / stream.samples,
               kInvalid, "the samples are not packed, or the rate or the block's size cannot be");
        return {static_cast<std::size_t>(kBytes[stream.format] * stream.channels * stream.samples)};
    }
    static Info Record(const AudioStream& stream)
    {
        return {{}, stream.format, stream.rate, stream.samples, stream.channels, 0, 0};
    }
    static std::size_t OutputBytes(const AudioStream& out) { return Bytes(out)[0]; }
    static std::string End(const AudioStream& out)
    {
        constexpr const char* kNames[] = {"u8", "s16", "s32", "flt", "dbl"};
        return std::string("aformat=sample_fmts=") + kNames[out.format] +
               ":sample_rates=" + std::to_string(out.rate) +
               ":channel_layouts=" + std::to_string(out.channels) +
               "c,asetnsamples=n=" + std::to_string(out.samples) + ":p=0";
    }
};

struct Video {
    using Info = AVFILTER_VIDEO_INFO;
    using Stream = VideoStream;
    using Out = Size;
    static constexpr auto kCreate = AVFilter_Video_MIXInit;
    static constexpr auto kReceive = AVFilter_Video_MIXRecv;
    static constexpr auto kDestroy = AVFilter_Video_MIXDestroy;
    static constexpr int kInvalid = AVFILTER_ERROR_VIDEO_INVALID_PARAM;
    static constexpr int kNotFound = AVFILTER_ERROR_VIDEO_NOT_FOUND;
    static constexpr int kNoMemory = AVFILTER_ERROR_VIDEO_ALLOC;

    static Planes Bytes(const Picture& picture)
    {
        const Planes planes = PlaneBytes(picture);
        Refuse(planes[0] == 0, kInvalid, "a pixel format that PlaneBytes does not know, or no such size");
        return planes;
    }
    static Planes Bytes(const VideoStream& stream)
    {
        Refuse(stream.rate < 1, kInvalid, "no such rate");
        return Bytes(stream.picture);
    }
    static Info Record(const VideoStream& stream)
    {
        const Picture& picture = stream.picture;
        return {{}, picture.width, picture.height, stream.rate, picture.format, 0};
    }
    static std::size_t OutputBytes(const Size& out)
    {
        return Bytes(Picture{AV_PIX_FMT_GRAY8, out.width, out.height})[0] +
               2 * static_cast<std::size_t>(out.width / 2) * static_cast<std::size_t>(out.height / 2);
    }
    static std::string End(const Size& out)
    {
        return "scale=" + std::to_string(out.width) + ":" + std::to_string(out.height) + ",format=yuv420p";
    }
};

// What filters and mixers have in common.
template <class Kind>
class Graph
{
  public:
    bool IsEmpty() const { return m_Handle.IsEmpty(); }

    // What Send takes, exactly.
    std::size_t InputBytes(std::size_t nInput = 0) const { return IsEmpty() ? 0 : Sum(PlanesOf(nInput)); }
    // What Receive gives. Only the last block of a description that ends by itself can be shorter.
    std::size_t OutputBytes() const { return IsEmpty() ? 0 : m_nOutput; }

    // Takes one block or picture, if there is one, and returns the number of bytes written.
    [[nodiscard]] std::optional<std::size_t> Receive(std::span<std::byte> out)
    {
        const unsigned long long hHandle = Get();
        CheckSize(out, m_nOutput, true, Kind::kInvalid);
        int nSize = 0;
        if (Kind::kReceive(hHandle, Raw(out), &nSize)) {
            return static_cast<std::size_t>(nSize);
        }
        // The only other failure that is left here; all other codes are those of other threads.
        Check(AVFilter_GetLastError(nullptr) != Kind::kNoMemory, "Receive");
        return std::nullopt;
    }

    Graph(const std::vector<Input<typename Kind::Stream>>& inputs, const std::string& description,
          const typename Kind::Out& out)
        : m_Inputs(inputs.size()), m_nOutput(Kind::OutputBytes(out))
    {
        const std::string whole = Complete(description, Kind::End(out), Kind::kInvalid);
        std::vector<typename Kind::Info> infos(inputs.size());
        std::vector<typename Kind::Info*> pointers(inputs.size());
        for (std::size_t i = 0; i < inputs.size(); ++i) {
            m_Inputs[i] = inputs[i].stream;
            Kind::Bytes(m_Inputs[i]); // throws if there is no such stream
            infos[i] = Kind::Record(m_Inputs[i]);
            infos[i].nInputId = static_cast<int>(i);
            Refuse(inputs[i].name.size() >= sizeof(infos[i].szName) ||
                       inputs[i].name.find('\0') != std::string::npos,
                   Kind::kInvalid, "a name is too long or contains a zero byte");
            inputs[i].name.copy(infos[i].szName, inputs[i].name.size());
            pointers[i] = &infos[i];
        }
        unsigned long long hHandle = 0;
        typename Kind::Info** ppInfo = pointers.data();
        Check(Kind::kCreate(&hHandle, &ppInfo, static_cast<int>(infos.size()), kSinkLabel, whole.c_str()),
              whole.c_str());
        m_Handle = decltype(m_Handle)(hHandle);
    }

  protected:
    unsigned long long Get() const { return m_Handle.Get(Kind::kNotFound); }
    const typename Kind::Stream& StreamOf(std::size_t nInput) const
    {
        Refuse(IsEmpty() || nInput >= m_Inputs.size(), Kind::kNotFound, "StreamOf");
        return m_Inputs[nInput];
    }
    Planes PlanesOf(std::size_t nInput) const { return Kind::Bytes(StreamOf(nInput)); }

  private:
    Handle<Kind::kDestroy> m_Handle;
    std::vector<typename Kind::Stream> m_Inputs;
    std::size_t m_nOutput;
};

} // namespace detail

// Mixes the blocks of several inputs, numbered from 0, into blocks as "out" says. A description that
// FFmpeg refuses leaves tens of kilobytes allocated: do not try them out in a loop.
// Threads: one object, one caller at a time.
class AudioMixer : public detail::Graph<detail::Audio>
{
  public:
    using Graph::Graph; // inputs, description, out
    void Send(std::size_t nInput, std::span<const std::byte> block)
    {
        detail::CheckSize(block, PlanesOf(nInput)[0], false, AVFILTER_ERROR_AUDIO_INVALID_PARAM);
        detail::Check(AVFilter_Audio_MIXSend(Get(), static_cast<int>(nInput), detail::Raw(block),
                                             static_cast<int>(block.size())));
    }
};

// Filters one stream: a mix of one input. The output is cut into blocks anew, so that a block sent may give
// none, one or several. Threads: one object, one caller at a time.
class AudioFilter : public AudioMixer
{
  public:
    AudioFilter(const AudioStream& in, const std::string& description, std::optional<AudioStream> out = {})
        : AudioMixer({{"in", in}}, detail::FromIn(description), out.value_or(in))
    {
    }
    void Send(std::span<const std::byte> block) { AudioMixer::Send(0, block); }
};

// Mixes the pictures of several inputs, numbered from 0, into tight yuv420p pictures of the size "out", of
// which an odd width or height loses the last chroma column or row. The pictures sent to an input have the
// times 0, 1/rate, 2/rate and so on. Threads: one object, one caller at a time.
class VideoMixer : public detail::Graph<detail::Video>
{
  public:
    static constexpr std::size_t kSpareBytes = 64;

    using Graph::Graph; // inputs, description, out
    // Sends a copy of one tight picture.
    void Send(std::size_t nInput, std::span<const std::byte> picture)
    {
        const Planes n = PlanesOf(nInput);
        detail::CheckSize(picture, detail::Sum(n), false, AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        Send(nInput, picture.first(n[0]), picture.subspan(n[0], n[1]), picture.last(n[2]));
    }
    // The same plane by plane; planes that the format does not have are empty.
    void Send(std::size_t nInput, std::span<const std::byte> y, std::span<const std::byte> u,
              std::span<const std::byte> v)
    {
        const Planes n = PlanesOf(nInput);
        detail::CheckSize(y, n[0], false, AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        detail::CheckSize(u, n[1], false, AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        detail::CheckSize(v, n[2], false, AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        // A null plane would mean a whole picture.
        detail::Check(AVFilter_Video_MIXSend(Get(), static_cast<int>(nInput), detail::Raw(y),
                                             detail::Raw(u.empty() ? y : u), detail::Raw(v.empty() ? y : v),
                                             static_cast<int>(n[0]), static_cast<int>(n[1]),
                                             static_cast<int>(n[2])));
    }
    // Hands over a tight yuv420p picture of even size, with kSpareBytes behind it: the graph works in the
    // caller's memory and MAY WRITE TO IT. It must stay, untouched by others, until all that is made from
    // the picture has been received or the object has been destroyed.
    void SendWithoutCopy(std::size_t nInput, std::span<std::byte> pictureAndSpare)
    {
        const Picture& picture = StreamOf(nInput).picture;
        detail::Refuse(picture.format != AV_PIX_FMT_YUV420P || picture.width % 2 != 0 ||
                           picture.height % 2 != 0,
                       AVFILTER_ERROR_VIDEO_INVALID_PARAM, "not yuv420p of even size");
        detail::CheckSize(pictureAndSpare, InputBytes(nInput) + kSpareBytes, false,
                          AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        detail::Check(AVFilter_Video_MIXSend(Get(), static_cast<int>(nInput), detail::Raw(pictureAndSpare),
                                             nullptr, nullptr, 0, 0, 0));
    }
};

// Filters one stream of pictures: a mix of one input. A picture sent may give none, one or several.
// Threads: one object, one caller at a time.
class VideoFilter : public VideoMixer
{
  public:
    VideoFilter(const VideoStream& in, const std::string& description, std::optional<Size> out = {})
        : VideoMixer({{"in", in}}, detail::FromIn(description),
                     out.value_or(Size{in.picture.width, in.picture.height}))
    {
    }
    void Send(std::span<const std::byte> picture) { VideoMixer::Send(0, picture); }
    void Send(std::span<const std::byte> y, std::span<const std::byte> u, std::span<const std::byte> v)
    {
        VideoMixer::Send(0, y, u, v);
    }
    void SendWithoutCopy(std::span<std::byte> pictureAndSpare)
    {
        VideoMixer::SendWithoutCopy(0, pictureAndSpare);
    }
};

// Converts pictures between the sizes and pixel formats of PlaneBytes. To set it up anew, assign another.
// Threads: one object, one caller at a time.
class VideoScaler
{
  public:
    VideoScaler(const Picture& from, const Picture& to)
        : m_nIn(detail::Sum(detail::Video::Bytes(from))), m_nOut(detail::Sum(detail::Video::Bytes(to)))
    {
        unsigned long long hHandle = 0;
        detail::Check(AVFilter_VideoScale_Init(&hHandle));
        m_Handle = decltype(m_Handle)(hHandle);
        detail::Check(AVFilter_VideoScale_Set(hHandle, from.format, from.width, from.height, to.format,
                                              to.width, to.height));
    }
    bool IsEmpty() const { return m_Handle.IsEmpty(); }
    std::size_t InputBytes() const { return IsEmpty() ? 0 : m_nIn; }
    std::size_t OutputBytes() const { return IsEmpty() ? 0 : m_nOut; }

    // Converts one tight picture. The two buffers may overlap.
    void Scale(std::span<const std::byte> in, std::span<std::byte> out)
    {
        const unsigned long long hHandle = m_Handle.Get(AVFILTER_ERROR_VIDEO_NOT_FOUND);
        detail::CheckSize(in, m_nIn, false, AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        detail::CheckSize(out, m_nOut, true, AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        auto nSize = static_cast<int>(m_nOut);
        detail::Check(AVFilter_VideoScale_Fmt(hHandle, reinterpret_cast<const char*>(in.data()),
                                              detail::Raw(out), &nSize));
    }

  private:
    detail::Handle<AVFilter_VideoScale_Destory> m_Handle;
    std::size_t m_nIn;
    std::size_t m_nOut;
};

} // namespace telvane

#endif
