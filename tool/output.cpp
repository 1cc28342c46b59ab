#include "output.h"

extern "C" {
#include <libavutil/mem.h>
}

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace tool
{

namespace
{

namespace fs = std::filesystem;

// The file that is meant, also where a link leads to none yet.
std::string Followed(fs::path path)
{
    constexpr int kMaxLinks = 40; // as the kernel's
    std::error_code error;
    for (int i = 0; i < kMaxLinks && fs::is_symlink(path, error); ++i) {
        path = path.parent_path() / fs::read_symlink(path, error);
    }
    return path.string();
}

bool IsSameAsStdout(const std::string& path)
{
    struct stat a {
    };
    struct stat b {
    };
    return stat(path.c_str(), &a) == 0 && fstat(STDOUT_FILENO, &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino && !S_ISCHR(a.st_mode);
}

AVCodecID PcmOf(AVSampleFormat format, int nBits)
{
    switch (format) {
    case AV_SAMPLE_FMT_U8:
        return AV_CODEC_ID_PCM_U8;
    case AV_SAMPLE_FMT_S32:
        return nBits == 24 ? AV_CODEC_ID_PCM_S24LE : AV_CODEC_ID_PCM_S32LE;
    case AV_SAMPLE_FMT_FLT:
        return AV_CODEC_ID_PCM_F32LE;
    case AV_SAMPLE_FMT_DBL:
        return AV_CODEC_ID_PCM_F64LE;
    default:
        return AV_CODEC_ID_PCM_S16LE;
    }
}

// Where the codec's own list says nothing.
constexpr AVPixelFormat kY4m[] = {
    AV_PIX_FMT_YUV420P,     AV_PIX_FMT_YUV422P,     AV_PIX_FMT_YUV444P,     AV_PIX_FMT_YUV411P,
    AV_PIX_FMT_YUVJ420P,    AV_PIX_FMT_YUVJ422P,    AV_PIX_FMT_YUVJ444P,    AV_PIX_FMT_GRAY8,
    AV_PIX_FMT_YUV420P10LE, AV_PIX_FMT_YUV422P10LE, AV_PIX_FMT_YUV444P10LE, AV_PIX_FMT_GRAY10LE,
    AV_PIX_FMT_YUV420P12LE, AV_PIX_FMT_YUV422P12LE, AV_PIX_FMT_YUV444P12LE, AV_PIX_FMT_GRAY12LE,
    AV_PIX_FMT_YUV420P16LE, AV_PIX_FMT_YUV422P16LE, AV_PIX_FMT_YUV444P16LE, AV_PIX_FMT_GRAY16LE};

bool IsListed(const std::vector<AVPixelFormat>& list, AVPixelFormat format)
{
    return std::find(list.begin(), list.end(), format) != list.end();
}

std::string NameOf(const AVStream& stream)
{
    const char* szKind = av_get_media_type_string(stream.codecpar->codec_type);
    return fmt::format("{} ({})", szKind != nullptr ? szKind : "data",
                       avcodec_get_name(stream.codecpar->codec_id));
}

} // namespace

// ---- Choice -------------------------------------------------------------------------------------

void Output::FormatFreer::operator()(AVFormatContext* p) const
{
    if ((p->oformat->flags & AVFMT_NOFILE) == 0 && p->pb != nullptr) {
        avio_closep(&p->pb);
    }
    avformat_free_context(p);
}

Output::Output(const OutputWish& wish, AVMediaType kind, const Input& first)
    : m_Wish(wish), m_Kind(kind), m_Items(kind == AVMEDIA_TYPE_VIDEO ? kMostPictures : kMostBlocks)
{
    const std::string& path = wish.path;
    std::error_code ignored;
    const auto status = fs::status(path, ignored);
    m_bPipe = path == "-" || IsSameAsStdout(path) || (fs::exists(status) && !fs::is_regular_file(status));
    m_Target = m_bPipe ? path : Followed(path);
    std::array<char, 4096> name{};
    m_bSeries = !m_bPipe && av_get_frame_filename(name.data(), name.size(), m_Target.c_str(), 1) == 0;
    Choose(first);
    const bool bPicture = m_pFormat == nullptr && !m_bSeries;
    m_bSingle = bPicture || (m_bPipe && wish.dAt > 0);
}

void Output::Choose(const Input& first)
{
    const bool bVideo = m_Kind == AVMEDIA_TYPE_VIDEO;
    const std::string& wished = m_Wish.format;
    m_bRaw = wished == "raw" || (wished.empty() && m_Wish.path == "-");
    // Of lossy formats the decoder's floats hold no more than 16 bits do.
    const AVCodecParameters& from = *first.Stream().codecpar;
    const AVCodecDescriptor* pDescriptor = avcodec_descriptor_get(from.codec_id);
    const bool bLossless = pDescriptor != nullptr && (pDescriptor->props & AV_CODEC_PROP_LOSSLESS) != 0;
    const AVCodecID pcm =
        PcmOf(bLossless ? first.Gives().audio.format : AV_SAMPLE_FMT_S16, from.bits_per_raw_sample);
    std::string name = m_Wish.path; // tells the container, and of pictures also the codec
    if (m_bRaw) {
        m_Id = bVideo ? AV_CODEC_ID_RAWVIDEO : pcm;
        m_pFormat = av_guess_format(bVideo ? "rawvideo" : avcodec_get_name(pcm) + 4, nullptr, nullptr);
    } else {
        name = wished.empty() ? name : "x." + wished;
        m_pFormat = av_guess_format(wished.empty() ? nullptr : wished.c_str(), name.c_str(), nullptr);
        if (m_pFormat == nullptr) {
            throw Failure(kUsage,
                          fmt::format("\"{}\" does not tell an output format: end the name in .mp4, .mkv, "
                                      ".wav, .flac, .png ..., or say it with --to",
                                      wished.empty() ? m_Wish.path : wished));
        }
        const std::string_view muxer = m_pFormat->name;
        m_Id = av_guess_codec(m_pFormat, nullptr, name.c_str(), nullptr, m_Kind);
        if (!bVideo && (muxer == "wav" || muxer == "aiff")) {
            m_Id = muxer == "wav" ? pcm : m_Id;
        } else if (!bVideo && muxer == "matroska") {
            m_Id = AV_CODEC_ID_FLAC;
        }
        if (muxer == "image2") {
            m_pFormat = m_bPipe ? av_guess_format("image2pipe", nullptr, nullptr) : nullptr;
        } else if (!bVideo && (muxer == "flac" || muxer == "mp3")) {
            m_Id = muxer == "flac" ? AV_CODEC_ID_FLAC : AV_CODEC_ID_MP3;
        }
    }
    for (const CodecOption& option : m_Wish.options) {
        if ((option.name == "c" || option.name == "codec") &&
            (option.kind.empty() || option.kind == (bVideo ? "v" : "a"))) {
            const AVCodecDescriptor* pNamed = avcodec_descriptor_get_by_name(option.value.c_str());
            m_pEncoder = avcodec_find_encoder_by_name(option.value.c_str());
            if (m_pEncoder == nullptr && pNamed != nullptr) {
                m_pEncoder = avcodec_find_encoder(pNamed->id);
            }
            if (m_pEncoder == nullptr || m_pEncoder->type != m_Kind) {
                throw Failure(kUsage, fmt::format("-c:{} {}: this FFmpeg has no such encoder",
                                                  bVideo ? "v" : "a", option.value));
            }
            m_Id = m_pEncoder->id;
            m_Used.insert(option.name);
        }
    }
    if (m_Id == AV_CODEC_ID_NONE) {
        throw Failure(kUsage,
                      fmt::format("{} files hold no {}", m_pFormat != nullptr ? m_pFormat->name : "picture",
                                  bVideo ? "pictures" : "sound"));
    }
    if (m_pEncoder == nullptr) {
        m_pEncoder = avcodec_find_encoder(m_Id);
    }
    if (m_pEncoder == nullptr && m_Id == AV_CODEC_ID_H264) {
        m_pEncoder = avcodec_find_encoder(AV_CODEC_ID_MPEG4); // FFmpeg without x264
    }
    if (m_pEncoder == nullptr) {
        throw Failure(kOutput, fmt::format("this FFmpeg has no encoder for {}", avcodec_get_name(m_Id)));
    }
}

void Output::Guard(const std::set<FileId>& inputs)
{
    m_Inputs = inputs;
    if (!m_bPipe && !m_bSeries) {
        MayReplace(m_Target);
    }
}

void Output::MayReplace(const std::string& target) const
{
    const std::optional<FileId> id = IdOf(target);
    if (id && m_Inputs.count(*id) != 0) {
        throw Failure(kOutput, fmt::format("{} is an input too: give the output another name", target));
    }
    std::error_code ignored;
    if (fs::exists(fs::symlink_status(target, ignored)) && !m_Wish.bForce) {
        throw Failure(kOutput, fmt::format("{} exists already: --force (or -y) replaces it", target));
    }
}

std::vector<AVPixelFormat> Output::Pixels() const
{
    std::vector<AVPixelFormat> list = PixelFormats(*m_pEncoder);
    for (const CodecOption& option : m_Wish.options) {
        if (option.name == "pix_fmt") {
            list = {av_get_pix_fmt(option.value.c_str())};
        }
    }
    if (list.empty() && m_Id == AV_CODEC_ID_WRAPPED_AVFRAME) {
        list.assign(std::begin(kY4m), std::end(kY4m));
    }
    std::vector<AVPixelFormat> known;
    for (const telvane::PixelFormat& format : telvane::kPixelFormats) {
        if (list.empty() || IsListed(list, format.format) ||
            IsListed(list, av_pix_fmt_swap_endianness(format.format))) {
            known.push_back(format.format);
        }
    }
    if (known.empty()) {
        throw Failure(kUsage,
                      fmt::format("{} takes no pixel format that can be given here", m_pEncoder->name));
    }
    return known;
}

AVPixelFormat Output::Nearest(AVPixelFormat format) const
{
    std::vector<AVPixelFormat> list = Pixels();
    list.push_back(AV_PIX_FMT_NONE);
    return avcodec_find_best_pix_fmt_of_list(list.data(), format, 1, nullptr);
}

std::string Output::Restriction(const Outcome& outcome) const
{
    std::string text;
    const auto join = [&text](const std::string& name) { text += (text.back() == '=' ? "" : "|") + name; };
    if (m_Kind == AVMEDIA_TYPE_VIDEO) {
        text = "format=pix_fmts=";
        for (const AVPixelFormat format : Pixels()) {
            join(av_get_pix_fmt_name(format));
        }
        return text;
    }
    text = "aformat=sample_fmts=";
    const std::vector<AVSampleFormat> formats = SampleFormats(*m_pEncoder);
    for (int n = AV_SAMPLE_FMT_U8; n <= AV_SAMPLE_FMT_DBL; ++n) {
        const auto format = static_cast<AVSampleFormat>(n);
        if (formats.empty() || std::any_of(formats.begin(), formats.end(), [&](AVSampleFormat f) {
                return av_get_packed_sample_fmt(f) == format;
            })) {
            join(av_get_sample_fmt_name(format));
        }
    }
    const auto begin = [&text](bool bAny, const char* szName) { text += bAny ? szName : ""; };
    const std::vector<int> rates = SampleRates(*m_pEncoder);
    begin(!rates.empty(), ":sample_rates=");
    for (const int nRate : rates) {
        join(fmt::format("{}", nRate));
    }
    const std::vector<AVChannelLayout> layouts = Layouts(*m_pEncoder);
    text += ":channel_layouts=";
    for (const AVChannelLayout& layout : layouts) {
        join(LayoutName(layout));
    }
    if (layouts.empty()) { // without any, FFmpeg does not find its way from filter to filter
        join(LayoutName(outcome.form.layout));
    }
    return text;
}

// ---- Encoder and container ----------------------------------------------------------------------

// The options for an encoder of this kind ("v", "a"), or with "" all that none took.
AVDictionary* Output::Options(const std::string& kind) const
{
    AVDictionary* pOptions = nullptr;
    for (const CodecOption& option : m_Wish.options) {
        if (m_Used.count(option.name) == 0 &&
            (kind.empty() || option.kind.empty() || option.kind == kind)) {
            av_dict_set(&pOptions, option.name.c_str(), option.value.c_str(), 0);
        }
    }
    return pOptions;
}

// Opens it, and notes which options it has taken.
int Output::OpenWithOptions(AVDictionary* pOptions)
{
    std::set<std::string> given;
    const AVDictionaryEntry* pEntry = nullptr;
    while ((pEntry = av_dict_get(pOptions, "", pEntry, AV_DICT_IGNORE_SUFFIX)) != nullptr) {
        given.insert(pEntry->key);
    }
    const int nOpened = avcodec_open2(m_Codec.get(), m_pEncoder, &pOptions);
    for (const std::string& name : given) {
        if (av_dict_get(pOptions, name.c_str(), nullptr, 0) == nullptr) {
            m_Used.insert(name);
        }
    }
    av_dict_free(&pOptions);
    return nOpened;
}

void Output::OpenVideo(const Outcome& outcome)
{
    m_Codec = Made<CodecPtr>(avcodec_alloc_context3(m_pEncoder));
    AVCodecContext& codec = *m_Codec;
    const std::vector<AVPixelFormat> list = PixelFormats(*m_pEncoder);
    const AVPixelFormat given = outcome.form.picture.format;
    codec.pix_fmt = list.empty() || IsListed(list, given) ? given : av_pix_fmt_swap_endianness(given);
    // These codecs have no odd sizes in 4:2:0: the last column or row is repeated.
    const AVPixFmtDescriptor& pixels = *av_pix_fmt_desc_get(codec.pix_fmt);
    const bool bEven = m_pEncoder->id == AV_CODEC_ID_H264 || m_pEncoder->id == AV_CODEC_ID_HEVC;
    const int nEvenX = bEven ? pixels.log2_chroma_w & 1 : 0;
    const int nEvenY = bEven ? pixels.log2_chroma_h & 1 : 0;
    codec.width = (outcome.form.picture.width + nEvenX) & ~nEvenX;
    codec.height = (outcome.form.picture.height + nEvenY) & ~nEvenY;
    const AVRational rate = m_Wish.rate.num > 0 ? m_Wish.rate : outcome.rate;
    m_dRate = av_q2d(rate);
    // The flag means that the ffmpeg command keeps times here; but nothing is lost where they can be stored.
    const bool bTimes =
        m_pFormat != nullptr && m_Wish.rate.num <= 0 && (m_pFormat->flags & AVFMT_NOTIMESTAMPS) == 0;
    const std::string_view muxer = m_pFormat != nullptr ? m_pFormat->name : "";
    m_bEven = !bTimes || (m_pFormat->flags & AVFMT_VARIABLE_FPS) == 0;
    m_bUneven = bTimes && outcome.bUneven && muxer != "avi" && muxer != "yuv4mpegpipe";
    constexpr int kMpeg4Den = 65535;
    codec.time_base = !m_bUneven ? av_inv_q(rate)
                      : m_pEncoder->id == AV_CODEC_ID_MPEG4 && outcome.timeBase.den > kMpeg4Den
                          ? AVRational{1, 1000}
                          : outcome.timeBase;
    codec.framerate = rate;
    codec.sample_aspect_ratio = outcome.aspect;
    if ((pixels.flags & AV_PIX_FMT_FLAG_RGB) == 0) {
        codec.color_range = outcome.colour.range;
        codec.colorspace = outcome.colour.matrix;
    }
    codec.color_primaries = outcome.colour.primaries;
    codec.color_trc = outcome.colour.transfer;
    codec.thread_count = 0;
    AVDictionary* pOptions = Options("v");
    const auto has = [&](const char* szName) {
        return av_dict_get(pOptions, szName, nullptr, 0) != nullptr;
    };
    m_Used.insert("pix_fmt");
    if (const AVDictionaryEntry* pQuality = av_dict_get(pOptions, "q", nullptr, 0)) {
        codec.flags |= AV_CODEC_FLAG_QSCALE;
        codec.global_quality = static_cast<int>(std::lround(std::atof(pQuality->value) * FF_QP2LAMBDA));
        av_dict_set(&pOptions, "q", nullptr, 0);
        m_Used.insert("q");
    } else if (m_pEncoder->id == AV_CODEC_ID_MPEG4 && !has("b")) {
        codec.flags |= AV_CODEC_FLAG_QSCALE;
        codec.global_quality = 3 * FF_QP2LAMBDA;
    }
    if (std::string_view(m_pEncoder->name) == "libx264") {
        av_dict_set(&pOptions, "preset", "veryfast", AV_DICT_DONT_OVERWRITE);
        if (!has("b") && !has("crf") && !has("qp")) {
            av_dict_set(&pOptions, "crf", "18", 0);
        }
    }
    if (m_pFormat != nullptr && (m_pFormat->flags & AVFMT_GLOBALHEADER) != 0) {
        codec.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    Check(OpenWithOptions(pOptions), kOutput, m_pEncoder->name);
    m_nLimit = m_bSingle ? 1 : m_nLimit;
    m_nFirst = m_bSingle ? std::llround(m_Wish.dAt * m_dRate) : 0;
    if (m_Wish.dLength > 0) {
        m_nLimit = std::min(m_nLimit, std::max<int64_t>(1, std::llround(m_Wish.dLength * m_dRate)));
    }
    const AVPixFmtDescriptor& from = *av_pix_fmt_desc_get(given);
    if (outcome.nDepth > from.comp[0].depth) {
        m_Notes.push_back(
            fmt::format("samples of {} bits are stored with {}", outcome.nDepth, from.comp[0].depth));
    }
}

void Output::OpenAudio(const Outcome& outcome)
{
    const telvane::AudioStream& audio = outcome.form.audio;
    const std::vector<AVSampleFormat> formats = SampleFormats(*m_pEncoder);
    AVChannelLayout usual{};
    av_channel_layout_default(&usual, audio.channels);
    int nOpened = -1;
    // An encoder that has not got the layout gets the usual one of as many channels.
    for (const AVChannelLayout& tried : {outcome.form.layout, usual}) {
        m_Codec = Made<CodecPtr>(avcodec_alloc_context3(m_pEncoder));
        AVCodecContext& codec = *m_Codec;
        codec.sample_fmt = audio.format;
        for (const AVSampleFormat format : formats) {
            codec.sample_fmt = av_get_packed_sample_fmt(format) == audio.format ? format : codec.sample_fmt;
        }
        codec.sample_rate = audio.rate;
        codec.ch_layout = tried;
        codec.time_base = {1, audio.rate};
        codec.bit_rate = m_Id == AV_CODEC_ID_AAC ? 96000 * static_cast<int64_t>(audio.channels) : 0;
        codec.bits_per_raw_sample = outcome.nDepth;
        if (m_pFormat != nullptr && (m_pFormat->flags & AVFMT_GLOBALHEADER) != 0) {
            codec.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        }
        AVDictionary* pOptions = Options("a");
        if (const AVDictionaryEntry* pQuality = av_dict_get(pOptions, "q", nullptr, 0)) {
            codec.flags |= AV_CODEC_FLAG_QSCALE;
            codec.global_quality = static_cast<int>(std::lround(std::atof(pQuality->value) * FF_QP2LAMBDA));
            av_dict_set(&pOptions, "q", nullptr, 0);
        }
        nOpened = OpenWithOptions(pOptions);
        if (nOpened >= 0) {
            break;
        }
    }
    m_Used.insert("q");
    Check(nOpened, kOutput, m_pEncoder->name);
    AVCodecContext& codec = *m_Codec;
    SwrContext* pResampler = nullptr;
    Check(swr_alloc_set_opts2(&pResampler, &codec.ch_layout, codec.sample_fmt, audio.rate, &codec.ch_layout,
                              audio.format, audio.rate, 0, nullptr),
          kOutput, "the samples' format");
    m_Resampler.reset(pResampler);
    Check(swr_init(pResampler), kOutput, "the samples' format");
    m_dRate = audio.rate;
    if (m_Wish.dLength > 0) {
        m_nLimit = std::llround(m_Wish.dLength * m_dRate);
    }
}

int Output::BlockSamples() const
{
    constexpr int kBlock = 4096;
    return m_Codec->frame_size > 0 ? m_Codec->frame_size : kBlock;
}

bool Output::AddCopy(const AVStream& from)
{
    const AVCodecParameters& parameters = *from.codecpar;
    const bool bCover = (from.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
    const bool bAttach = std::string_view(m_pFormat->name) == "matroska" &&
                         (bCover || parameters.codec_type == AVMEDIA_TYPE_ATTACHMENT);
    if (!bAttach && (avformat_query_codec(m_pFormat, parameters.codec_id, FF_COMPLIANCE_NORMAL) != 1 ||
                     parameters.codec_type == AVMEDIA_TYPE_DATA)) {
        // A clip without its sound is not what anybody wants.
        if (m_Kind == AVMEDIA_TYPE_VIDEO && parameters.codec_type == AVMEDIA_TYPE_AUDIO) {
            throw Failure(kOutput, fmt::format("{} cannot hold the input's {} as it is: write .mkv, or "
                                               "leave it out with --pass none",
                                               m_pFormat->name, NameOf(from)));
        }
        m_Notes.push_back("left out: " + NameOf(from));
        return false;
    }
    AVStream& to = AddStream(from);
    Check(avcodec_parameters_copy(to.codecpar, &parameters), kOutput, m_Wish.path);
    CopySideData(from, to);
    unsigned nTag = 0;
    const AVCodecTag* const* ppTags = m_pFormat->codec_tag;
    if (ppTags != nullptr && av_codec_get_id(ppTags, parameters.codec_tag) != parameters.codec_id &&
        av_codec_get_tag2(ppTags, parameters.codec_id, &nTag) != 0) {
        to.codecpar->codec_tag = 0;
    }
    to.time_base = from.time_base;
    to.sample_aspect_ratio = from.sample_aspect_ratio;
    to.avg_frame_rate = from.avg_frame_rate;
    if (bAttach && bCover) { // in this container covers are files
        to.codecpar->codec_type = AVMEDIA_TYPE_ATTACHMENT;
        const bool bPng = parameters.codec_id == AV_CODEC_ID_PNG;
        av_dict_set(&to.metadata, "filename", bPng ? "cover.png" : "cover.jpg", AV_DICT_DONT_OVERWRITE);
        av_dict_set(&to.metadata, "mimetype", bPng ? "image/png" : "image/jpeg", AV_DICT_DONT_OVERWRITE);
        const auto nSize = static_cast<std::size_t>(from.attached_pic.size);
        av_freep(&to.codecpar->extradata);
        to.codecpar->extradata = static_cast<uint8_t*>(av_mallocz(nSize + AV_INPUT_BUFFER_PADDING_SIZE));
        if (to.codecpar->extradata == nullptr) {
            throw std::bad_alloc();
        }
        to.codecpar->extradata_size = from.attached_pic.size;
        std::memcpy(to.codecpar->extradata, from.attached_pic.data, nSize);
    } else if (!bAttach) {
        m_Copied[from.index] = {from.time_base, &to};
        return true;
    }
    return false;
}

// With the tags of the one that it stands for.
AVStream& Output::AddStream(const AVStream& from)
{
    AVStream* pStream = avformat_new_stream(m_Format.get(), nullptr);
    if (pStream == nullptr) {
        throw std::bad_alloc();
    }
    pStream->disposition = from.disposition;
    av_dict_copy(&pStream->metadata, from.metadata, 0);
    av_dict_set(&pStream->metadata, "encoder", nullptr, 0);
    return *pStream;
}

void Output::CopyTags(const AVFormatContext& from)
{
    av_dict_copy(&m_Format->metadata, from.metadata, 0);
    for (const char* szName : {"creation_time", "company_name", "product_name", "product_version",
                               "major_brand", "minor_version", "compatible_brands", "encoder"}) {
        av_dict_set(&m_Format->metadata, szName, nullptr, 0);
    }
    for (unsigned i = 0; i < from.nb_chapters; ++i) {
        const AVChapter& chapter = *from.chapters[i];
        auto* pCopy = static_cast<AVChapter*>(av_mallocz(sizeof(AVChapter)));
        if (pCopy == nullptr) {
            throw std::bad_alloc();
        }
        pCopy->id = chapter.id;
        pCopy->time_base = chapter.time_base;
        pCopy->start = chapter.start;
        pCopy->end = chapter.end;
        av_dict_copy(&pCopy->metadata, chapter.metadata, 0);
        auto nChapters = static_cast<int>(m_Format->nb_chapters);
        Check(av_dynarray_add_nofree(&m_Format->chapters, &nChapters, pCopy), kOther, "chapters");
        m_Format->nb_chapters = static_cast<unsigned>(nChapters);
    }
}

std::vector<bool> Output::Open(const Outcome& outcome, const Input* pOthers, const Input& about)
{
    const bool bVideo = m_Kind == AVMEDIA_TYPE_VIDEO;
    if (bVideo) {
        OpenVideo(outcome);
    } else {
        OpenAudio(outcome);
    }
    m_Packet = Made<PacketPtr>(av_packet_alloc());
    std::vector<bool> wanted(pOthers != nullptr ? pOthers->File().Format().nb_streams : 0);
    if (m_pFormat == nullptr) {
        RefuseUnused(Options(""));
        return wanted;
    }
    AVFormatContext* pContext = nullptr;
    Check(avformat_alloc_output_context2(&pContext, m_pFormat, nullptr, nullptr), kOutput, m_Wish.path);
    m_Format.reset(pContext);
    if (m_Id == AV_CODEC_ID_WRAPPED_AVFRAME) {
        pContext->strict_std_compliance = FF_COMPLIANCE_UNOFFICIAL; // y4m of more than 8 bits
    }
    const auto addEncoded = [&] {
        m_pStream = &AddStream(about.Stream());
        m_pStream->disposition &= ~AV_DISPOSITION_ATTACHED_PIC;
        m_pStream->time_base = m_Codec->time_base;
        Check(avcodec_parameters_from_context(m_pStream->codecpar, m_Codec.get()), kOutput, m_Wish.path);
        if (bVideo) {
            m_pStream->avg_frame_rate = m_Codec->framerate;
            m_pStream->sample_aspect_ratio = m_Codec->sample_aspect_ratio;
            m_pStream->codecpar->field_order = !outcome.bInterlaced ? AV_FIELD_PROGRESSIVE
                                               : outcome.bTopFirst  ? AV_FIELD_TB
                                                                    : AV_FIELD_BT;
        }
    };
    if (pOthers != &about) {
        addEncoded();
    }
    for (unsigned i = 0; i < wanted.size(); ++i) {
        const AVStream& stream = *pOthers->File().Format().streams[i];
        if (&stream == &about.Stream()) {
            addEncoded();
        } else if (stream.index != pOthers->Stream().index || pOthers != &about) {
            wanted[i] = AddCopy(stream);
        }
    }
    if (m_Wish.bPass) {
        CopyTags(about.File().Format());
    }
    Create();
    return wanted;
}

void Output::RefuseUnused(AVDictionary* pOptions) const
{
    const AVDictionaryEntry* pUnused = av_dict_get(pOptions, "", nullptr, AV_DICT_IGNORE_SUFFIX);
    const std::string unused = pUnused != nullptr ? pUnused->key : "";
    av_dict_free(&pOptions);
    if (!unused.empty()) {
        throw Failure(kUsage,
                      fmt::format("-{}: neither {} nor {} has this option", unused, m_pEncoder->name,
                                  m_pFormat != nullptr ? m_pFormat->name : "a picture's file"));
    }
}

void Output::Create()
{
    if (!m_bPipe) {
        m_Part = PartOf(m_Target); // throws: the options below are freed by hand
        RemoveOnSignal(m_Part);
    }
    AVDictionary* pOptions = Options("");
    if (std::string_view(m_pFormat->name) == "mp4" || std::string_view(m_pFormat->name) == "mov" ||
        std::string_view(m_pFormat->name) == "ipod") {
        av_dict_set(&pOptions, "movflags", m_bPipe ? "frag_keyframe+empty_moov" : "faststart",
                    AV_DICT_DONT_OVERWRITE);
    }
    int nOpened = 0;
    const std::string url =
        m_bPipe ? (m_Wish.path == "-" || IsSameAsStdout(m_Wish.path) ? "pipe:1" : "file:" + m_Target)
                : "file:" + m_Part;
    m_Format->url = av_strdup(url.c_str()); // some containers open it once more
    if ((m_pFormat->flags & AVFMT_NOFILE) == 0) {
        nOpened = avio_open(&m_Format->pb, url.c_str(), AVIO_FLAG_WRITE);
    }
    if (nOpened >= 0) {
        nOpened = avformat_write_header(m_Format.get(), &pOptions);
    }
    if (nOpened < 0) {
        av_dict_free(&pOptions);
        Check(nOpened, kOutput, m_Wish.path);
    }
    RefuseUnused(pOptions);
}

// A new file beside the target, with the mode of the one that it replaces.
std::string Output::PartOf(const std::string& target) const
{
    const fs::path path(target);
    std::string part = (path.parent_path() / fmt::format(".telvane-avfilter.{}.part", getpid())).string();
    const int nFile = open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (nFile < 0) {
        Check(AVERROR(errno), kOutput, m_Wish.path);
    }
    struct stat old {
    };
    if (stat(target.c_str(), &old) == 0) {
        static_cast<void>(fchown(nFile, old.st_uid, old.st_gid));
        static_cast<void>(fchmod(nFile, old.st_mode & 07777U));
    }
    close(nFile);
    return part;
}

void Output::Stand(const std::string& target)
{
    MayReplace(target); // it may have come into being meanwhile
    std::error_code error;
    fs::rename(m_Part, target, error);
    if (error) {
        throw Failure(kOutput, fmt::format("{}: {}", target, error.message()));
    }
    m_Part.clear();
    RemoveOnSignal("");
}

Output::~Output()
{
    m_bStopped = true;
    m_bAbandoned = true;
    m_Items.Abandon();
    m_Items.End();
    if (m_Thread.joinable()) {
        m_Thread.join();
    }
    m_Format.reset();
    if (!m_Part.empty()) {
        static_cast<void>(std::remove(m_Part.c_str()));
        RemoveOnSignal("");
    }
}

// ---- The thread ---------------------------------------------------------------------------------

bool Output::Put(FramePtr frame, double dTime)
{
    if (!m_Thread.joinable()) {
        m_Items.WaitAlsoWhenInterrupted();
        m_Thread = std::thread([this] {
            try {
                Run();
            } catch (...) {
                m_Error = std::current_exception();
                m_Items.Abandon();
            }
        });
    }
    return !m_bStopped && m_Items.Put({std::move(frame), dTime, nullptr});
}

void Output::Pass(PacketPtr packet)
{
    m_Items.Put({nullptr, 0, std::move(packet)}, false);
}

void Output::Finish(bool bCut)
{
    m_bCut = bCut;
    m_Items.End();
    if (m_Thread.joinable()) {
        m_Thread.join();
    }
    if (m_Error) {
        std::rethrow_exception(m_Error);
    }
}

void Output::Run()
{
    while (std::optional<Item> item = m_Items.Take()) {
        if (item->packet) {
            m_Waiting.push_back(std::move(item->packet));
        } else if (m_Kind == AVMEDIA_TYPE_VIDEO) {
            WritePicture(std::move(item->frame), item->dTime);
        } else {
            WriteSamples(std::move(item->frame), item->dTime);
        }
        WritePassed(m_dEnd);
    }
    if (m_bAbandoned) {
        return;
    }
    // The muxer interleaves what it is given within seconds: the encoder must not hold anything back.
    EndPictures();
    Encode(nullptr);
    WritePassed(m_bCut ? m_dEnd : std::numeric_limits<double>::infinity());
    if (m_pFormat != nullptr) {
        Check(av_write_trailer(m_Format.get()), kOutput, m_Wish.path);
        if ((m_pFormat->flags & AVFMT_NOFILE) == 0) {
            Check(avio_closep(&m_Format->pb), kOutput, m_Wish.path);
        }
        if (!m_bPipe) {
            Stand(m_Target);
        }
    }
}

// As the ffmpeg command does: on a constant rate pictures are repeated and left out, and where times are
// stored, those are left out that fall on the time of the one before.
void Output::WritePicture(FramePtr frame, double dTime)
{
    const double dAt = dTime / av_q2d(m_Codec->time_base);
    const double dAhead = dAt - static_cast<double>(m_nNext);
    const double dEnd = dAhead + 1;
    int64_t nTimes = 1;
    int64_t nBefore = 0; // of them the picture before
    if (m_bEven && !m_bUneven) {
        if (dEnd < -1.1) {
            nTimes = 0;
        } else if (dEnd > 1.1) {
            nTimes = std::lrint(dEnd);
            nBefore = dAhead > 1.1 ? std::lrint(dAhead - 0.6) : 0;
        }
    } else if (dEnd <= -0.6 && !m_bUneven) { // of uneven pictures none is left out
        nTimes = 0;
    } else if (dEnd > 0.6 || m_bUneven) {
        m_nNext = std::max<int64_t>(m_nNext, std::llround(dAt));
    }
    FramePtr suited = Suited(std::move(frame));
    const FramePtr& before = m_Last ? m_Last : suited;
    for (int64_t i = 0; i < nTimes && !m_bStopped; ++i) {
        AVFrame& picture = *(i < nBefore ? before : suited);
        picture.pts = m_nNext++;
        m_dEnd = static_cast<double>(m_nNext) * av_q2d(m_Codec->time_base);
        if (picture.pts >= m_nFirst) {
            Encode(&picture);
            ++m_nCount;
        }
        m_bStopped = m_nCount >= m_nLimit || (m_Wish.dLength > 0 && !m_bSingle && m_dEnd >= m_Wish.dLength);
    }
    m_Last = std::move(suited);
    m_Befores = {nBefore, m_Befores[0], m_Befores[1]};
}

// How long the last picture is shown follows from the ones before it.
void Output::EndPictures()
{
    std::sort(m_Befores.begin(), m_Befores.end());
    const int64_t nTimes = m_Befores[1];
    for (int64_t i = 0; m_Last && m_bEven && i < nTimes && !m_bStopped; ++i) {
        WritePicture(Made<FramePtr>(av_frame_clone(m_Last.get())), m_dEnd);
    }
}

// The picture as the encoder takes it.
FramePtr Output::Suited(FramePtr frame)
{
    const AVCodecContext& codec = *m_Codec;
    if (codec.pix_fmt != frame->format || codec.width != frame->width || codec.height != frame->height) {
        FramePtr suited = NewFrame();
        suited->format = codec.pix_fmt;
        suited->width = codec.width;
        suited->height = codec.height;
        Check(av_frame_get_buffer(suited.get(), 0), kOther, "a picture");
        if (codec.pix_fmt != frame->format) { // another order of bytes
            suited->width = frame->width;
            suited->height = frame->height;
            m_Converter.Convert(*frame, *suited);
        } else {
            Repeat(*frame, *suited);
        }
        suited->width = codec.width;
        suited->height = codec.height;
        frame = std::move(suited);
    }
    frame->color_range = codec.color_range;
    frame->colorspace = codec.colorspace;
    return frame;
}

// Copies the picture into one that is a column or row larger.
void Output::Repeat(const AVFrame& from, AVFrame& to)
{
    const auto format = static_cast<AVPixelFormat>(from.format);
    const auto nSample = static_cast<std::size_t>(av_pix_fmt_desc_get(format)->comp[0].step);
    std::array<const uint8_t*, 4> planes{};
    std::copy_n(from.data, planes.size(), planes.begin());
    av_image_copy(to.data, to.linesize, planes.data(), from.linesize, format, from.width, from.height);
    // Of subsampled formats only the luma plane lacks anything.
    const auto nRow = static_cast<std::size_t>(from.width) * nSample;
    for (int row = 0; row < to.height; ++row) {
        uint8_t* pRow = to.data[0] + static_cast<std::ptrdiff_t>(row) * to.linesize[0];
        if (row == from.height) {
            std::memcpy(pRow, pRow - to.linesize[0], nRow);
        }
        if (to.width > from.width) {
            std::memcpy(pRow + nRow, pRow + nRow - nSample, nSample);
        }
    }
}

void Output::WriteSamples(FramePtr frame, double dTime)
{
    const AVCodecContext& codec = *m_Codec;
    if (m_nCount == 0 && m_pFormat != nullptr && (m_pFormat->flags & AVFMT_NOTIMESTAMPS) == 0) {
        m_nNext = std::max<int64_t>(0, std::llround(dTime * m_dRate));
    }
    frame->nb_samples = static_cast<int>(std::min<int64_t>(frame->nb_samples, m_nLimit - m_nCount));
    if (codec.sample_fmt != frame->format) {
        FramePtr planar = NewFrame();
        planar->format = codec.sample_fmt;
        planar->nb_samples = frame->nb_samples;
        planar->sample_rate = codec.sample_rate;
        av_channel_layout_copy(&planar->ch_layout, &codec.ch_layout);
        Check(av_frame_get_buffer(planar.get(), 0), kOther, "samples");
        std::array<const uint8_t*, 1> in{frame->data[0]};
        Check(swr_convert(m_Resampler.get(), planar->extended_data, planar->nb_samples, in.data(),
                          frame->nb_samples),
              kOther, "samples");
        frame = std::move(planar);
    }
    av_channel_layout_copy(&frame->ch_layout, &codec.ch_layout);
    frame->sample_rate = codec.sample_rate;
    frame->pts = m_nNext;
    m_nNext += frame->nb_samples;
    m_nCount += frame->nb_samples;
    m_dEnd = static_cast<double>(m_nNext) / m_dRate;
    if (frame->nb_samples > 0) {
        Encode(frame.get());
    }
    m_bStopped = m_nCount >= m_nLimit;
}

void Output::Encode(const AVFrame* pFrame)
{
    AVCodecContext& codec = *m_Codec;
    Check(avcodec_send_frame(&codec, pFrame), kOutput, m_pEncoder->name);
    while (true) {
        const int nReceived = avcodec_receive_packet(&codec, m_Packet.get());
        if (nReceived == AVERROR(EAGAIN) || nReceived == AVERROR_EOF) {
            return;
        }
        Check(nReceived, kOutput, m_pEncoder->name);
        if (m_pFormat == nullptr) {
            WriteFile(*m_Packet);
            continue;
        }
        if (m_Kind == AVMEDIA_TYPE_VIDEO && m_Packet->duration == 0) {
            // Else the last picture would have no length.
            m_Packet->duration =
                m_bUneven ? av_rescale_q(1, av_inv_q(codec.framerate), codec.time_base) : 1;
        }
        av_packet_rescale_ts(m_Packet.get(), codec.time_base, m_pStream->time_base);
        m_Packet->stream_index = m_pStream->index;
        Check(av_interleaved_write_frame(m_Format.get(), m_Packet.get()), kOutput, m_Wish.path);
    }
}

// A picture in a file of its own.
void Output::WriteFile(const AVPacket& packet)
{
    std::string target = m_Target;
    if (m_bSeries) {
        std::array<char, 4096> name{};
        av_get_frame_filename(name.data(), name.size(), m_Target.c_str(), m_nFile++);
        target = Followed(name.data());
        MayReplace(target);
    }
    if (!m_bPipe) {
        m_Part = PartOf(target);
        RemoveOnSignal(m_Part);
    }
    std::ofstream file(m_bPipe ? target : m_Part, std::ios::binary);
    file.write(reinterpret_cast<const char*>(packet.data), packet.size);
    file.close();
    if (!file) {
        throw Failure(kOutput, fmt::format("{}: it cannot be written whole", target));
    }
    if (!m_bPipe) {
        Stand(target);
    }
}

void Output::WritePassed(double dUntil)
{
    while (!m_Waiting.empty()) {
        AVPacket& packet = *m_Waiting.front();
        Copied& copied = m_Copied.at(packet.stream_index);
        const int64_t nTime = packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
        if (nTime != AV_NOPTS_VALUE && static_cast<double>(nTime) * av_q2d(copied.base) >= dUntil) {
            return;
        }
        AVStream& to = *copied.pTo;
        if ((to.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0) {
            packet.pts = packet.dts = 0; // covers have no time
        }
        if (packet.pts == AV_NOPTS_VALUE) {
            throw Failure(kOutput,
                          fmt::format("the input does not say when each {} packet is shown, so that "
                                      "it cannot be copied: leave it out with --pass none",
                                      avcodec_get_name(to.codecpar->codec_id)));
        }
        av_packet_rescale_ts(&packet, copied.base, to.time_base);
        packet.stream_index = to.index;
        packet.pos = -1;
        // Where recordings were joined they may overlap a little, which no container takes.
        if (packet.dts != AV_NOPTS_VALUE) {
            const int64_t nStrict = (m_pFormat->flags & AVFMT_TS_NONSTRICT) != 0 ? 0 : 1;
            if (copied.nLast != AV_NOPTS_VALUE && packet.dts < copied.nLast + nStrict) {
                packet.dts = copied.nLast + nStrict;
                packet.pts = std::max(packet.pts, packet.dts);
            }
            copied.nLast = packet.dts;
        }
        Check(av_interleaved_write_frame(m_Format.get(), &packet), kOutput, m_Wish.path);
        m_Waiting.pop_front();
    }
}

} // namespace tool
