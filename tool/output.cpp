#include "output.h"

extern "C" {
#include <libavutil/mem.h>
}

#include <fmt/format.h>
#include <fmt/ranges.h>

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
    std::error_code error;
    for (int i = 0; i < 40 && fs::is_symlink(path, error); ++i) { // 40 as in the kernel
        path = path.parent_path() / fs::read_symlink(path, error);
    }
    return path.string();
}

bool IsListed(const std::vector<AVPixelFormat>& list, AVPixelFormat format)
{
    return format != AV_PIX_FMT_NONE && std::find(list.begin(), list.end(), format) != list.end();
}

// The codec's own list says nothing: planes of 4:2:0, 4:2:2, 4:4:4, 4:1:1 or gray.
bool IsY4m(const telvane::PixelFormat& format)
{
    return format.planes == "y" || (format.planes == "y|u|v" && format.shiftY <= format.shiftX &&
                                    format.shiftX + format.shiftY < 4);
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
    avio_closep(&p->pb);
    avformat_free_context(p);
}

Output::Output(const OutputWish& wish, AVMediaType kind, const Input& first)
    : m_Wish(wish), m_Kind(kind), m_Items(kind == AVMEDIA_TYPE_VIDEO ? kMostPictures : kMostBlocks, false)
{
    const std::string& path = wish.path;
    std::error_code ignored;
    const auto status = fs::status(path, ignored);
    m_bPipe = path == "-" || (fs::exists(status) && !fs::is_regular_file(status));
    m_Target = m_bPipe ? path : Followed(path);
    const std::string own = kind == AVMEDIA_TYPE_VIDEO ? ":v" : ":a";
    for (const auto& [name, value] : wish.options) {
        m_Options.Set(name.substr(0, name.size() - (name.ends_with(own) ? own.size() : 0)), value);
    }
    Choose(first);
    const std::string_view muxer = m_pFormat->name;
    m_bFiles = muxer == "image2";
    std::array<char, 4096> name{};
    m_bSeries = m_bFiles && av_get_frame_filename(name.data(), name.size(), m_Target.c_str(), 1) == 0;
    m_bSingle = (m_bFiles && !m_bSeries) || (m_bPipe && wish.dAt > 0);
}

void Output::Choose(const Input& first)
{
    const bool bVideo = m_Kind == AVMEDIA_TYPE_VIDEO;
    const std::string& wished = m_Wish.format;
    // Of lossy formats the decoder's floats hold no more than 16 bits do.
    const AVCodecParameters& from = *first.Stream().codecpar;
    const bool bLossless = (avcodec_descriptor_get(from.codec_id)->props & AV_CODEC_PROP_LOSSLESS) != 0;
    const AVCodecID pcm =
        from.bits_per_raw_sample == 24
            ? AV_CODEC_ID_PCM_S24LE
            : av_get_pcm_codec(bLossless && !bVideo ? first.Gives().audio.format : AV_SAMPLE_FMT_S16, 0);
    AVCodecID id = bVideo ? AV_CODEC_ID_RAWVIDEO : pcm;
    if (wished == "raw" || (wished.empty() && m_Wish.path == "-")) {
        m_pFormat = av_guess_format(bVideo ? "rawvideo" : avcodec_get_name(pcm) + 4, nullptr, nullptr);
    } else {
        const std::string name = wished.empty() ? m_Wish.path : "x." + wished;
        m_pFormat = av_guess_format(wished.empty() ? nullptr : wished.c_str(), name.c_str(), nullptr);
        FailIf(m_pFormat == nullptr, kUsage,
               "\"{}\" does not tell an output format: end the name in .mp4, .mkv, "
               ".wav, .flac, .png ..., or say it with --to",
               wished.empty() ? m_Wish.path : wished);
        const std::string_view muxer = m_pFormat->name;
        id = muxer == "wav" ? pcm
             : !bVideo && muxer == "matroska"
                 ? AV_CODEC_ID_FLAC
                 : av_guess_codec(m_pFormat, nullptr, name.c_str(), nullptr, m_Kind);
        if (muxer == "image2" && m_bPipe) {
            m_pFormat = av_guess_format("image2pipe", nullptr, nullptr);
        }
    }
    const std::string codec = m_Options.Take("c") + m_Options.Take("codec");
    const AVCodecDescriptor* pNamed = avcodec_descriptor_get_by_name(codec.c_str());
    m_pEncoder = avcodec_find_encoder_by_name(codec.c_str());
    if (m_pEncoder == nullptr && (codec.empty() || pNamed != nullptr)) {
        m_pEncoder = avcodec_find_encoder(pNamed != nullptr ? pNamed->id : id);
    }
    FailIf(m_pEncoder == nullptr || m_pEncoder->type != m_Kind, kUsage,
           "{} files: this FFmpeg has no encoder {}{}for {}", m_pFormat->name, codec,
           codec.empty() ? "" : " ", bVideo ? "pictures" : "sound");
}

void Output::MayReplace(const std::string& target) const
{
    FailIf(IsInput(target), kOutput, "{} is an input too: give the output another name", target);
    std::error_code ignored;
    FailIf(fs::exists(fs::symlink_status(target, ignored)) && !m_Wish.bForce, kOutput,
           "{} exists already: --force (or -y) replaces it", target);
}

std::string Output::Restriction(const Outcome& outcome)
{
    std::vector<std::string> names;
    if (m_Kind == AVMEDIA_TYPE_VIDEO) {
        std::vector<AVPixelFormat> list = PixelFormats(*m_pEncoder);
        if (const std::string wished = m_Options.Take("pix_fmt"); !wished.empty()) {
            list = {av_get_pix_fmt(wished.c_str())};
        }
        const bool bY4m = m_pEncoder->id == AV_CODEC_ID_WRAPPED_AVFRAME;
        for (const telvane::PixelFormat& format : telvane::kPixelFormats) {
            if ((list.empty() && (!bY4m || IsY4m(format))) || IsListed(list, format.format) ||
                IsListed(list, av_pix_fmt_swap_endianness(format.format))) {
                names.emplace_back(format.name);
            }
        }
        FailIf(names.empty(), kUsage, "{} takes no pixel format that is wished for and can be given here",
               m_pEncoder->name);
        return fmt::format("format=pix_fmts={}", fmt::join(names, "|"));
    }
    std::vector<AVSampleFormat> formats = SampleFormats(*m_pEncoder);
    if (formats.empty()) {
        formats = {AV_SAMPLE_FMT_U8, AV_SAMPLE_FMT_S16, AV_SAMPLE_FMT_S32, AV_SAMPLE_FMT_FLT,
                   AV_SAMPLE_FMT_DBL};
    }
    for (const AVSampleFormat format : formats) {
        names.emplace_back(av_get_sample_fmt_name(av_get_packed_sample_fmt(format)));
    }
    const std::vector<int> rates = SampleRates(*m_pEncoder);
    std::vector<std::string> layouts;
    for (const AVChannelLayout& layout : Layouts(*m_pEncoder)) {
        layouts.push_back(LayoutName(layout));
    }
    if (layouts.empty()) { // without any, FFmpeg does not find its way from filter to filter
        layouts.push_back(LayoutName(outcome.form.layout));
    }
    return fmt::format("aformat=sample_fmts={}{}{}:channel_layouts={}", fmt::join(names, "|"),
                       rates.empty() ? "" : ":sample_rates=", fmt::join(rates, "|"),
                       fmt::join(layouts, "|"));
}

std::string Output::MakeEven(telvane::Picture& picture)
{
    const AVPixFmtDescriptor& pixels = *av_pix_fmt_desc_get(picture.format);
    const bool bEven = m_pEncoder->id == AV_CODEC_ID_H264 || m_pEncoder->id == AV_CODEC_ID_HEVC;
    const int nRight = bEven ? picture.width & pixels.log2_chroma_w : 0;
    const int nBottom = bEven ? picture.height & pixels.log2_chroma_h : 0;
    if (nRight + nBottom == 0) {
        return "";
    }
    m_Notes.push_back(fmt::format("{}x{} is stored as {}x{}: this codec has no odd sizes", picture.width,
                                  picture.height, picture.width + nRight, picture.height + nBottom));
    picture.width += nRight;
    picture.height += nBottom;
    return fmt::format(",pad={}:{}:0:0,fillborders=right={}:bottom={}:mode=smear", picture.width,
                       picture.height, nRight, nBottom);
}

// ---- Encoder and container ----------------------------------------------------------------------

void Output::SetVideo(const Outcome& outcome)
{
    AVCodecContext& codec = *m_Codec;
    const std::vector<AVPixelFormat> list = PixelFormats(*m_pEncoder);
    const AVPixelFormat given = outcome.form.picture.format;
    const AVPixFmtDescriptor& pixels = *av_pix_fmt_desc_get(given);
    codec.pix_fmt = list.empty() || IsListed(list, given) ? given : av_pix_fmt_swap_endianness(given);
    codec.width = outcome.form.picture.width;
    codec.height = outcome.form.picture.height;
    codec.framerate = outcome.rate;
    // The flag means that the ffmpeg command keeps times here; but nothing is lost where they can be stored.
    const bool bTimes = (m_pFormat->flags & AVFMT_NOTIMESTAMPS) == 0;
    const std::string_view muxer = m_pFormat->name;
    m_bEven = !bTimes || (m_pFormat->flags & AVFMT_VARIABLE_FPS) == 0;
    m_bUneven = bTimes && outcome.bUneven && muxer != "avi" && muxer != "yuv4mpegpipe";
    constexpr int kMpeg4Den = 65535;
    codec.time_base = !m_bUneven ? av_inv_q(codec.framerate)
                      : m_pEncoder->id == AV_CODEC_ID_MPEG4 && outcome.timeBase.den > kMpeg4Den
                          ? AVRational{1, 1000}
                          : outcome.timeBase;
    codec.sample_aspect_ratio = outcome.seen->sample_aspect_ratio;
    codec.color_range = outcome.seen->color_range;
    codec.colorspace = outcome.seen->colorspace;
    codec.color_primaries = outcome.seen->color_primaries;
    codec.color_trc = outcome.seen->color_trc;
    if (std::string_view(m_pEncoder->name) == "libx264") {
        m_Options.Set("preset", "veryfast", AV_DICT_DONT_OVERWRITE);
        if (m_Options.Get("b") == nullptr && m_Options.Get("qp") == nullptr) {
            m_Options.Set("crf", "18", AV_DICT_DONT_OVERWRITE);
        }
    } else if (m_pEncoder->id == AV_CODEC_ID_MPEG4 && m_Options.Get("b") == nullptr) {
        m_Options.Set("q", "3", AV_DICT_DONT_OVERWRITE);
    }
    m_nFirst = m_bSingle ? std::llround(m_Wish.dAt * av_q2d(codec.framerate)) : 0;
    if (outcome.nDepth > pixels.comp[0].depth) {
        m_Notes.push_back(
            fmt::format("samples of {} bits are stored with {}", outcome.nDepth, pixels.comp[0].depth));
    }
}

void Output::SetAudio(const Outcome& outcome)
{
    AVCodecContext& codec = *m_Codec;
    const telvane::AudioStream& audio = outcome.form.audio;
    codec.sample_fmt = audio.format;
    for (const AVSampleFormat format : SampleFormats(*m_pEncoder)) {
        codec.sample_fmt = av_get_packed_sample_fmt(format) == audio.format ? format : codec.sample_fmt;
    }
    codec.sample_rate = audio.rate;
    codec.ch_layout = outcome.form.layout;
    codec.framerate = {audio.rate, 1};
    codec.time_base = {1, audio.rate};
    codec.bit_rate = m_pEncoder->id == AV_CODEC_ID_AAC ? 96000 * static_cast<int64_t>(audio.channels) : 0;
    codec.bits_per_raw_sample = outcome.nDepth;
    m_Resampler = Made<SwrPtr>(swr_alloc());
}

void Output::SetCommon()
{
    AVCodecContext& codec = *m_Codec;
    if (const std::string quality = m_Options.Take("q"); !quality.empty()) {
        codec.flags |= AV_CODEC_FLAG_QSCALE;
        codec.global_quality = static_cast<int>(std::lround(std::atof(quality.c_str()) * FF_QP2LAMBDA));
    }
    if ((m_pFormat->flags & AVFMT_GLOBALHEADER) != 0) {
        codec.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    codec.thread_count = 0;
    if (m_bSingle) {
        m_nLimit = 1;
    } else if (m_Wish.dLength < kForever) {
        m_nLimit = std::max<int64_t>(1, std::llround(m_Wish.dLength * av_q2d(codec.framerate)));
    }
    Check(avcodec_open2(&codec, m_pEncoder, m_Options.At()), kOutput, m_pEncoder->name);
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
        FailIf(m_Kind == AVMEDIA_TYPE_VIDEO && parameters.codec_type == AVMEDIA_TYPE_AUDIO, kOutput,
               "{} cannot hold the input's {} as it is: write .mkv, or "
               "leave it out with --pass none",
               m_pFormat->name, NameOf(from));
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
        to.codecpar->extradata =
            static_cast<uint8_t*>(NotNull(av_mallocz(nSize + AV_INPUT_BUFFER_PADDING_SIZE)));
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
    AVStream& stream = *NotNull(avformat_new_stream(m_Format.get(), nullptr));
    stream.disposition = from.disposition;
    av_dict_copy(&stream.metadata, from.metadata, 0);
    av_dict_set(&stream.metadata, "encoder", nullptr, 0);
    return stream;
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
        auto* pCopy = static_cast<AVChapter*>(NotNull(av_memdup(&chapter, sizeof(AVChapter))));
        pCopy->metadata = nullptr;
        av_dict_copy(&pCopy->metadata, chapter.metadata, 0);
        auto nChapters = static_cast<int>(m_Format->nb_chapters);
        Check(av_dynarray_add_nofree(&m_Format->chapters, &nChapters, pCopy), kOther, "chapters");
        m_Format->nb_chapters = static_cast<unsigned>(nChapters);
    }
}

std::vector<bool> Output::Open(const Outcome& outcome, const Input* pOthers, const Input& about)
{
    const bool bVideo = m_Kind == AVMEDIA_TYPE_VIDEO;
    if (!m_bPipe && !m_bSeries) {
        MayReplace(m_Target);
    }
    m_Codec = Made<CodecPtr>(avcodec_alloc_context3(m_pEncoder));
    if (bVideo) {
        SetVideo(outcome);
    } else {
        SetAudio(outcome);
    }
    SetCommon();
    std::vector<bool> wanted(pOthers != nullptr ? pOthers->File().Format().nb_streams : 0);
    AVFormatContext* pContext = nullptr;
    Check(avformat_alloc_output_context2(&pContext, m_pFormat, nullptr, nullptr), kOutput, m_Wish.path);
    m_Format.reset(pContext);
    if (m_pEncoder->id == AV_CODEC_ID_WRAPPED_AVFRAME) {
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
            const telvane::Fields fields = FieldsOf(*outcome.seen);
            m_pStream->codecpar->field_order = fields == telvane::Fields::kUnknown    ? AV_FIELD_PROGRESSIVE
                                               : fields == telvane::Fields::kTopFirst ? AV_FIELD_TB
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
    if (m_Wish.pass != "none") {
        CopyTags(about.File().Format());
    }
    if (!m_bFiles) {
        Create();
    }
    FailIf(!m_Options.First().empty(), kUsage, "-{}: neither {} nor {} has this option", m_Options.First(),
           m_pEncoder->name, m_pFormat->name);
    m_Done = std::async(std::launch::async, [this] {
        const Finally ended([this] { m_Items.Abandon(); });
        Run();
    });
    return wanted;
}

void Output::Create()
{
    const std::string_view muxer = m_pFormat->name;
    if (m_bPipe && (muxer == "mp4" || muxer == "mov" || muxer == "ipod")) {
        m_Options.Set("movflags", "frag_keyframe+empty_moov", AV_DICT_DONT_OVERWRITE);
    }
    if (!m_bPipe) {
        OpenPart(m_Target);
    }
    const std::string url = m_Wish.path == "-" ? "pipe:1" : "file:" + (m_bPipe ? m_Target : m_Part);
    m_Format->url = av_strdup(url.c_str()); // some containers open it once more
    if ((m_pFormat->flags & AVFMT_NOFILE) == 0) {
        Check(avio_open(&m_Format->pb, url.c_str(), AVIO_FLAG_WRITE), kOutput, m_Wish.path);
    }
    Check(avformat_write_header(m_Format.get(), m_Options.At()), kOutput, m_Wish.path);
}

// A new file beside the target, with the mode of the one that it replaces.
void Output::OpenPart(const std::string& target)
{
    const std::string part =
        (fs::path(target).parent_path() / fmt::format(".telvane-avfilter.{}.part", getpid())).string();
    const int nFile = open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    Check(nFile < 0 ? AVERROR(errno) : 0, kOutput, m_Wish.path);
    struct stat old {
    };
    if (stat(target.c_str(), &old) == 0) {
        static_cast<void>(fchown(nFile, old.st_uid, old.st_gid));
        static_cast<void>(fchmod(nFile, old.st_mode & 07777U));
    }
    close(nFile);
    m_Part = part;
    g_szRemove = m_Part.c_str();
}

void Output::Stand(const std::string& target)
{
    MayReplace(target); // it may have come into being meanwhile
    std::error_code error;
    fs::rename(m_Part, target, error);
    FailIf(error.value() != 0, kOutput, "{}: {}", target, error.message());
    g_szRemove = nullptr;
    m_Part.clear();
}

Output::~Output()
{
    m_bStopped = true;
    m_bAbandoned = true;
    m_Items.Abandon();
    m_Items.End();
    if (m_Done.valid()) {
        m_Done.wait();
    }
    m_Format.reset();
    if (!m_Part.empty()) {
        static_cast<void>(std::remove(m_Part.c_str()));
        g_szRemove = nullptr;
    }
}

// ---- The thread ---------------------------------------------------------------------------------

bool Output::Put(FramePtr frame, double dTime)
{
    return !m_bStopped && m_Items.Put({std::move(frame), dTime, nullptr});
}

bool Output::Pass(PacketPtr packet)
{
    return m_Items.Put({nullptr, 0, std::move(packet)}, false);
}

void Output::Finish()
{
    m_Items.End();
    m_Done.get();
}

void Output::Run()
{
    while (std::optional<Item> item = m_Items.Take()) {
        if (item->packet) {
            WritePassed(*item->packet);
        } else if (m_Kind == AVMEDIA_TYPE_VIDEO) {
            WritePicture(std::move(item->frame), item->dTime);
        } else {
            WriteSamples(std::move(item->frame), item->dTime);
        }
    }
    if (m_bAbandoned) {
        return;
    }
    EndPictures();
    Encode(nullptr);
    if (!m_bFiles) {
        Check(av_write_trailer(m_Format.get()), kOutput, m_Wish.path);
        Check(avio_closep(&m_Format->pb), kOutput, m_Wish.path);
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
    const AVCodecContext& codec = *m_Codec;
    if (codec.pix_fmt != frame->format) { // another order of bytes, in a buffer of ours
        AVBufferRef& buffer = *frame->buf[0];
        for (std::size_t i = 0; i + 1 < buffer.size; i += 2) {
            std::swap(buffer.data[i], buffer.data[i + 1]);
        }
        frame->format = codec.pix_fmt;
    }
    frame->color_range = codec.color_range;
    frame->colorspace = codec.colorspace;
    const FramePtr& before = m_Last ? m_Last : frame;
    for (int64_t i = 0; i < nTimes && !m_bStopped; ++i) {
        AVFrame& picture = *(i < nBefore ? before : frame);
        picture.pts = m_nNext++;
        m_dEnd = static_cast<double>(m_nNext) * av_q2d(m_Codec->time_base);
        if (picture.pts >= m_nFirst) {
            Encode(&picture);
            ++m_nCount;
        }
        m_bStopped = m_nCount >= m_nLimit || (!m_bSingle && m_dEnd >= m_Wish.dLength);
    }
    m_Last = std::move(frame);
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

void Output::WriteSamples(FramePtr frame, double dTime)
{
    const AVCodecContext& codec = *m_Codec;
    if (m_nCount == 0 && (m_pFormat->flags & AVFMT_NOTIMESTAMPS) == 0) {
        m_nNext = std::max<int64_t>(0, std::llround(dTime * codec.sample_rate));
    }
    frame->nb_samples = static_cast<int>(std::min<int64_t>(frame->nb_samples, m_nLimit - m_nCount));
    av_channel_layout_copy(&frame->ch_layout, &codec.ch_layout);
    frame->sample_rate = codec.sample_rate;
    if (codec.sample_fmt != frame->format && frame->nb_samples > 0) {
        FramePtr planar = NewFrame();
        av_channel_layout_copy(&planar->ch_layout, &codec.ch_layout);
        planar->sample_rate = codec.sample_rate;
        planar->format = codec.sample_fmt;
        Check(swr_convert_frame(m_Resampler.get(), planar.get(), frame.get()), kOther, "samples");
        frame = std::move(planar);
    }
    frame->pts = m_nNext;
    m_nNext += frame->nb_samples;
    m_nCount += frame->nb_samples;
    m_dEnd = static_cast<double>(m_nNext) / codec.sample_rate;
    if (frame->nb_samples > 0) {
        Encode(frame.get());
    }
    m_bStopped = m_nCount >= m_nLimit;
}

void Output::Encode(const AVFrame* pFrame)
{
    AVCodecContext& codec = *m_Codec;
    const PacketPtr packet = Made<PacketPtr>(av_packet_alloc());
    Check(avcodec_send_frame(&codec, pFrame), kOutput, m_pEncoder->name);
    while (true) {
        const int nReceived = avcodec_receive_packet(&codec, packet.get());
        if (nReceived == AVERROR(EAGAIN) || nReceived == AVERROR_EOF) {
            return;
        }
        Check(nReceived, kOutput, m_pEncoder->name);
        if (m_bFiles) {
            WriteFile(*packet);
            continue;
        }
        if (m_Kind == AVMEDIA_TYPE_VIDEO && packet->duration == 0) {
            // Else the last picture would have no length.
            packet->duration = m_bUneven ? av_rescale_q(1, av_inv_q(codec.framerate), codec.time_base) : 1;
        }
        av_packet_rescale_ts(packet.get(), codec.time_base, m_pStream->time_base);
        packet->stream_index = m_pStream->index;
        Check(av_interleaved_write_frame(m_Format.get(), packet.get()), kOutput, m_Wish.path);
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
    OpenPart(target);
    std::ofstream file(m_Part, std::ios::binary);
    file.write(reinterpret_cast<const char*>(packet.data), packet.size);
    file.close();
    FailIf(!file, kOutput, "{}: it cannot be written whole", target);
    Stand(target);
}

void Output::WritePassed(AVPacket& packet)
{
    Copied& copied = m_Copied.at(packet.stream_index);
    AVStream& to = *copied.pTo;
    if ((to.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0) {
        packet.pts = packet.dts = 0; // covers have no time
    }
    FailIf(packet.pts == AV_NOPTS_VALUE, kOutput,
           "the input does not say when each {} packet is shown, so that "
           "it cannot be copied: leave it out with --pass none",
           avcodec_get_name(to.codecpar->codec_id));
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
}

} // namespace tool
