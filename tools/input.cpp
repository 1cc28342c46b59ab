#include "media.h"

extern "C" {
#include <libavutil/avutil.h>
#include <libavutil/dict.h>
#include <libavutil/imgutils.h>
#include <libavutil/mathematics.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <new>
#include <utility>

namespace tool
{

namespace
{

int Interrupted(void*)
{
    return IsInterrupted() ? 1 : 0;
}

template <class Ptr>
Ptr Made(typename Ptr::pointer p)
{
    return p != nullptr ? Ptr(p) : throw std::bad_alloc();
}

// In AV_TIME_BASE.
constexpr AVRational kMicroseconds{1, AV_TIME_BASE};
constexpr int64_t kPriming = AV_TIME_BASE / 10;
constexpr int64_t kJumpBack = AV_TIME_BASE / 10;
constexpr int64_t kJump = 10 * static_cast<int64_t>(AV_TIME_BASE);

constexpr std::size_t kLargePile = std::size_t{32} << 20U; // bytes

// How long a picture is shown, in the units of its pts; 0: not known.
int64_t ShownFor(const AVFrame& frame)
{
#if LIBAVUTIL_VERSION_MAJOR >= 58 // 6.0 renamed it
    return frame.duration;
#else
    return frame.pkt_duration;
#endif
}

// The full-range formats of JPEG files are the plain ones with another range.
AVPixelFormat Plain(AVPixelFormat format)
{
    switch (format) {
    case AV_PIX_FMT_YUVJ420P:
        return AV_PIX_FMT_YUV420P;
    case AV_PIX_FMT_YUVJ422P:
        return AV_PIX_FMT_YUV422P;
    case AV_PIX_FMT_YUVJ444P:
        return AV_PIX_FMT_YUV444P;
    default:
        return format;
    }
}

bool IsRgb(AVPixelFormat format)
{
    const AVPixFmtDescriptor* pDescriptor = av_pix_fmt_desc_get(format);
    return pDescriptor != nullptr &&
           (pDescriptor->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL)) != 0;
}

// The library's format that loses least.
AVPixelFormat Nearest(AVPixelFormat format)
{
    if (telvane::PlaneBytes({format, 2, 2})[0] != 0) {
        return format;
    }
    static constexpr AVPixelFormat kFormats[] = {
        AV_PIX_FMT_YUV420P,     AV_PIX_FMT_YUV422P,     AV_PIX_FMT_YUV444P, AV_PIX_FMT_YUV420P10LE,
        AV_PIX_FMT_YUV422P10LE, AV_PIX_FMT_YUV444P10LE, AV_PIX_FMT_GRAY8,   AV_PIX_FMT_RGB24,
        AV_PIX_FMT_RGBA,        AV_PIX_FMT_NONE};
    if (format == AV_PIX_FMT_PAL8) { // may have transparent entries
        return AV_PIX_FMT_RGBA;
    }
    return avcodec_find_best_pix_fmt_of_list(kFormats, format, 1, nullptr);
}

} // namespace

FramePtr NewFrame()
{
    return Made<FramePtr>(av_frame_alloc());
}

// ---- Files --------------------------------------------------------------------------------------

Input::Input(const Source& source) : m_Name(source.name), m_Path(source.path)
{
    BeginStep(fmt::format("opening {}", m_Path));
    const std::size_t nColon = source.format.find(':');
    const std::string format = source.format.substr(0, nColon);
    const AVInputFormat* pFormat = nullptr;
    if (!format.empty()) {
        pFormat = av_find_input_format(format.c_str());
        if (pFormat == nullptr) {
            throw Failure(kUsage, fmt::format("FFmpeg knows no input format \"{}\"", format));
        }
    }
    AVDictionary* pOptions = nullptr;
    if (nColon != std::string::npos &&
        av_dict_parse_string(&pOptions, source.format.c_str() + nColon + 1, "=", ":", 0) < 0) {
        av_dict_free(&pOptions);
        throw Failure(kUsage, fmt::format("--from {}: write FORMAT:OPTION=VALUE:...", source.format));
    }
    // A colon in the name of a file that exists is no protocol.
    std::error_code ignored;
    const std::string url = m_Path == "-"                              ? "pipe:0"
                            : std::filesystem::exists(m_Path, ignored) ? "file:" + m_Path
                                                                       : m_Path;
    AVFormatContext* pContext = avformat_alloc_context();
    if (pContext == nullptr) {
        throw std::bad_alloc();
    }
    pContext->interrupt_callback.callback = Interrupted;
    const int nOpened = avformat_open_input(&pContext, url.c_str(), pFormat, &pOptions);
    const AVDictionaryEntry* pUnused =
        nOpened >= 0 ? av_dict_get(pOptions, "", nullptr, AV_DICT_IGNORE_SUFFIX) : nullptr;
    const std::string unused = pUnused != nullptr ? pUnused->key : "";
    av_dict_free(&pOptions);
    Check(nOpened, kInput, m_Path);
    m_Format.reset(pContext);
    if (!unused.empty()) {
        throw Failure(kUsage, fmt::format("--from {}: {} has no option \"{}\"", source.format,
                                          pContext->iformat->name, unused));
    }
    Check(avformat_find_stream_info(pContext, nullptr), kInput, m_Path);
    // The clock starts with the file; what a codec needs before 0 is decoded and dropped.
    if (pContext->start_time != AV_NOPTS_VALUE &&
        (pContext->start_time > 0 || pContext->start_time < -kPriming)) {
        m_nStart = pContext->start_time;
    }
    m_bAvi = std::strcmp(pContext->iformat->name, "avi") == 0;
    m_Packet = Made<PacketPtr>(av_packet_alloc());
    for (unsigned i = 0; i < m_Format->nb_streams; ++i) {
        m_Format->streams[i]->discard = AVDISCARD_ALL;
    }
}

const AVStream* Input::Best(AVMediaType kind) const
{
    const int nStream = av_find_best_stream(m_Format.get(), kind, -1, -1, nullptr, 0);
    if (nStream < 0) {
        return nullptr;
    }
    AVStream* pStream = m_Format->streams[nStream];
    pStream->discard = AVDISCARD_DEFAULT;
    return pStream;
}

bool Input::Decode(AVMediaType kind)
{
    m_pStream = Best(kind);
    if (m_pStream == nullptr) {
        return false;
    }
    BeginStep(fmt::format("opening the decoder for {}", m_Path));
    const AVCodec* pCodec = avcodec_find_decoder(m_pStream->codecpar->codec_id);
    if (pCodec == nullptr) {
        throw Failure(kInput, fmt::format("{}: no decoder for {}", m_Path,
                                          avcodec_get_name(m_pStream->codecpar->codec_id)));
    }
    m_Codec = Made<CodecPtr>(avcodec_alloc_context3(pCodec));
    Check(avcodec_parameters_to_context(m_Codec.get(), m_pStream->codecpar), kInput, m_Path);
    m_Codec->pkt_timebase = m_pStream->time_base;
    m_Codec->thread_count = 0;
    Check(avcodec_open2(m_Codec.get(), pCodec, nullptr), kInput, m_Path);
    return true;
}

bool Input::PassOn(AVMediaType kind)
{
    const AVStream* pStream = Best(kind);
    if (pStream == nullptr || (pStream->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0) {
        return false;
    }
    m_pPassed = pStream;
    if (kind == AVMEDIA_TYPE_VIDEO && pStream->codecpar->codec_id != AV_CODEC_ID_H264 &&
        pStream->codecpar->codec_id != AV_CODEC_ID_HEVC) {
        m_Format->flags |= AVFMT_FLAG_GENPTS; // which gets the order of these two wrong
    }
    return true;
}

double Input::Duration() const
{
    return m_Format->duration > 0 ? static_cast<double>(m_Format->duration) / AV_TIME_BASE : 0;
}

bool Input::ReadPacket(AVPacket& packet)
{
    av_packet_unref(&packet);
    const int nRead = av_read_frame(m_Format.get(), &packet);
    if (nRead == AVERROR_EOF || (nRead < 0 && IsInterrupted())) {
        return false;
    }
    Check(nRead, kInput, m_Path);
    SetClock(packet);
    if (m_pPassed != nullptr && packet.stream_index == m_pPassed->index) {
        m_Passed.push_back(Made<PacketPtr>(av_packet_clone(&packet)));
        m_nPile += static_cast<std::size_t>(packet.size);
        if (m_Drain && m_nPile > kLargePile) {
            m_nPile = 0; // what was taken from it was not counted
            for (const PacketPtr& passed : m_Passed) {
                m_nPile += static_cast<std::size_t>(passed->size);
            }
            if (m_nPile > kLargePile) {
                m_Drain();
                m_nPile = 0;
            }
        }
    }
    return true;
}

void Input::SetClock(AVPacket& packet)
{
    const AVRational base = m_Format->streams[packet.stream_index]->time_base;
    const AVCodecParameters& parameters = *m_Format->streams[packet.stream_index]->codecpar;
    if (m_Clocks.size() < m_Format->nb_streams) {
        m_Clocks.resize(m_Format->nb_streams);
    }
    // Where recordings were joined or cut, the clock jumps, and the file's goes on from where it was.
    if ((m_Format->iformat->flags & AVFMT_TS_DISCONT) != 0 && packet.dts != AV_NOPTS_VALUE) {
        Clock& clock = m_Clocks[static_cast<std::size_t>(packet.stream_index)];
        const int64_t nTime = av_rescale_q(packet.dts, base, kMicroseconds);
        const int64_t nLength = av_rescale_q(packet.duration, base, kMicroseconds);
        const int64_t nJump = clock.nLast != AV_NOPTS_VALUE ? nTime - m_nStart - clock.nExpected : 0;
        if (std::abs(nJump) > kJump ||
            (clock.nLast != AV_NOPTS_VALUE && nTime - m_nStart < clock.nLast - kJumpBack)) {
            m_nStart += nJump;
        }
        clock.nLast = nTime - m_nStart;
        clock.nExpected = clock.nLast + nLength;
    }
    int64_t nStart = av_rescale_q(m_nStart, kMicroseconds, base);
    if (m_bAvi && parameters.codec_type == AVMEDIA_TYPE_VIDEO) {
        // Its packets are counted in coded order: without this, the pictures are late by the reordering.
        nStart += parameters.video_delay;
    }
    for (int64_t* pTime : {&packet.pts, &packet.dts}) {
        *pTime -= *pTime != AV_NOPTS_VALUE ? nStart : 0;
    }
}

bool Input::ReadOn()
{
    return !IsInterrupted() && ReadPacket(*m_Packet);
}

bool Input::Next(AVFrame& frame)
{
    while (true) {
        const int nReceived = avcodec_receive_frame(m_Codec.get(), &frame);
        if (nReceived >= 0) {
            frame.pts =
                frame.best_effort_timestamp != AV_NOPTS_VALUE ? frame.best_effort_timestamp : m_nNext;
            const AVRational rate = m_pStream->avg_frame_rate;
            m_nNext = frame.pts +
                      (frame.nb_samples > 0
                           ? av_rescale_q(frame.nb_samples, {1, frame.sample_rate}, m_pStream->time_base)
                       : ShownFor(frame) > 0 ? ShownFor(frame)
                       : rate.num > 0        ? av_rescale_q(1, av_inv_q(rate), m_pStream->time_base)
                                             : 1);
            m_nEnd = std::max(m_nEnd, m_nNext);
            return true;
        }
        if (nReceived == AVERROR_EOF || IsInterrupted()) {
            return false;
        }
        if (nReceived != AVERROR(EAGAIN)) {
            ++m_nDamaged;
            continue;
        }
        if (!ReadPacket(*m_Packet)) {
            if (!m_bDrained) {
                m_bDrained = true;
                avcodec_send_packet(m_Codec.get(), nullptr);
            }
        } else if (m_Packet->stream_index == m_pStream->index) {
            // A damaged packet costs its own frames, not the whole file.
            m_nDamaged += avcodec_send_packet(m_Codec.get(), m_Packet.get()) < 0 ? 1 : 0;
        }
    }
}

// ---- Pictures -----------------------------------------------------------------------------------

void PictureConverter::Convert(const AVFrame& from, const Colour& fromColour, AVFrame& to,
                               const Colour& toColour)
{
    const auto fromFormat = static_cast<AVPixelFormat>(from.format);
    const auto toFormat = static_cast<AVPixelFormat>(to.format);
    const bool bFromFull = fromColour.range == AVCOL_RANGE_JPEG || IsRgb(fromFormat);
    const bool bToFull = toColour.range == AVCOL_RANGE_JPEG || IsRgb(toFormat);
    const AVColorSpace space =
        fromColour.space != AVCOL_SPC_UNSPECIFIED ? fromColour.space : toColour.space;
    const std::array<int, 9> key{from.width, from.height, Plain(fromFormat), to.width,         to.height,
                                 toFormat,   space,       bToFull ? 1 : 0,   bFromFull ? 1 : 0};
    if (!m_Context || key != m_Key) {
        m_Key = key;
        m_Context.reset(sws_alloc_context());
        // The ranges from the start: FFmpeg chooses by them how it converts.
        const std::pair<const char*, int> options[] = {
            {"srcw", from.width},
            {"srch", from.height},
            {"src_format", Plain(fromFormat)},
            {"src_range", bFromFull ? 1 : 0},
            {"dstw", to.width},
            {"dsth", to.height},
            {"dst_format", toFormat},
            {"dst_range", bToFull ? 1 : 0},
            {"sws_flags", SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT}};
        bool bSet = m_Context != nullptr;
        for (const auto& [szName, nValue] : options) {
            bSet = bSet && av_opt_set_int(m_Context.get(), szName, nValue, 0) >= 0;
        }
        if (!bSet || sws_init_context(m_Context.get(), nullptr, nullptr) < 0) {
            throw Failure(kOther,
                          fmt::format("FFmpeg cannot convert {} to {}", av_get_pix_fmt_name(fromFormat),
                                      av_get_pix_fmt_name(toFormat)));
        }
        const int* pMatrix = sws_getCoefficients(space == AVCOL_SPC_UNSPECIFIED || space == AVCOL_SPC_RGB
                                                     ? SWS_CS_DEFAULT
                                                     : static_cast<int>(space));
        sws_setColorspaceDetails(m_Context.get(), pMatrix, bFromFull ? 1 : 0, pMatrix, bToFull ? 1 : 0, 0,
                                 1 << 16, 1 << 16);
    }
    Check(sws_scale(m_Context.get(), from.data, from.linesize, 0, from.height, to.data, to.linesize),
          kOther, "converting a picture");
}

VideoSource::VideoSource(Input& input) : m_pInput(&input), m_Current(NewFrame()), m_Next(NewFrame())
{
    AVFormatContext& format = input.Format();
    AVRational rate = format.streams[input.Stream().index]->avg_frame_rate;
    if (rate.num <= 0 || rate.den <= 0) {
        rate = input.Stream().r_frame_rate;
    }
    if (rate.num > 0 && rate.den > 0 && av_q2d(rate) >= 0.01 && av_q2d(rate) <= 1000) {
        m_Native = rate;
    }
    BeginStep(fmt::format("decoding {}", input.Name()));
    if (!input.Next(*m_Current)) {
        throw Failure(kInput, "it holds no picture that can be decoded");
    }
    const AVFrame& first = *m_Current;
    const auto fileFormat = static_cast<AVPixelFormat>(first.format);
    m_Picture = {Nearest(Plain(fileFormat)), first.width, first.height};
    m_Aspect = first.sample_aspect_ratio;
    m_FileColour = {first.color_range, first.colorspace, first.color_primaries, first.color_trc};
    if (Plain(fileFormat) != fileFormat) {
        m_FileColour.range = AVCOL_RANGE_JPEG;
    }
    m_Colour = m_FileColour;
    if (IsRgb(fileFormat) || m_Picture.format == AV_PIX_FMT_GRAY8) {
        // What the graph's own conversion to yuv420p makes of them.
        m_Colour = {AVCOL_RANGE_MPEG, AVCOL_SPC_SMPTE170M, AVCOL_PRI_UNSPECIFIED, AVCOL_TRC_UNSPECIFIED};
    }
    m_Bytes.resize(telvane::detail::Sum(telvane::PlaneBytes(m_Picture)));
    Fetch();
}

void VideoSource::Fetch()
{
    av_frame_unref(m_Next.get());
    if (!m_pInput->Next(*m_Next)) {
        m_Next.reset();
        return;
    }
    m_bStill = false;
}

void VideoSource::Store()
{
    const auto format = static_cast<AVPixelFormat>(m_Current->format);
    const bool bYuv = !IsRgb(format) && m_Picture.format != AV_PIX_FMT_GRAY8;
    const bool bSameRange =
        !bYuv || (m_FileColour.range == AVCOL_RANGE_JPEG) == (m_Colour.range == AVCOL_RANGE_JPEG);
    const AVFrame* pFrom = m_Current.get();
    if (Plain(format) != m_Picture.format || !bSameRange || m_Current->width != m_Picture.width ||
        m_Current->height != m_Picture.height) {
        if (!m_Converted) {
            m_Converted = NewFrame();
            m_Converted->format = m_Picture.format;
            m_Converted->width = m_Picture.width;
            m_Converted->height = m_Picture.height;
            Check(av_frame_get_buffer(m_Converted.get(), 0), kOther, "a picture");
        }
        m_Converter.Convert(*m_Current, m_FileColour, *m_Converted, m_Colour);
        pFrom = m_Converted.get();
    }
    Check(av_image_copy_to_buffer(reinterpret_cast<uint8_t*>(m_Bytes.data()),
                                  static_cast<int>(m_Bytes.size()), pFrom->data, pFrom->linesize,
                                  m_Picture.format, m_Picture.width, m_Picture.height, 1),
          kOther, "a picture");
    m_bStored = true;
}

bool VideoSource::At(int64_t nTick)
{
    const AVRational base = m_pInput->Stream().time_base;
    const AVRational halfTick{m_Rate.den, 2 * m_Rate.num};
    while (m_Next && av_compare_ts(m_Next->pts, base, 2 * nTick + 1, halfTick) < 0) {
        std::swap(m_Current, m_Next);
        m_bStored = false;
        Fetch();
    }
    const bool bEnded =
        !m_Next && nTick > 0 && av_compare_ts(m_pInput->End(), base, 2 * nTick + 1, halfTick) < 0;
    if (!m_bStored && !bEnded) {
        Store();
    }
    return !bEnded;
}

void VideoSource::SetFormat(AVPixelFormat format)
{
    m_Picture.format = format;
    m_Colour = {AVCOL_RANGE_MPEG, AVCOL_SPC_SMPTE170M, AVCOL_PRI_UNSPECIFIED, AVCOL_TRC_UNSPECIFIED};
    m_Bytes.resize(telvane::detail::Sum(telvane::PlaneBytes(m_Picture)));
    m_bStored = false;
}

void VideoSource::Blacken()
{
    std::array<uint8_t*, 4> planes{};
    std::array<int, 4> sizes{};
    std::array<std::ptrdiff_t, 4> strides{};
    av_image_fill_arrays(planes.data(), sizes.data(), reinterpret_cast<uint8_t*>(m_Bytes.data()),
                         m_Picture.format, m_Picture.width, m_Picture.height, 1);
    std::copy(sizes.begin(), sizes.end(), strides.begin());
    av_image_fill_black(planes.data(), strides.data(), m_Picture.format, m_Colour.range, m_Picture.width,
                        m_Picture.height);
}

// ---- Sound --------------------------------------------------------------------------------------

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

bool IsDefault(const AVChannelLayout& layout)
{
    AVChannelLayout usual{};
    av_channel_layout_default(&usual, layout.nb_channels);
    return av_channel_layout_compare(&layout, &usual) == 0;
}

AudioSource::AudioSource(Input& input) : m_pInput(&input), m_Frame(NewFrame())
{
    BeginStep(fmt::format("decoding {}", input.Name()));
    if (!input.Next(*m_Frame)) {
        throw Failure(kInput, "it holds no sound that can be decoded");
    }
    const AVFrame& first = *m_Frame;
    const AVSampleFormat packed = av_get_packed_sample_fmt(static_cast<AVSampleFormat>(first.format));
    m_Stream.format =
        packed == AV_SAMPLE_FMT_S16 || packed == AV_SAMPLE_FMT_S32 ? packed : AV_SAMPLE_FMT_FLT;
    // Blocks of whole samples; of the rates in use all divide.
    m_Stream.rate = first.sample_rate % kBlocksPerSecond == 0 ? first.sample_rate : 48000;
    m_Stream.channels = first.ch_layout.nb_channels;
    m_Stream.samples = m_Stream.rate / kBlocksPerSecond;
    m_nFrameBytes = static_cast<std::size_t>(m_Stream.channels) *
                    static_cast<std::size_t>(av_get_bytes_per_sample(m_Stream.format));

    m_Layout = Native(first.ch_layout);
    Configure(first);
    Place();
}

void AudioSource::Configure(const AVFrame& frame)
{
    SwrContext* pResampler = nullptr;
    // Copies that own nothing: FFmpeg 5.1 wants them writable. As many channels stay as they are.
    AVChannelLayout from = Native(frame.ch_layout);
    AVChannelLayout to = from.nb_channels == m_Layout.nb_channels ? from : m_Layout;
    Check(swr_alloc_set_opts2(&pResampler, &to, m_Stream.format, m_Stream.rate, &from,
                              static_cast<AVSampleFormat>(frame.format), frame.sample_rate, 0, nullptr),
          kInput, "the sound's format");
    m_Resampler.reset(pResampler);
    Check(swr_init(pResampler), kInput, "the sound's format");
    m_From = {static_cast<AVSampleFormat>(frame.format), frame.sample_rate, frame.ch_layout.nb_channels, 0};
}

void AudioSource::Place()
{
    // Where the file has a gap, silence; where it overlaps or begins before 0, what is over is dropped.
    // 10 ms: coarse time bases wobble by less.
    const int64_t nAt =
        av_rescale_q(m_Frame->pts, m_pInput->Stream().time_base, AVRational{1, m_Stream.rate});
    const int64_t nGap = nAt - m_nSamples - swr_get_delay(m_Resampler.get(), m_Stream.rate);
    m_nSkip = nGap < -m_Stream.rate / 100 ? -nGap : 0;
    m_nSilence = nGap > m_Stream.rate / 100 ? nGap : 0;
    if (m_nSilence == 0) {
        Append(m_Frame.get());
    }
}

void AudioSource::Append(const AVFrame* pFrame)
{
    const int nRoom = swr_get_out_samples(m_Resampler.get(), pFrame != nullptr ? pFrame->nb_samples : 0);
    std::vector<std::byte> samples(static_cast<std::size_t>(nRoom) * m_nFrameBytes);
    auto* pOut = reinterpret_cast<uint8_t*>(samples.data());
    std::vector<const uint8_t*> planes;
    if (pFrame != nullptr) {
        planes.assign(pFrame->extended_data,
                      pFrame->extended_data + std::max(1, pFrame->ch_layout.nb_channels));
        if (av_sample_fmt_is_planar(static_cast<AVSampleFormat>(pFrame->format)) == 0) {
            planes.resize(1);
        }
    }
    const int nMade =
        Check(swr_convert(m_Resampler.get(), &pOut, nRoom, pFrame != nullptr ? planes.data() : nullptr,
                          pFrame != nullptr ? pFrame->nb_samples : 0),
              kInput, "converting samples");
    const int64_t nKept = std::max<int64_t>(0, nMade - m_nSkip);
    m_Waiting.insert(m_Waiting.end(),
                     samples.begin() + (nMade - nKept) * static_cast<int64_t>(m_nFrameBytes),
                     samples.begin() + nMade * static_cast<int64_t>(m_nFrameBytes));
    m_nSamples += nKept;
}

int AudioSource::Read(std::vector<std::byte>& block)
{
    const std::size_t nBlock = static_cast<std::size_t>(m_Stream.samples) * m_nFrameBytes;
    while (!m_bEnded && m_Waiting.size() - m_nTaken < nBlock) {
        if (m_nSilence > 0) { // a block at a time: a gap may be hours long
            const int64_t nSamples = std::min<int64_t>(m_nSilence, m_Stream.samples);
            m_Waiting.resize(m_Waiting.size() + static_cast<std::size_t>(nSamples) * m_nFrameBytes);
            m_nSamples += nSamples;
            m_nSilence -= nSamples;
            if (m_nSilence == 0) {
                Append(m_Frame.get());
            }
            continue;
        }
        av_frame_unref(m_Frame.get());
        if (!m_pInput->Next(*m_Frame)) {
            m_bEnded = true;
            m_nSkip = 0;
            Append(nullptr);
        } else {
            if (m_Frame->format != m_From.format || m_Frame->sample_rate != m_From.rate ||
                m_Frame->ch_layout.nb_channels != m_From.channels) {
                Configure(*m_Frame); // streams may change on the way
            }
            Place();
        }
    }
    const std::size_t nReal = std::min(nBlock, m_Waiting.size() - m_nTaken);
    block.assign(nBlock, std::byte{0});
    std::memcpy(block.data(), m_Waiting.data() + m_nTaken, nReal);
    m_nTaken += nReal;
    if (m_nTaken > 16 * nBlock || m_bEnded) {
        m_Waiting.erase(m_Waiting.begin(), m_Waiting.begin() + static_cast<std::ptrdiff_t>(m_nTaken));
        m_nTaken = 0;
    }
    return static_cast<int>(nReal / m_nFrameBytes);
}

} // namespace tool
