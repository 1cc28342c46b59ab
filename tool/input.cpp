#include "input.h"

#include "graph.h"

extern "C" {
#include <libavutil/dict.h>
#include <libavutil/intreadwrite.h>
#include <libavutil/mathematics.h>
}

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <map>
#include <set>
#include <sys/stat.h>

namespace tool
{

namespace
{

// In AV_TIME_BASE.
constexpr AVRational kMicroseconds{1, AV_TIME_BASE};
constexpr int64_t kPriming = AV_TIME_BASE / 10;
constexpr int64_t kJumpBack = AV_TIME_BASE / 10;
constexpr int64_t kJump = 10 * static_cast<int64_t>(AV_TIME_BASE);
constexpr int64_t kCut = AV_TIME_BASE / 2;

// Coarse time bases wobble by less.
constexpr double kGap = 0.01; // seconds

// Of what a decoder gives; a block may have any length.
Form FormOf(const AVFrame& frame)
{
    Form form;
    form.kind = frame.nb_samples > 0 ? AVMEDIA_TYPE_AUDIO : AVMEDIA_TYPE_VIDEO;
    if (form.kind == AVMEDIA_TYPE_VIDEO) {
        form.picture = {static_cast<AVPixelFormat>(frame.format), frame.width, frame.height};
    } else {
        form.layout = Native(frame.ch_layout);
        form.audio = {static_cast<AVSampleFormat>(frame.format), frame.sample_rate, form.layout.nb_channels,
                      0};
    }
    return form;
}

bool IsSame(const Form& a, const Form& b)
{
    return a.picture.format == b.picture.format && a.picture.width == b.picture.width &&
           a.picture.height == b.picture.height && a.audio.format == b.audio.format &&
           a.audio.rate == b.audio.rate && a.audio.channels == b.audio.channels;
}

// The library's format that loses least.
AVPixelFormat Nearest(AVPixelFormat format)
{
    if (format == AV_PIX_FMT_PAL8) { // may have transparent entries
        return AV_PIX_FMT_RGBA;
    }
    std::vector<AVPixelFormat> formats;
    for (const telvane::PixelFormat& known : telvane::kPixelFormats) {
        formats.push_back(known.format);
    }
    formats.push_back(AV_PIX_FMT_NONE);
    return avcodec_find_best_pix_fmt_of_list(formats.data(), format, 1, nullptr);
}

using FileId = std::pair<dev_t, ino_t>;
// Of the regular file that this name leads to.
std::optional<FileId> IdOf(const std::string& path)
{
    struct stat status {
    };
    const bool bFile = stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    return bFile ? std::optional(FileId{status.st_dev, status.st_ino}) : std::nullopt;
}

// The files that inputs have opened.
struct {
    std::mutex mutex;
    std::set<FileId> ids;
    std::atomic<decltype(AVFormatContext::io_open)> pOpen = nullptr; // FFmpeg's own
} g_Opened;

int Open(AVFormatContext* pFormat, AVIOContext** ppIo, const char* szUrl, int nFlags,
         AVDictionary** ppOptions)
{
    if (const auto id = IdOf(szUrl + (std::string_view(szUrl).starts_with("file:") ? 5 : 0))) {
        const std::scoped_lock lock(g_Opened.mutex);
        g_Opened.ids.insert(*id);
    }
    return g_Opened.pOpen.load()(pFormat, ppIo, szUrl, nFlags, ppOptions);
}

// The samples in a packet, without decoding it.
int64_t SamplesOf(AVPacket& packet, const AVStream& stream)
{
    AVCodecParameters& parameters = *stream.codecpar;
    const AVRational rate{1, parameters.sample_rate};
    const bool bExact = packet.duration > 0 && stream.time_base.den % parameters.sample_rate == 0;
    int64_t n = bExact ? 0 : av_get_audio_frame_duration2(&parameters, packet.size);
    if (n == 0) {
        n = av_rescale_q(packet.duration, stream.time_base, rate);
    }
    std::size_t nSize = 0;
    if (const uint8_t* p = av_packet_get_side_data(&packet, AV_PKT_DATA_SKIP_SAMPLES, &nSize);
        p != nullptr && nSize >= 8) {
        n -= AV_RL32(p) + AV_RL32(p + 4);
    }
    return n;
}

} // namespace

bool IsInput(const std::string& path)
{
    const std::optional<FileId> id = IdOf(path);
    const std::scoped_lock lock(g_Opened.mutex);
    return id && g_Opened.ids.count(*id) != 0;
}

// ---- Files --------------------------------------------------------------------------------------

Demuxer::Demuxer(const Source& source) : m_Source(source)
{
    const std::string& path = source.path;
    const std::size_t nColon = source.format.find(':');
    const std::string format = source.format.substr(0, nColon);
    const AVInputFormat* pFormat = av_find_input_format(format.c_str());
    FailIf(pFormat == nullptr && !format.empty(), kUsage, "FFmpeg knows no input format \"{}\"", format);
    Dictionary options;
    FailIf(nColon != std::string::npos &&
               av_dict_parse_string(options.At(), source.format.c_str() + nColon + 1, "=", ":", 0) < 0,
           kUsage, "--from {}: write FORMAT:OPTION=VALUE:...", source.format);
    // A colon in the name of a file that exists is no protocol.
    std::error_code ignored;
    const std::string url = path == "-"                              ? "pipe:0"
                            : std::filesystem::exists(path, ignored) ? "file:" + path
                                                                     : path;
    AVFormatContext* pContext = NotNull(avformat_alloc_context());
    pContext->interrupt_callback.callback = [](void*) { return IsInterrupted() ? 1 : 0; };
    g_Opened.pOpen = std::exchange(pContext->io_open, Open);
    Check(avformat_open_input(&pContext, url.c_str(), pFormat, options.At()), kInput, path);
    m_Format.reset(pContext);
    FailIf(!options.First().empty(), kUsage, "--from {}: {} has no option \"{}\"", source.format,
           pContext->iformat->name, options.First());
    Check(avformat_find_stream_info(pContext, nullptr), kInput, path);
    // The clock starts with the file; what a codec needs before 0 is decoded and dropped.
    if (pContext->start_time != AV_NOPTS_VALUE &&
        (pContext->start_time > 0 || pContext->start_time < -kPriming)) {
        m_nStart = pContext->start_time;
    }
}

AVStream* Demuxer::Choose(AVMediaType kind) const
{
    if (m_Source.stream.empty()) {
        const int nStream = av_find_best_stream(m_Format.get(), kind, -1, -1, nullptr, 0);
        return nStream < 0 ? nullptr : m_Format->streams[nStream];
    }
    for (unsigned i = 0; i < m_Format->nb_streams; ++i) {
        AVStream* pStream = m_Format->streams[i];
        const int nMatches =
            avformat_match_stream_specifier(m_Format.get(), pStream, m_Source.stream.c_str());
        FailIf(nMatches < 0, kUsage, "--stream {}: write a number, or a:1, v:0, m:language:deu",
               m_Source.stream);
        if (nMatches > 0 && pStream->codecpar->codec_type == kind) {
            return pStream;
        }
    }
    return nullptr;
}

bool Demuxer::IsRepeatable() const
{
    const bool bSeries = std::string_view(m_Format->iformat->name) == "image2";
    return (bSeries || IdOf(m_Source.path)) && m_Source.format.find("loop") == std::string::npos;
}

double Demuxer::Seconds() const
{
    return m_Format->duration > 0 ? static_cast<double>(m_Format->duration) / AV_TIME_BASE : 0;
}

double Demuxer::At(const AVPacket& packet) const
{
    const int64_t nTime = packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
    const AVRational base = m_Format->streams[packet.stream_index]->time_base;
    return nTime != AV_NOPTS_VALUE ? static_cast<double>(nTime) * av_q2d(base) : -kForever;
}

bool Demuxer::IsCut() const
{
    const bool bTold =
        m_Format->duration > 0 && m_Format->duration_estimation_method == AVFMT_DURATION_FROM_STREAM;
    return m_bBroken || (m_bEnded && bTold && m_nEnd < m_Format->duration - kCut);
}

bool Demuxer::Read(AVPacket& packet)
{
    av_packet_unref(&packet);
    const int nRead = av_read_frame(m_Format.get(), &packet);
    if (nRead < 0) {
        m_bEnded = !IsInterrupted();
        // Some demuxers report the end of a pipe as a failure.
        const bool bAtEnd = nRead == AVERROR_EOF || (nRead == AVERROR(EIO) && avio_feof(m_Format->pb) != 0);
        m_bBroken = m_bEnded && !bAtEnd;
        return false;
    }
    SetClock(packet);
    const AVRational base = m_Format->streams[packet.stream_index]->time_base;
    const int64_t nTime = packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
    if (nTime != AV_NOPTS_VALUE) {
        m_nEnd = std::max(m_nEnd, av_rescale_q(nTime + packet.duration, base, kMicroseconds));
    }
    return true;
}

void Demuxer::SetClock(AVPacket& packet)
{
    const AVRational base = m_Format->streams[packet.stream_index]->time_base;
    const AVCodecParameters& parameters = *m_Format->streams[packet.stream_index]->codecpar;
    // Where recordings were joined or cut, the clock jumps, and the file's goes on from where it was.
    if ((m_Format->iformat->flags & AVFMT_TS_DISCONT) != 0 && packet.dts != AV_NOPTS_VALUE) {
        const int64_t nTime = av_rescale_q(packet.dts, base, kMicroseconds);
        const auto [last, bFirst] = m_Last.try_emplace(packet.stream_index, nTime - m_nStart);
        const int64_t nJump = nTime - m_nStart - last->second;
        if (nJump > kJump || nJump < -kJumpBack) {
            m_nStart += nJump - av_rescale_q(packet.duration, base, kMicroseconds);
        }
        last->second = nTime - m_nStart;
    }
    int64_t nStart = av_rescale_q(m_nStart, kMicroseconds, base);
    if (parameters.codec_type == AVMEDIA_TYPE_VIDEO && std::string_view(m_Format->iformat->name) == "avi") {
        // Its packets are counted in coded order: without this, the pictures are late by the reordering.
        nStart += parameters.video_delay;
    }
    for (int64_t* pTime : {&packet.pts, &packet.dts}) {
        *pTime -= *pTime != AV_NOPTS_VALUE ? nStart : 0;
    }
}

// ---- Streams ------------------------------------------------------------------------------------

Input::Input(const Source& source, AVMediaType kind)
    : m_Source(source), m_Demuxer(source), m_pStream(m_Demuxer.Choose(kind)),
      m_Packet(Made<PacketPtr>(av_packet_alloc())),
      m_Frames(kind == AVMEDIA_TYPE_AUDIO ? kMostBlocks : kMostPictures, true)
{
    const std::string& path = source.path;
    const char* szKind = kind == AVMEDIA_TYPE_VIDEO ? "pictures" : "sound";
    FailIf(m_pStream == nullptr, source.stream.empty() ? kInput : kUsage, "{} holds no {}{}{}", path,
           szKind, source.stream.empty() ? "" : " that is called ", source.stream);
    const AVCodecID id = m_pStream->codecpar->codec_id;
    const AVCodec* pCodec = avcodec_find_decoder(id);
    FailIf(pCodec == nullptr, kInput, "{}: no decoder for {}", path, avcodec_get_name(id));
    m_Codec = Made<CodecPtr>(avcodec_alloc_context3(pCodec));
    Check(avcodec_parameters_to_context(m_Codec.get(), m_pStream->codecpar), kInput, path);
    m_Codec->pkt_timebase = m_pStream->time_base;
    m_Codec->thread_count = 0;
    Check(avcodec_open2(m_Codec.get(), pCodec, nullptr), kInput, path);
    AVFormatContext& format = m_Demuxer.Format();
    for (unsigned i = 0; i < format.nb_streams; ++i) {
        const AVCodecParameters& parameters = *format.streams[i]->codecpar;
        if (parameters.codec_type == AVMEDIA_TYPE_VIDEO && parameters.codec_id != AV_CODEC_ID_H264 &&
            parameters.codec_id != AV_CODEC_ID_HEVC && kind == AVMEDIA_TYPE_AUDIO) {
            format.flags |= AVFMT_FLAG_GENPTS; // which gets the order of these two wrong
        }
    }
    m_First = Decode();
    FailIf(!m_First, kInput, "{} holds no {} that can be decoded", path, szKind);
    m_Form = FormOf(*m_First);
    if (kind == AVMEDIA_TYPE_AUDIO) {
        m_Form.audio.format = av_get_packed_sample_fmt(m_Form.audio.format);
        m_Form.audio.samples =
            m_pStream->codecpar->frame_size > 0 ? m_pStream->codecpar->frame_size : m_First->nb_samples;
        return;
    }
    const AVRational rate = av_guess_frame_rate(&format, m_pStream, nullptr);
    if (rate.num > 0 && rate.den > 0 && av_q2d(rate) >= 0.01 && av_q2d(rate) <= 1000) {
        m_Rate = rate;
    }
    m_Form.picture.format = Nearest(m_Form.picture.format);
    Prepare(std::move(m_First));
    m_First = Next();
}

Input::~Input()
{
    m_dUntil = -kForever;
    Stop();
    Join();
}

std::string TurnOf(const AVStream& stream)
{
    const int32_t* pMatrix = DisplayMatrix(stream);
    if (pMatrix == nullptr) {
        return {};
    }
    // As quarters, mirrored or not; what is turned by less stays as it is.
    if (std::abs(pMatrix[1]) > std::abs(pMatrix[0])) {
        const bool bFlip = (pMatrix[1] > 0) == (pMatrix[3] > 0);
        return fmt::format(",transpose={}{}", pMatrix[3] < 0 ? "clock" : "cclock", bFlip ? "_flip" : "");
    }
    return fmt::format("{}{}", pMatrix[0] < 0 ? ",hflip" : "", pMatrix[4] < 0 ? ",vflip" : "");
}

bool Input::ReadPacket()
{
    if (!m_Demuxer.Read(*m_Packet)) {
        return false;
    }
    if (m_Packet->stream_index == m_pStream->index) {
        return true;
    }
    PacketPtr clone = Made<PacketPtr>(av_packet_clone(m_Packet.get()));
    if (!m_Pass) {
        m_Early.push_back(std::move(clone));
        return true;
    }
    return PassOn(std::move(clone));
}

bool Input::PassOn(PacketPtr packet)
{
    const auto nStream = static_cast<std::size_t>(packet->stream_index);
    const bool bWanted = nStream < m_Passed.size() && m_Passed[nStream] && m_Demuxer.At(*packet) < m_dUntil;
    return !bWanted || m_Pass(std::move(packet));
}

FramePtr Input::Decode()
{
    FramePtr frame = NewFrame();
    while (true) {
        const int nReceived = avcodec_receive_frame(m_Codec.get(), frame.get());
        if (nReceived >= 0) {
            frame->pts =
                frame->best_effort_timestamp != AV_NOPTS_VALUE ? frame->best_effort_timestamp : m_nNext;
            m_nNext = frame->pts +
                      (frame->nb_samples > 0
                           ? av_rescale_q(frame->nb_samples, {1, frame->sample_rate}, m_pStream->time_base)
                       : ShownFor(*frame) > 0
                           ? ShownFor(*frame)
                           : std::max<int64_t>(1, av_rescale_q(1, av_inv_q(m_Rate), m_pStream->time_base)));
            if (m_pStream->sample_aspect_ratio.num > 0) {
                frame->sample_aspect_ratio = m_pStream->sample_aspect_ratio;
            }
            const bool bDamaged =
                frame->decode_error_flags != 0 || (frame->flags & AV_FRAME_FLAG_CORRUPT) != 0;
            m_nDamaged += bDamaged ? 1 : 0;
            return frame;
        }
        if (nReceived == AVERROR_EOF || IsInterrupted()) {
            return nullptr;
        }
        if (nReceived != AVERROR(EAGAIN)) {
            ++m_nDamaged;
            continue;
        }
        if (!ReadPacket()) {
            if (!m_bFlushed) {
                m_bFlushed = true;
                avcodec_send_packet(m_Codec.get(), nullptr);
            }
        } else if (m_Packet->stream_index == m_pStream->index) {
            // A damaged packet costs its own frames, not the whole file.
            m_nDamaged += avcodec_send_packet(m_Codec.get(), m_Packet.get()) < 0 ? 1 : 0;
        }
    }
}

Length Input::Measure(bool bDecode) const
{
    MuteLog(true);
    const Finally heard([] { MuteLog(false); });
    Length length;
    if (bDecode) {
        Input again(m_Source, m_Form.kind);
        again.Start({}, 0, [](const PacketPtr&) { return false; });
        while (const FramePtr frame = again.Next()) {
            length.times.push_back(frame->pts);
            length.n += std::max(1, frame->nb_samples);
        }
        return length;
    }
    const AVStream& own = *m_pStream;
    if (av_get_exact_bits_per_sample(own.codecpar->codec_id) > 0 && own.start_time <= 0 &&
        own.duration > 0 && av_cmp_q(own.time_base, {1, own.codecpar->sample_rate}) == 0 &&
        m_Demuxer.Format().duration_estimation_method == AVFMT_DURATION_FROM_STREAM) {
        length.n = own.duration; // the header knows; should it be wrong, that is found at the end
        return length;
    }
    Demuxer demuxer(m_Source);
    const AVStream& stream = *demuxer.Format().streams[m_pStream->index];
    const PacketPtr read = Made<PacketPtr>(av_packet_alloc());
    while (demuxer.Read(*read)) {
        AVPacket& packet = *read;
        if (packet.stream_index != stream.index || (packet.flags & AV_PKT_FLAG_DISCARD) != 0) {
            continue;
        }
        if (m_Form.kind == AVMEDIA_TYPE_VIDEO) {
            length.times.push_back(packet.pts);
            ++length.n;
            continue;
        }
        const int nRate = stream.codecpar->sample_rate;
        const int64_t nAt = av_rescale_q(packet.pts, stream.time_base, AVRational{1, nRate});
        const int64_t nSamples = SamplesOf(packet, stream);
        if (packet.pts != AV_NOPTS_VALUE && std::abs(static_cast<double>(nAt - length.n)) > kGap * nRate) {
            length.n = std::max(nAt, nAt < 0 ? -nSamples : 0);
        }
        length.n += nSamples;
    }
    std::sort(length.times.begin(), length.times.end());
    const bool bTold = m_Form.kind == AVMEDIA_TYPE_AUDIO ||
                       (!length.times.empty() && length.times.front() != AV_NOPTS_VALUE);
    return bTold ? length : Measure(true);
}

void Input::Start(std::vector<bool> passed, double dUntil, Pass pass)
{
    m_dUntil = dUntil;
    m_Passed = std::move(passed);
    m_Passed.resize(m_Demuxer.Format().nb_streams);
    m_Pass = std::move(pass);
    AVFormatContext& format = m_Demuxer.Format();
    for (unsigned i = 0; i < format.nb_streams; ++i) {
        AVStream& stream = *format.streams[i];
        stream.discard = m_Passed[i] || &stream == m_pStream ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    }
    m_Done = std::async(std::launch::async, [this] {
        m_Thread = pthread_self();
        try {
            Run();
        } catch (...) {
            m_Error = std::current_exception();
        }
        m_Frames.End();
    });
}

void Input::Run()
{
    for (PacketPtr& packet : m_Early) {
        PassOn(std::move(packet));
    }
    m_Early.clear();
    FramePtr frame = std::move(m_First);
    while (frame && !m_bStopped) {
        Prepare(std::move(frame));
        frame = Decode();
    }
    Prepare(nullptr);
    m_Frames.End();
    // What is passed on may be stored seconds behind what it belongs to.
    constexpr double kBehind = 5;
    while (std::find(m_Passed.begin(), m_Passed.end(), true) != m_Passed.end() && !IsInterrupted() &&
           m_Demuxer.At(*m_Packet) < m_dUntil + kBehind && ReadPacket()) {
    }
}

FramePtr Input::Next()
{
    std::optional<FramePtr> frame = m_Frames.Take();
    if (!frame && m_Error) {
        std::rethrow_exception(m_Error);
    }
    return frame ? std::move(*frame) : nullptr;
}

void Input::Stop()
{
    m_bStopped = true;
    m_Frames.Abandon();
}

void Input::Join()
{
    while (m_Done.valid() && m_Done.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready) {
        if (IsInterrupted() && m_Thread != pthread_t{}) { // it may be waiting for a pipe
            pthread_kill(m_Thread, SIGUSR1);
        }
    }
}

// ---- Conversion ---------------------------------------------------------------------------------

AVChannelLayout Native(const AVChannelLayout& layout)
{
    AVChannelLayout native{};
    if (layout.order != AV_CHANNEL_ORDER_NATIVE) {
        av_channel_layout_default(&native, layout.nb_channels);
    } else if (av_channel_layout_from_mask(&native, layout.u.mask) < 0) {
        throw std::bad_alloc();
    }
    return native;
}

std::string LayoutName(const AVChannelLayout& layout)
{
    if (layout.order == AV_CHANNEL_ORDER_UNSPEC) {
        return fmt::format("{}c", layout.nb_channels);
    }
    std::array<char, 256> text{};
    av_channel_layout_describe(&layout, text.data(), text.size());
    return text.data();
}

void Input::OpenConverter(const AVFrame& frame)
{
    const telvane::AudioStream& audio = m_Form.audio;
    const telvane::Picture& picture = m_Form.picture;
    const std::string text =
        m_Form.kind == AVMEDIA_TYPE_AUDIO
            ? fmt::format("aresample={0}:async=1:min_hard_comp={1}:first_pts={2},"
                          "aformat=sample_fmts={3}:sample_rates={0}:channel_layouts={4}",
                          audio.rate, kGap, m_nSamples, av_get_sample_fmt_name(audio.format),
                          LayoutName(m_Form.layout))
            : fmt::format("scale={}:{}:flags=bicubic+accurate_rnd+full_chroma_int,format={}", picture.width,
                          picture.height, av_get_pix_fmt_name(picture.format));
    m_Converted = FormOf(frame);
    m_Ends.clear();
    m_Converter = BuildGraph(
        m_Form.kind, {SourceOf("in", m_Converted, m_pStream->time_base, m_Rate, frame)}, text, m_Ends);
    if (m_Form.kind == AVMEDIA_TYPE_AUDIO) {
        av_buffersink_set_frame_size(m_Ends[1], static_cast<unsigned>(audio.samples));
    }
}

void Input::Drain()
{
    for (FramePtr frame = NewFrame(); av_buffersink_get_frame(m_Ends[1], frame.get()) >= 0;
         frame = NewFrame()) {
        m_nSamples += frame->nb_samples;
        m_Frames.Put(std::move(frame));
    }
}

// Changes on the way are converted away. Null is the end.
void Input::Prepare(FramePtr frame)
{
    if (m_Converter && !(frame && IsSame(m_Converted, FormOf(*frame)))) {
        Check(av_buffersrc_add_frame(m_Ends[0], nullptr), kInput, "converting");
        Drain();
        m_Converter.reset();
    }
    if (!frame) {
        return;
    }
    // What follows what came before needs no graph. FFmpeg's is stricter about where sound begins.
    const int64_t nGap =
        m_Form.kind == AVMEDIA_TYPE_AUDIO
            ? av_rescale_q(frame->pts, m_pStream->time_base, {1, m_Form.audio.rate}) - m_nSamples
            : 0;
    if (!m_Converter && IsSame(m_Form, FormOf(*frame)) &&
        std::abs(static_cast<double>(nGap)) <= (m_nSamples > 0 ? kGap * m_Form.audio.rate : 0)) {
        m_nSamples += frame->nb_samples;
        m_Frames.Put(std::move(frame));
        return;
    }
    if (!m_Converter) {
        OpenConverter(*frame);
    }
    if (m_Form.kind == AVMEDIA_TYPE_AUDIO) {
        av_channel_layout_copy(&frame->ch_layout, &m_Converted.layout);
    }
    Check(av_buffersrc_add_frame(m_Ends[0], frame.get()), kInput, "converting");
    Drain();
}

} // namespace tool
