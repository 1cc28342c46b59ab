#include "media.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <new>
#include <unistd.h>

namespace tool
{

namespace
{

struct Container {
    const char* szName;
    const char* szMuxer; // empty: by the stream
    AVCodecID video;
    AVCodecID audio;
};
constexpr Container kContainers[] = {
    {"wav", "wav", AV_CODEC_ID_NONE, AV_CODEC_ID_PCM_S16LE}, // or another PCM, by the samples
    {"flac", "flac", AV_CODEC_ID_NONE, AV_CODEC_ID_FLAC},
    {"mp4", "mp4", AV_CODEC_ID_H264, AV_CODEC_ID_AAC},
    {"mkv", "matroska", AV_CODEC_ID_H264, AV_CODEC_ID_FLAC},
    {"y4m", "yuv4mpegpipe", AV_CODEC_ID_WRAPPED_AVFRAME, AV_CODEC_ID_NONE},
    {"png", "image2", AV_CODEC_ID_PNG, AV_CODEC_ID_NONE},
    {"raw", "", AV_CODEC_ID_RAWVIDEO, AV_CODEC_ID_PCM_S16LE},
};

const Container& ContainerOf(const std::string& format)
{
    const auto* pFound = std::find_if(std::begin(kContainers), std::end(kContainers),
                                      [&](const Container& c) { return format == c.szName; });
    if (pFound == std::end(kContainers)) {
        throw Failure(
            kUsage,
            fmt::format("\"{}\" is no output format: wav, flac, mp4, mkv, y4m, png or raw", format));
    }
    return *pFound;
}

AVCodecID PcmOf(AVSampleFormat format)
{
    return format == AV_SAMPLE_FMT_S32   ? AV_CODEC_ID_PCM_S32LE
           : format == AV_SAMPLE_FMT_FLT ? AV_CODEC_ID_PCM_F32LE
                                         : AV_CODEC_ID_PCM_S16LE;
}

// The format that a container's pictures are stored in.
AVPixelFormat PixelsFor(const std::string& format, AVPixelFormat in)
{
    const AVPixFmtDescriptor* pDescriptor = av_pix_fmt_desc_get(in);
    const bool bAlpha = (pDescriptor->flags & AV_PIX_FMT_FLAG_ALPHA) != 0;
    const bool bRgb = (pDescriptor->flags & AV_PIX_FMT_FLAG_RGB) != 0;
    if (format == "raw") {
        return in;
    }
    if (format == "png") {
        return in == AV_PIX_FMT_GRAY8 ? in : bAlpha ? AV_PIX_FMT_RGBA : AV_PIX_FMT_RGB24;
    }
    if (format == "y4m") {
        return in == AV_PIX_FMT_GRAY8 || in == AV_PIX_FMT_YUV422P || in == AV_PIX_FMT_YUV444P ? in
               : bRgb ? AV_PIX_FMT_YUV444P
                      : AV_PIX_FMT_YUV420P;
    }
    return AV_PIX_FMT_YUV420P;
}

// The file that is meant, also where a link leads to none yet.
std::string Followed(std::filesystem::path path)
{
    constexpr int kMaxLinks = 40; // as the kernel's
    std::error_code error;
    for (int i = 0; i < kMaxLinks && std::filesystem::is_symlink(path, error); ++i) {
        path = path.parent_path() / std::filesystem::read_symlink(path, error);
    }
    return path.string();
}

} // namespace

std::string Output::FormatOf(const std::string& path, const std::string& format)
{
    std::string name = format;
    if (name.empty()) {
        name = path == "-" ? "raw" : std::filesystem::path(path).extension().string();
        name.erase(0, name.starts_with('.') ? 1 : 0);
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    }
    return ContainerOf(name).szName;
}

AVSampleFormat Output::SamplesFor(const std::string& format, AVSampleFormat in)
{
    if (format == "flac") {
        return in == AV_SAMPLE_FMT_S32 ? in : AV_SAMPLE_FMT_S16;
    }
    if (format == "mp4") {
        return AV_SAMPLE_FMT_FLT; // what the AAC encoder takes
    }
    // Decoders of lossy formats give floats; 16 bits hold all that is in them.
    return in == AV_SAMPLE_FMT_S32 ? in : AV_SAMPLE_FMT_S16;
}

void Output::FormatFreer::operator()(AVFormatContext* p) const
{
    if ((p->oformat->flags & AVFMT_NOFILE) == 0 && p->pb != nullptr) {
        avio_closep(&p->pb);
    }
    avformat_free_context(p);
}

Output::Output(const OutputWish& wish) : m_Path(wish.path), m_Target(wish.path)
{
    BeginStep(fmt::format("creating {}", m_Path));
    const std::string format = FormatOf(wish.path, wish.format);
    const Container& container = ContainerOf(format);
    if ((wish.video && container.video == AV_CODEC_ID_NONE) ||
        (wish.audio && container.audio == AV_CODEC_ID_NONE)) {
        throw Failure(kUsage,
                      fmt::format("{} files hold no {}", format, wish.video ? "pictures" : "sound"));
    }
    std::string muxer = container.szMuxer;
    if (muxer.empty()) {
        muxer =
            wish.video ? "rawvideo" : std::string(avcodec_get_name(PcmOf(wish.audio->format))).substr(4);
    }
    std::error_code ignored;
    const auto status = std::filesystem::status(m_Path, ignored);
    const bool bFile =
        m_Path != "-" && (!std::filesystem::exists(status) || std::filesystem::is_regular_file(status));
    if (bFile) {
        m_Target = Followed(m_Path);
    }
    m_bPng = format == "png" && bFile;
    if (bFile && !m_bPng) {
        m_Temporary = fmt::format("{}.{}.part", m_Target, getpid());
    }
    const std::string url = m_Path == "-"         ? "pipe:1"
                            : m_Temporary.empty() ? "file:" + m_Target
                                                  : "file:" + m_Temporary;

    AVFormatContext* pContext = nullptr;
    Check(avformat_alloc_output_context2(&pContext, nullptr, muxer.c_str(), url.c_str()), kOutput, m_Path);
    m_Format.reset(pContext);
    m_Packet.reset(av_packet_alloc());
    if (!m_Packet) {
        throw std::bad_alloc();
    }
    if (wish.video) {
        OpenVideo(*wish.video, format);
    }
    if (wish.audio) {
        OpenAudio(*wish.audio, wish.layout, format);
    }
    if (wish.pPassed != nullptr) {
        const AVCodecParameters& parameters = *wish.pPassed->codecpar;
        if (avformat_query_codec(m_Format->oformat, parameters.codec_id, FF_COMPLIANCE_NORMAL) != 1) {
            throw Failure(
                kOutput,
                fmt::format("{} cannot hold the input's {} ({}) as it is: write .mkv, or leave it out "
                            "with --pass none",
                            format, av_get_media_type_string(parameters.codec_type),
                            avcodec_get_name(parameters.codec_id)));
        }
        m_pPassedStream = &AddStream();
        Check(avcodec_parameters_copy(m_pPassedStream->codecpar, &parameters), kOutput, m_Path);
        m_pPassedStream->codecpar->codec_tag = 0;
        m_PassedBase = m_pPassedStream->time_base = wish.pPassed->time_base;
        m_pPassedStream->sample_aspect_ratio = wish.pPassed->sample_aspect_ratio;
        m_pPassedStream->avg_frame_rate = wish.pPassed->avg_frame_rate;
    }

    AVDictionary* pOptions = nullptr;
    if (format == "png" && m_Path != "-") {
        // The name may be a pattern; FFmpeg itself writes each picture beside it and renames that.
        av_dict_set(&pOptions, "atomic_writing", m_bPng ? "1" : "0", 0);
        if (av_filename_number_test(url.c_str()) == 0) {
            av_dict_set(&pOptions, "update", "1", 0);
        }
    } else if (format == "mp4") {
        av_dict_set(&pOptions, "movflags", m_Temporary.empty() ? "frag_keyframe+empty_moov" : "faststart",
                    0);
    }
    int nOpened = 0;
    if ((m_Format->oformat->flags & AVFMT_NOFILE) == 0) {
        nOpened = avio_open(&m_Format->pb, url.c_str(), AVIO_FLAG_WRITE);
    }
    if (nOpened >= 0) {
        nOpened = avformat_write_header(m_Format.get(), &pOptions);
    }
    av_dict_free(&pOptions);
    if (nOpened < 0) { // nothing is destroyed that was not constructed
        m_Format.reset();
        static_cast<void>(std::remove(m_Temporary.c_str()));
    }
    Check(nOpened, kOutput, m_Path);
}

Output::~Output()
{
    m_Format.reset();
    if (!m_Temporary.empty()) {
        static_cast<void>(std::remove(m_Temporary.c_str()));
    }
}

AVStream& Output::AddStream()
{
    AVStream* pStream = avformat_new_stream(m_Format.get(), nullptr);
    return pStream != nullptr ? *pStream : throw std::bad_alloc();
}

telvane::Size Output::CodedSize() const
{
    return m_Video ? telvane::Size{m_Video->width, m_Video->height} : telvane::Size{};
}

void Output::OpenVideo(const OutputVideo& video, const std::string& format)
{
    m_Wish = video;
    const AVCodecID id = ContainerOf(format).video;
    const AVCodec* pCodec =
        id == AV_CODEC_ID_H264 ? avcodec_find_encoder_by_name("libx264") : avcodec_find_encoder(id);
    if (pCodec == nullptr) {
        pCodec = avcodec_find_encoder(AV_CODEC_ID_MPEG4); // FFmpeg without x264
    }
    m_Video.reset(avcodec_alloc_context3(pCodec));
    if (!m_Video) {
        throw std::bad_alloc();
    }
    AVCodecContext& codec = *m_Video;
    codec.pix_fmt = PixelsFor(format, video.stored.format);
    // These codecs have no odd sizes: the last column or row is repeated.
    const int nEven = id == AV_CODEC_ID_H264 ? 1 : 0;
    codec.width = (video.shown.width + nEven) & ~nEven;
    codec.height = (video.shown.height + nEven) & ~nEven;
    codec.time_base = av_inv_q(video.rate);
    codec.framerate = video.rate;
    codec.sample_aspect_ratio = video.aspect;
    const bool bRgb = (av_pix_fmt_desc_get(codec.pix_fmt)->flags & AV_PIX_FMT_FLAG_RGB) != 0;
    if (!bRgb) {
        codec.color_range = video.colour.range;
        codec.colorspace = video.colour.space == AVCOL_SPC_RGB ? AVCOL_SPC_SMPTE170M : video.colour.space;
    }
    codec.color_primaries = video.colour.primaries;
    codec.color_trc = video.colour.transfer;
    codec.thread_count = 0;
    AVDictionary* pOptions = nullptr;
    if (std::strcmp(pCodec->name, "libx264") == 0) {
        av_dict_set(&pOptions, "preset", "veryfast", 0);
        av_dict_set(&pOptions, "crf", "18", 0);
    } else if (pCodec->id == AV_CODEC_ID_MPEG4) {
        codec.flags |= AV_CODEC_FLAG_QSCALE;
        codec.global_quality = 3 * FF_QP2LAMBDA;
    }
    if ((m_Format->oformat->flags & AVFMT_GLOBALHEADER) != 0) {
        codec.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    const int nOpened = avcodec_open2(&codec, pCodec, &pOptions);
    av_dict_free(&pOptions);
    Check(nOpened, kOutput, pCodec->name);

    m_pVideoStream = &AddStream();
    m_pVideoStream->time_base = codec.time_base;
    m_pVideoStream->avg_frame_rate = video.rate;
    m_pVideoStream->sample_aspect_ratio = video.aspect;
    Check(avcodec_parameters_from_context(m_pVideoStream->codecpar, &codec), kOutput, m_Path);
}

void Output::OpenAudio(const telvane::AudioStream& audio, const AVChannelLayout& layout,
                       const std::string& format)
{
    AVCodecID id = ContainerOf(format).audio;
    id = id == AV_CODEC_ID_PCM_S16LE ? PcmOf(audio.format) : id;
    const AVCodec* pCodec = avcodec_find_encoder(id);
    if (pCodec == nullptr) {
        throw Failure(kOutput, fmt::format("this FFmpeg has no encoder for {}", avcodec_get_name(id)));
    }
    AVChannelLayout usual{};
    av_channel_layout_default(&usual, audio.channels);
    int nOpened = -1;
    // An encoder that has not got the layout gets the usual one of as many channels.
    for (const AVChannelLayout& tried : {layout, usual}) {
        m_Audio.reset(avcodec_alloc_context3(pCodec));
        if (!m_Audio) {
            throw std::bad_alloc();
        }
        m_Audio->sample_fmt = id == AV_CODEC_ID_AAC ? AV_SAMPLE_FMT_FLTP : audio.format;
        m_Audio->sample_rate = audio.rate;
        m_Audio->ch_layout = tried;
        m_Audio->time_base = {1, audio.rate};
        m_Audio->bit_rate = id == AV_CODEC_ID_AAC ? 96000 * static_cast<int64_t>(audio.channels) : 0;
        if ((m_Format->oformat->flags & AVFMT_GLOBALHEADER) != 0) {
            m_Audio->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        }
        nOpened = avcodec_open2(m_Audio.get(), pCodec, nullptr);
        if (nOpened >= 0) {
            break;
        }
    }
    Check(nOpened, kOutput, pCodec->name);
    AVCodecContext& codec = *m_Audio;
    m_nFrameBytes = static_cast<std::size_t>(audio.channels) *
                    static_cast<std::size_t>(av_get_bytes_per_sample(audio.format));
    SwrContext* pResampler = nullptr;
    Check(swr_alloc_set_opts2(&pResampler, &codec.ch_layout, codec.sample_fmt, audio.rate, &codec.ch_layout,
                              audio.format, audio.rate, 0, nullptr),
          kOutput, "the samples' format");
    m_Resampler.reset(pResampler);
    Check(swr_init(pResampler), kOutput, "the samples' format");
    m_pAudioStream = &AddStream();
    m_pAudioStream->time_base = codec.time_base;
    Check(avcodec_parameters_from_context(m_pAudioStream->codecpar, &codec), kOutput, m_Path);
}

void Output::Encode(AVCodecContext& codec, const AVStream& stream, const AVFrame* pFrame)
{
    BeginStep(fmt::format("writing {}", m_Path));
    Check(avcodec_send_frame(&codec, pFrame), kOutput, codec.codec->name);
    while (true) {
        const int nReceived = avcodec_receive_packet(&codec, m_Packet.get());
        if (nReceived == AVERROR(EAGAIN) || nReceived == AVERROR_EOF) {
            return;
        }
        Check(nReceived, kOutput, codec.codec->name);
        if (codec.codec_type == AVMEDIA_TYPE_VIDEO && m_Packet->duration == 0) {
            m_Packet->duration = 1; // else the last picture would have no length
        }
        av_packet_rescale_ts(m_Packet.get(), codec.time_base, stream.time_base);
        m_Packet->stream_index = stream.index;
        if (m_bPng) {
            std::array<char, 4096> name{};
            const bool bSeries =
                av_get_frame_filename(name.data(), static_cast<int>(name.size()), m_Target.c_str(),
                                      static_cast<int>(stream.nb_frames) + 1) == 0;
            m_Temporary = fmt::format("{}.tmp", bSeries ? name.data() : m_Target);
        }
        Check(av_interleaved_write_frame(m_Format.get(), m_Packet.get()), kOutput, m_Path);
        if (m_bPng) {
            m_Temporary.clear();
        }
    }
}

void Output::WritePicture(std::span<const std::byte> bytes)
{
    const AVCodecContext& codec = *m_Video;
    const FramePtr view = NewFrame();
    view->format = m_Wish.stored.format;
    view->width = m_Wish.shown.width;
    view->height = m_Wish.shown.height;
    Check(av_image_fill_arrays(view->data, view->linesize, reinterpret_cast<const uint8_t*>(bytes.data()),
                               m_Wish.stored.format, m_Wish.stored.width, m_Wish.stored.height, 1),
          kOutput, "a picture");

    // A new frame each time: the encoder keeps the ones that it was given.
    m_Picture = NewFrame();
    AVFrame& picture = *m_Picture;
    picture.format = codec.pix_fmt;
    picture.width = codec.width;
    picture.height = codec.height;
    Check(av_frame_get_buffer(&picture, 0), kOutput, "a picture");
    picture.width = view->width;
    picture.height = view->height;
    if (codec.pix_fmt == m_Wish.stored.format) {
        std::array<const uint8_t*, 4> planes{};
        std::copy_n(view->data, planes.size(), planes.begin());
        av_image_copy(picture.data, picture.linesize, planes.data(), view->linesize, codec.pix_fmt,
                      view->width, view->height);
    } else {
        m_Converter.Convert(*view, m_Wish.colour, picture, m_Wish.colour);
    }
    // Of yuv420p only the luma plane lacks anything.
    if (codec.width > picture.width) {
        for (int row = 0; row < picture.height; ++row) {
            uint8_t* pEnd =
                picture.data[0] + static_cast<std::ptrdiff_t>(row) * picture.linesize[0] + picture.width;
            *pEnd = pEnd[-1];
        }
    }
    if (codec.height > picture.height) {
        uint8_t* pLast =
            picture.data[0] + static_cast<std::ptrdiff_t>(picture.height - 1) * picture.linesize[0];
        std::memcpy(pLast + picture.linesize[0], pLast, static_cast<std::size_t>(codec.width));
    }
    picture.width = codec.width;
    picture.height = codec.height;
    picture.color_range = codec.color_range;
    picture.colorspace = codec.colorspace;
    picture.pts = m_nPictures++;
    Encode(*m_Video, *m_pVideoStream, &picture);
}

void Output::WriteSamples(std::span<const std::byte> bytes)
{
    m_Waiting.insert(m_Waiting.end(), bytes.begin(), bytes.end());
    m_nSamples += static_cast<int64_t>(bytes.size() / m_nFrameBytes);
    EncodeWaiting(false);
}

void Output::EncodeWaiting(bool bAll)
{
    const std::size_t nFrame =
        m_Audio->frame_size > 0 ? static_cast<std::size_t>(m_Audio->frame_size) : 4096;
    std::size_t nTaken = 0;
    while (true) {
        const std::size_t nSamples = std::min(nFrame, (m_Waiting.size() - nTaken) / m_nFrameBytes);
        if (nSamples == 0 || (nSamples < nFrame && !bAll)) {
            break;
        }
        const FramePtr frame = NewFrame();
        frame->format = m_Audio->sample_fmt;
        frame->sample_rate = m_Audio->sample_rate;
        frame->nb_samples = static_cast<int>(nSamples);
        av_channel_layout_copy(&frame->ch_layout, &m_Audio->ch_layout);
        Check(av_frame_get_buffer(frame.get(), 0), kOutput, "samples");
        const auto* pIn = reinterpret_cast<const uint8_t*>(m_Waiting.data() + nTaken);
        Check(swr_convert(m_Resampler.get(), frame->extended_data, frame->nb_samples, &pIn,
                          frame->nb_samples),
              kOutput, "samples");
        frame->pts = m_nEncoded;
        m_nEncoded += frame->nb_samples;
        Encode(*m_Audio, *m_pAudioStream, frame.get());
        nTaken += nSamples * m_nFrameBytes;
    }
    m_Waiting.erase(m_Waiting.begin(), m_Waiting.begin() + static_cast<std::ptrdiff_t>(nTaken));
}

bool Output::WritePassed(std::deque<PacketPtr>& packets, double dUntil)
{
    while (!packets.empty()) {
        AVPacket& packet = *packets.front();
        const int64_t nTime = packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
        if (nTime != AV_NOPTS_VALUE && static_cast<double>(nTime) * av_q2d(m_PassedBase) >= dUntil) {
            return false;
        }
        BeginStep(fmt::format("writing {}", m_Path));
        if (packet.pts == AV_NOPTS_VALUE) {
            throw Failure(kOutput,
                          fmt::format("the input does not say when each {} packet is shown, so that "
                                      "it cannot be copied: leave it out with --pass none",
                                      avcodec_get_name(m_pPassedStream->codecpar->codec_id)));
        }
        av_packet_rescale_ts(&packet, m_PassedBase, m_pPassedStream->time_base);
        packet.stream_index = m_pPassedStream->index;
        packet.pos = -1;
        // Where recordings were joined they may overlap a little, which no container takes.
        if (packet.dts != AV_NOPTS_VALUE) {
            const int64_t nStrict = (m_Format->oformat->flags & AVFMT_TS_NONSTRICT) != 0 ? 0 : 1;
            if (m_nPassedLast != AV_NOPTS_VALUE && packet.dts < m_nPassedLast + nStrict) {
                packet.dts = m_nPassedLast + nStrict;
                packet.pts = std::max(packet.pts, packet.dts);
            }
            m_nPassedLast = packet.dts;
        }
        Check(av_interleaved_write_frame(m_Format.get(), &packet), kOutput, m_Path);
        packets.pop_front();
    }
    return true;
}

void Output::DrainPile(Input* pInput, double dUntil)
{
    if (pInput != nullptr) {
        pInput->OnPile([this, pInput, dUntil] {
            if (!WritePassed(pInput->Passed(), dUntil)) {
                pInput->Passed().clear();
            }
        });
    }
}

void Output::WriteRest(Input& input, double dUntil)
{
    // The muxer interleaves what it is given within seconds: the encoders must not hold anything back.
    EndEncoders();
    while (WritePassed(input.Passed(), dUntil) && input.ReadOn()) {
    }
}

void Output::EndEncoders()
{
    if (m_bEncodersEnded) {
        return;
    }
    m_bEncodersEnded = true;
    if (m_Video) {
        Encode(*m_Video, *m_pVideoStream, nullptr);
    }
    if (m_Audio) {
        EncodeWaiting(true);
        Encode(*m_Audio, *m_pAudioStream, nullptr);
    }
}

void Output::Finish()
{
    EndEncoders();
    BeginStep(fmt::format("finishing {}", m_Path));
    Check(av_write_trailer(m_Format.get()), kOutput, m_Path);
    if ((m_Format->oformat->flags & AVFMT_NOFILE) == 0) {
        Check(avio_closep(&m_Format->pb), kOutput, m_Path);
    }
    if (!m_Temporary.empty()) {
        std::error_code error;
        std::filesystem::rename(m_Temporary, m_Target, error);
        if (error) {
            throw Failure(kOutput, fmt::format("{}: {}", m_Path, error.message()));
        }
        m_Temporary.clear();
    }
}

} // namespace tool
