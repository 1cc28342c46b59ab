// Filters and mixers of pictures.
#ifndef TELVANE_VIDEO_HPP
#define TELVANE_VIDEO_HPP

#include "telvane/graph.hpp"

namespace telvane
{

namespace detail
{

// The times v0, v1 ... of the pictures 0, 1 ... as an expression of N: evenly spaced runs, found by halving.
class TimesExpression
{
  public:
    explicit TimesExpression(const std::vector<std::int64_t>& times) : m_Times(times)
    {
        for (std::size_t i = 0; i < times.size(); ++i) {
            if (m_Runs.empty() ||
                (i > m_Runs.back() + 1 && times[i] - times[i - 1] != Step(m_Runs.back()))) {
                m_Runs.push_back(i);
            }
        }
    }
    std::string Get() const
    {
        std::string text;
        Append(text, 0, m_Runs.size());
        return text;
    }

  private:
    std::int64_t Step(std::size_t i) const
    {
        return i + 1 < m_Times.size() ? m_Times[i + 1] - m_Times[i] : 0;
    }
    void Append(std::string& text, std::size_t nFirst, std::size_t nEnd) const
    {
        if (nEnd - nFirst == 1) {
            const std::size_t i = m_Runs[nFirst];
            text += Text(m_Times[i]) + "+(N-" + Text(i) + ")*" + Text(Step(i));
            return;
        }
        const std::size_t nMiddle = nFirst + (nEnd - nFirst) / 2;
        text += "if(lt(N," + Text(m_Runs[nMiddle]) + "),";
        Append(text, nFirst, nMiddle);
        text += ",";
        Append(text, nMiddle, nEnd);
        text += ")";
    }

    const std::vector<std::int64_t>& m_Times;
    std::vector<std::size_t> m_Runs; // where they start
};

// The end of a graph of pictures. 8-bit 4:2:0 of even size is what the C functions give out as it is. Of all
// else each byte of each component becomes a gray picture; these stand one below the other as the luma of one
// such picture, of full range so that nothing is converted, and the layer puts them together again.
class VideoTail
{
  public:
    explicit VideoTail(const Picture& picture)
        : out(picture), nBytes(PictureBytes(picture)), m_Planes(PlanesOf(picture))
    {
        Refuse(nBytes == 0, AVFILTER_ERROR_VIDEO_INVALID_PARAM, "no such output format or size");
        const PixelFormat& format = *FindFormat(picture.format);
        if (format.planes == "y|u|v" && format.shiftX == 1 && format.shiftY == 1 && format.bits == 8 &&
            picture.width % 2 == 0 && picture.height % 2 == 0) {
            return;
        }
        for (const char c : std::string_view("yuvrgba")) { // the order in which FFmpeg gives them out
            for (const Plane& plane : m_Planes) {
                for (int nByte = 0; Has(plane.group, c) && nByte < (format.bits > 8 ? 2 : 1); ++nByte) {
                    const bool bChroma = c == 'u' || c == 'v';
                    const std::size_t nWidth = Shifted(picture.width, bChroma ? format.shiftX : 0);
                    m_Layers.push_back({c, nByte, m_nRows, nWidth, plane.nRows});
                    m_nRows += plane.nRows;
                    m_nWidth = std::max(m_nWidth, (nWidth + 1) / 2 * 2);
                }
            }
        }
        m_nRows += m_nRows % 2;
        m_Stack.resize(m_nWidth * m_nRows / 2 * 3);
    }

    std::string Filters(const Clock& clock) const
    {
        const PixelFormat& format = *FindFormat(out.format);
        std::string text =
            "scale=" + Text(out.width) + ":" + Text(out.height) + ",format=" + std::string(format.name);
        text += clock.Filters("");
        if (m_Layers.empty()) {
            return text + clock.Mark(",tpad=stop=1");
        }
        // The times are told; vstack wants ascending ones. Nothing is to be converted from here on: the
        // numbers count, whatever they stand for.
        text += ",setpts=N,setrange=full";
        if (format.planar[0] != '\0') {
            text += std::string(",") + kAsItIs + format.planar;
        }
        text += ",extractplanes=";
        std::string labels;
        std::string chains;
        std::string stack;
        std::size_t nRows = 0;
        for (const Layer& layer : m_Layers) {
            const std::string c(1, layer.cComponent);
            const std::string name = kReserved + c;
            const std::string label = "[" + name + Text(layer.nByte) + "]";
            if (layer.nByte == 0) {
                text += (labels.empty() ? "" : "+") + c;
                labels += "[" + name + "]";
                chains.append(";[").append(name).append("]");
                if (format.bits > 8) {
                    chains.append("split[").append(name).append("l][").append(name).append("h];[");
                    chains.append(name).append("l]");
                }
            } else {
                chains.append(";[").append(name).append("h]");
            }
            chains += format.bits == 8 ? "" : TakeByte(format, layer.nByte);
            nRows += layer.nRows;
            const bool bLast = &layer == &m_Layers.back();
            // The pad says the format so that FFmpeg converts nothing in front of it.
            chains += "format=gray,pad=" + Text(m_nWidth) + ":" +
                      Text((layer.nRows + (bLast ? m_nRows - nRows : 0))) + ":0:0" + label;
            stack += label;
        }
        const std::string vstack =
            m_Layers.size() == 1 ? "" : "vstack=inputs=" + Text(m_Layers.size()) + ",";
        return text + labels + chains + ";" + stack + vstack + kAsItIs + "yuv420p" +
               clock.Mark(",tpad=stop=1");
    }

    // Where the C function writes to.
    std::span<std::byte> Target(std::span<std::byte> buffer) noexcept
    {
        return m_Layers.empty() ? buffer : std::span<std::byte>(m_Stack);
    }

    std::size_t Finish(std::span<std::byte> buffer, std::size_t /*nSize*/) const noexcept
    {
        if (m_Layers.empty()) {
            return nBytes;
        }
        std::byte* pTo = buffer.data();
        for (const Plane& plane : m_Planes) {
            for (std::size_t nByte = 0; nByte < plane.nGroupBytes; ++nByte) {
                PutBytes(plane, nByte, pTo);
            }
            pTo += plane.Bytes();
        }
        return nBytes;
    }

    Picture out;
    std::size_t nBytes;

  private:
    static constexpr const char* kAsItIs = "scale=in_range=full:out_range=full,format=";
    struct Layer {
        char cComponent;
        int nByte;        // of the sample
        std::size_t nRow; // of the stack
        std::size_t nWidth;
        std::size_t nRows;
    };

    // Only the wanted byte of each sample, in the highest bits, so that the scaler has nothing to round.
    static std::string TakeByte(const PixelFormat& format, int nByte)
    {
        const std::string value = "val*" + Text(1 << format.lowBits);
        const std::string byte = nByte == 0 ? "mod(" + value + ",256)" : "floor(" + value + "/256)";
        return "lut=c0='" + byte + "*" + Text(1 << (format.bits - 8)) + "',scale=sws_dither=none,";
    }

    // One byte of every group of a plane.
    void PutBytes(const Plane& plane, std::size_t nByte, std::byte* pPlane) const noexcept
    {
        const std::size_t nSampleBytes = plane.nGroupBytes / plane.group.size();
        const std::size_t nPlace = nByte / nSampleBytes;
        const char c = plane.group[nPlace];
        // In "yuyv" every second y is one of this place.
        const auto nStep = static_cast<std::size_t>(std::count(plane.group.begin(), plane.group.end(), c));
        const auto nFirst = static_cast<std::size_t>(
            std::count(plane.group.begin(), plane.group.begin() + static_cast<std::ptrdiff_t>(nPlace), c));
        for (const Layer& layer : m_Layers) {
            if (layer.cComponent == c && static_cast<std::size_t>(layer.nByte) == nByte % nSampleBytes) {
                for (std::size_t row = 0; row < plane.nRows; ++row) {
                    const std::byte* pFrom = &m_Stack[(layer.nRow + row) * m_nWidth] + nFirst;
                    std::byte* pTo = pPlane + row * plane.nColumns * plane.nGroupBytes + nByte;
                    if (plane.nGroupBytes == 1) {
                        std::copy(pFrom, pFrom + plane.nColumns, pTo);
                        continue;
                    }
                    for (std::size_t i = 0; i < plane.nColumns; ++i) {
                        pTo[i * plane.nGroupBytes] = pFrom[i * nStep];
                    }
                }
                return;
            }
        }
        for (std::size_t i = 0; i < plane.nColumns * plane.nRows; ++i) {
            pPlane[i * plane.nGroupBytes + nByte] = std::byte{0xFF};
        }
    }

    std::array<Plane, 4> m_Planes;
    std::vector<Layer> m_Layers; // none: the direct way
    std::size_t m_nWidth = 0;    // of the stack
    std::size_t m_nRows = 0;
    std::vector<std::byte> m_Stack;
};

struct Video {
    using Info = AVFILTER_VIDEO_INFO;
    using Stream = VideoStream;
    using Out = Picture;
    using Tail = VideoTail;
    static constexpr auto kCreate = AVFilter_Video_MIXInit;
    static constexpr auto kReceive = AVFilter_Video_MIXRecv;
    static constexpr auto kDestroy = AVFilter_Video_MIXDestroy;
    static constexpr int kInvalid = AVFILTER_ERROR_VIDEO_INVALID_PARAM;
    static constexpr int kNotFound = AVFILTER_ERROR_VIDEO_NOT_FOUND;
    static constexpr int kNoMemory = AVFILTER_ERROR_VIDEO_ALLOC;
    static constexpr int kReceiveFailed = AVFILTER_ERROR_VIDEO_RECEIVE_FRAME;

    static constexpr std::int64_t kMostTime = std::int64_t{1} << 53; // expressions count in doubles

    static std::size_t InputBytes(const VideoStream& stream) { return PictureBytes(stream.picture); }
    static std::optional<std::int64_t> Length(const VideoStream& stream)
    {
        const Planes planes = PlaneBytes(stream.picture);
        Refuse(planes[0] == 0, kInvalid, "a pixel format that the layer does not know, or no such size");
        Refuse(stream.rate.num < 1 || stream.rate.den < 1 || stream.timeBase.num < 1 ||
                   stream.timeBase.den < 1 || stream.toldRate.num < 0 || stream.toldRate.den < 1 ||
                   stream.aspect.num < 0 || stream.aspect.den < 1,
               kInvalid, "no such rate, time base or aspect ratio");
        Refuse(stream.length && *stream.length < 0, kInvalid, "a length below 0");
        if (stream.times.empty()) {
            return stream.length;
        }
        for (const std::int64_t nTime : stream.times) {
            Refuse(nTime > kMostTime || nTime < -kMostTime, kInvalid, "a time beyond 2^53");
        }
        const auto nTimes = static_cast<std::int64_t>(stream.times.size());
        const std::int64_t nLength = stream.length.value_or(nTimes);
        Refuse(nTimes != nLength && nTimes != nLength + 1, kInvalid,
               "the number of times is not the length");
        return nLength;
    }
    static Info Record(const VideoStream& stream)
    {
        const Picture& picture = stream.picture;
        const int nTimeBase = stream.times.empty() ? stream.rate.num : stream.timeBase.den;
        if (!IsStacked(picture)) {
            return {{}, picture.width, picture.height, nTimeBase, picture.format, 0};
        }
        const auto planes = PlanesOf(picture);
        const std::size_t nRows = planes[0].nRows + planes[1].nRows + planes[2].nRows + planes[3].nRows;
        return {{}, StackWidth(picture), static_cast<int>(nRows), nTimeBase, GrayOf(picture), 0};
    }
    // The C functions take three planes. Pictures of four are sent as gray ones, their planes one below the
    // other, and taken apart again.
    static bool IsStacked(const Picture& picture) noexcept { return PlaneBytes(picture)[3] != 0; }
    // Even, because FFmpeg's mergeplanes miscounts odd widths of deep samples.
    static int StackWidth(const Picture& picture) noexcept { return (picture.width + 1) / 2 * 2; }
    static AVPixelFormat GrayOf(const Picture& picture) noexcept
    {
        const int nBits = FindFormat(picture.format)->bits;
        for (const PixelFormat& entry : kPixelFormats) {
            if (entry.planes == "y" && entry.bits == nBits) {
                return entry.format;
            }
        }
        return AV_PIX_FMT_NONE;
    }
    static std::string Unstack(const Picture& picture, const std::string& label)
    {
        const PixelFormat& format = *FindFormat(picture.format);
        std::string outputs;
        std::string crops;
        std::string inputs;
        std::size_t nRow = 0;
        for (const Plane& plane : PlanesOf(picture)) {
            const std::string whole = "[" + label + "s" + Text(nRow) + "]";
            const std::string part = "[" + label + "p" + Text(nRow) + "]";
            outputs += whole;
            const bool bChroma = Has("uv", plane.group[0]);
            const std::size_t nColumns = Shifted(StackWidth(picture), bChroma ? format.shiftX : 0);
            crops.append(whole)
                .append("crop=")
                .append(Text(nColumns))
                .append(":")
                .append(Text(plane.nRows));
            crops.append(":0:").append(Text(nRow)).append(part).append(";");
            inputs += part;
            nRow += plane.nRows;
        }
        return "split=4" + outputs + ";" + crops + inputs +
               "mergeplanes=map1s=1:map2s=2:map3s=3:format=" + format.name +
               ",crop=" + Text(picture.width) + ":" + Text(picture.height) + ":0:0:exact=1";
    }
    // The time of the picture after n others, in seconds.
    static double Time(const VideoStream& stream, std::int64_t n)
    {
        const Rational base =
            stream.times.empty() ? Rational{stream.rate.den, stream.rate.num} : stream.timeBase;
        const std::size_t nAt = std::min(static_cast<std::size_t>(n), stream.times.size() - 1);
        const std::int64_t nTime = stream.times.empty() ? n : stream.times[nAt];
        return static_cast<double>(nTime) * base.num / base.den;
    }
    // The picture that fps holds back, and the one that trim does not let pass.
    static int ToEnd(const VideoStream& stream) noexcept
    {
        return stream.times.empty() || stream.toldRate.num > 0 ? 2 : 1;
    }
    static std::string TimeBase(Rational base) { return ",settb=" + Text(base.num) + "/" + Text(base.den); }
    static std::string Head(const VideoStream& stream, const std::string& label)
    {
        std::string text = IsStacked(stream.picture) ? Unstack(stream.picture, label) : "";
        if (!stream.times.empty()) {
            std::vector<std::int64_t> times = stream.times;
            const std::size_t n = times.size();
            if (static_cast<std::int64_t>(n) == Length(stream)) { // it ends one more step later
                times.push_back(times[n - 1] + (n > 1 ? times[n - 1] - times[n - 2] : 1));
            }
            if (stream.toldRate.num > 0 &&
                stream.length != 0) { // the one filter that tells others a rate wants even times
                text += TimeBase({stream.toldRate.den, stream.toldRate.num}) +
                        ",setpts=N,fps=" + Text(stream.toldRate.num) + "/" + Text(stream.toldRate.den);
            }
            text += TimeBase(stream.timeBase) + ",setpts='" + TimesExpression(times).Get() + "'";
        } else if (stream.rate.den != 1) {
            text += TimeBase({stream.rate.den, stream.rate.num}) + ",setpts=N";
        }
        if (const auto nLength = Length(stream)) {
            // It is fps that tells others the rate. It holds a picture back, which nobody wants in a stream
            // without end.
            const std::string trim = ",trim=end_frame=" + Text(*nLength);
            const std::string fps =
                stream.times.empty() ? ",fps=" + Text(stream.rate.num) + "/" + Text(stream.rate.den) : "";
            text += *nLength == 0 ? trim + fps : fps + trim;
        }
        const Colour& colour = stream.colour;
        constexpr std::array kFields{"", "prog", "tff", "bff"};
        const auto add = [&](const char* szOption, int n, int nUnknown) {
            text += n == nUnknown ? "" : std::string(",setparams=") + szOption + "=" + Text(n);
        };
        if (!std::string_view(FindFormat(stream.picture.format)->name).starts_with("yuvj")) {
            add("range", colour.range, AVCOL_RANGE_UNSPECIFIED);
        }
        add("color_primaries", colour.primaries, AVCOL_PRI_UNSPECIFIED);
        add("color_trc", colour.transfer, AVCOL_TRC_UNSPECIFIED);
        add("colorspace", colour.matrix, AVCOL_SPC_UNSPECIFIED);
        if (stream.fields != Fields::kUnknown) {
            text +=
                std::string(",setparams=field_mode=") + kFields.at(static_cast<std::size_t>(stream.fields));
        }
        if (stream.aspect.num != 0) {
            text += ",setsar=" + Text(stream.aspect.num) + "/" + Text(stream.aspect.den);
        }
        if (!text.empty()) { // histogram and its like want to see one format right in front of them
            text += std::string(",format=") + FindFormat(stream.picture.format)->name;
        }
        return text[0] == ',' ? text.substr(1) : text;
    }
    static void SendAnything(unsigned long long hHandle, std::size_t nInput)
    {
        unsigned char nothing = 0;
        Check(AVFilter_Video_MIXSend(hHandle, static_cast<int>(nInput), &nothing, &nothing, &nothing, 0, 0,
                                     0),
              "the end of an input");
    }
    static Picture Output(const std::vector<VideoInput>& inputs, const std::optional<Picture>& out)
    {
        Refuse(inputs.empty(), kInvalid, "no inputs");
        return out.value_or(inputs[0].stream.picture);
    }
};

} // namespace detail

/// Mixes the pictures of several inputs, numbered from 0, into tight pictures of the format and size "out",
/// by default the first input's: byte for byte what FFmpeg gives for the description followed by
/// scale=WIDTH:HEIGHT,format=FORMAT. Filters pair the pictures of their inputs by time; what is sent to one
/// input waits for the others. Bytes of a picture that mean nothing (the x of rgb0, the last sample of yuyv422
/// of odd width) are 255 and undefined.
/// Threads: one object, one caller at a time.
class VideoMixer : public detail::Graph<detail::Video>
{
  public:
    /// Behind a picture that is handed over: FFmpeg's scaler may read them.
    static constexpr std::size_t kSpareBytes = 64;

    /// description: from the inputs' names to [out]; a last output without a label is [out].
    /// Throws Error: INVALID_PARAM for streams, outputs and names that cannot be and for refused words;
    /// CREATE_SOURCE, PARSE_GRAPH and CONFIG_GRAPH from FFmpeg.
    VideoMixer(const std::vector<VideoInput>& inputs, const std::string& description,
               const std::optional<Picture>& out = {}, Times times = Times::kGiven)
        : Graph(inputs, description, out, times)
    {
    }
    /// Sends a copy of one tight picture of InputBytes(nInput). Throws Error: INVALID_PARAM for another size or
    /// more pictures than the length; NOT_FOUND; ALLOC and SEND_FRAME for lack of memory, after which the
    /// picture can be sent again.
    void Send(std::size_t nInput, std::span<const std::byte> picture)
    {
        const Planes n = PlaneBytes(StreamOf(nInput).picture);
        detail::CheckSize(picture, n[0] + n[1] + n[2] + n[3], false, AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        Send(nInput, picture.first(n[0]), picture.subspan(n[0], n[1]), picture.subspan(n[0] + n[1], n[2]),
             picture.last(n[3]));
    }
    /// The same plane by plane; planes that the format does not have are empty.
    void Send(std::size_t nInput, std::span<const std::byte> plane0, std::span<const std::byte> plane1,
              std::span<const std::byte> plane2, std::span<const std::byte> plane3 = {})
    {
        const Picture& picture = StreamOf(nInput).picture;
        Planes n = PlaneBytes(picture);
        detail::CheckSize(plane0, n[0], false, AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        detail::CheckSize(plane1, n[1], false, AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        detail::CheckSize(plane2, n[2], false, AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        detail::CheckSize(plane3, n[3], false, AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        Left(nInput);
        if (n[3] != 0) {
            m_Stack.clear();
            const auto rows = detail::PlanesOf(picture);
            const std::size_t nWidth =
                static_cast<std::size_t>(detail::Video::StackWidth(picture)) * rows[0].nGroupBytes;
            std::size_t i = 0;
            for (std::span<const std::byte> plane : {plane0, plane1, plane2, plane3}) {
                const std::size_t nRow = rows[i].nColumns * rows[i].nGroupBytes;
                ++i;
                for (; !plane.empty(); plane = plane.subspan(nRow)) {
                    m_Stack.insert(m_Stack.end(), plane.begin(),
                                   plane.begin() + static_cast<std::ptrdiff_t>(nRow));
                    m_Stack.resize(m_Stack.size() + nWidth - nRow);
                }
            }
            n = {m_Stack.size(), 0, 0, 0};
            plane0 = m_Stack;
            plane1 = plane2 = {};
        }
        // A null plane would mean a whole picture.
        detail::Check(AVFilter_Video_MIXSend(Get(), static_cast<int>(nInput), detail::Raw(plane0),
                                             detail::Raw(plane1.empty() ? plane0 : plane1),
                                             detail::Raw(plane2.empty() ? plane0 : plane2),
                                             static_cast<int>(n[0]), static_cast<int>(n[1]),
                                             static_cast<int>(n[2])),
                      "Send");
        Took(nInput, 1);
    }
    /// Hands over a tight yuv420p picture of even size, with kSpareBytes behind it: the graph works in the
    /// caller's memory and MAY WRITE TO IT. It must stay, untouched by others, until all that is made from
    /// the picture has been received or the object has been destroyed.
    void SendWithoutCopy(std::size_t nInput, std::span<std::byte> pictureAndSpare)
    {
        const Picture& picture = StreamOf(nInput).picture;
        detail::Refuse(picture.format != AV_PIX_FMT_YUV420P || picture.width % 2 != 0 ||
                           picture.height % 2 != 0,
                       AVFILTER_ERROR_VIDEO_INVALID_PARAM, "not yuv420p of even size");
        detail::CheckSize(pictureAndSpare, InputBytes(nInput) + kSpareBytes, false,
                          AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        Left(nInput);
        detail::Check(AVFilter_Video_MIXSend(Get(), static_cast<int>(nInput), detail::Raw(pictureAndSpare),
                                             nullptr, nullptr, 0, 0, 0),
                      "SendWithoutCopy");
        Took(nInput, 1);
    }

  private:
    std::vector<std::byte> m_Stack; // of the last picture of four planes
};

/// Filters one stream of pictures: a mix of the one input "in". A picture sent may give none, one or several.
/// Threads: one object, one caller at a time.
class VideoFilter : public VideoMixer
{
  public:
    /// As for VideoMixer; a first input without a label is [in]: "hflip" is enough.
    VideoFilter(const VideoStream& in, const std::string& description,
                const std::optional<Picture>& out = {}, Times times = Times::kGiven)
        : VideoMixer({{"in", in}}, description, out, times)
    {
    }
    /// As for VideoMixer, to the one input.
    void Send(std::span<const std::byte> picture) { VideoMixer::Send(0, picture); }
    /// The same plane by plane.
    void Send(std::span<const std::byte> plane0, std::span<const std::byte> plane1,
              std::span<const std::byte> plane2, std::span<const std::byte> plane3 = {})
    {
        VideoMixer::Send(0, plane0, plane1, plane2, plane3);
    }
    /// As for VideoMixer: THE GRAPH MAY WRITE to the picture, which must stay until what is made of it has come out.
    void SendWithoutCopy(std::span<std::byte> pictureAndSpare)
    {
        VideoMixer::SendWithoutCopy(0, pictureAndSpare);
    }
};

} // namespace telvane

#endif
