#include "graph.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

namespace common
{

namespace
{

// A source's argument text. The longest that the formats below can give is under 200 characters.
struct SourceArgs {
    char szText[260];
};

// A number that is no sample format has no name. The text in its place must be one that the source
// refuses; an empty one would be read as format 0.
const char* SampleFormatName(int nSampleFormat)
{
    const char* szName = av_get_sample_fmt_name(static_cast<AVSampleFormat>(nSampleFormat));
    return szName != nullptr ? szName : "unknown";
}

SourceArgs Arguments(const AVFILTER_AUDIO_INFO& st_Info, bool bTimeBase)
{
    AVChannelLayout st_Layout{};
    char szLayout[64] = "";
    av_channel_layout_default(&st_Layout, st_Info.nChannels);
    av_channel_layout_describe(&st_Layout, szLayout, sizeof(szLayout));
    char szTimeBase[32] = "";
    if (bTimeBase) {
        static_cast<void>(
            std::snprintf(szTimeBase, sizeof(szTimeBase), "time_base=1/%d:", st_Info.nSampleRate));
    }
    SourceArgs args{};
    static_cast<void>(
        std::snprintf(args.szText, sizeof(args.szText), "%ssample_rate=%d:sample_fmt=%s:channel_layout=%s",
                      szTimeBase, st_Info.nSampleRate, SampleFormatName(st_Info.nSampleFormat), szLayout));
    return args;
}

SourceArgs Arguments(const AVFILTER_VIDEO_INFO& st_Info)
{
    SourceArgs args{};
    static_cast<void>(std::snprintf(
        args.szText, sizeof(args.szText), "video_size=%dx%d:pix_fmt=%d:time_base=1/%d:pixel_aspect=0/1",
        st_Info.nWidth, st_Info.nHeight, st_Info.nPixelFormat, st_Info.nTimeBase));
    return args;
}

bool CreateFilter(AVFilterGraph* pSt_Graph, const char* szFilter, const End& end, const char* szArgs)
{
    return avfilter_graph_create_filter(end.ppSt_Filter, avfilter_get_by_name(szFilter), end.szLabel,
                                        szArgs, nullptr, pSt_Graph) >= 0;
}

// Fills the list entry that offers the end under its label, and makes it if there is none. False if there
// is no memory for it.
bool Offer(const End& end)
{
    AVFilterInOut*& pSt_Entry = *end.ppSt_Entry;
    if (pSt_Entry == nullptr) {
        pSt_Entry = avfilter_inout_alloc();
    }
    if (pSt_Entry == nullptr) {
        return false;
    }
    pSt_Entry->name = av_strdup(end.szLabel);
    pSt_Entry->filter_ctx = *end.ppSt_Filter;
    return true;
}

} // namespace

bool IsTerminated(const char (&szName)[64])
{
    return std::memchr(szName, '\0', sizeof(szName)) != nullptr;
}

AVFilterGraph* NewGraph()
{
    AVFilterGraph* pSt_Graph = avfilter_graph_alloc();
    if (pSt_Graph != nullptr) {
        // FFmpeg's default starts a pool of slice threads per graph with its first filter.
        pSt_Graph->nb_threads = 1;
    }
    return pSt_Graph;
}

api::ErrorCode Build(const Family& family, AVFilterGraph* pSt_Graph, std::span<const End> sources,
                     const End& sink, const char* szFilterDescr)
{
    const bool bMix = *sink.ppSt_Entry == nullptr;
    for (const End& source : sources) {
        if (source.szLabel == nullptr) {
            return family.nInvalidParam;
        }
        const auto* ppAudio = std::get_if<const AVFILTER_AUDIO_INFO*>(&source.stream);
        // A single audio stream is given no time base: FFmpeg's default applies.
        const SourceArgs args = ppAudio != nullptr
                                    ? Arguments(**ppAudio, bMix)
                                    : Arguments(*std::get<const AVFILTER_VIDEO_INFO*>(source.stream));
        if (!CreateFilter(pSt_Graph, family.szSource, source, args.szText)) {
            return family.nCreateSource;
        }
        if (bMix && !Offer(source)) {
            return family.nAlloc;
        }
    }
    if (!CreateFilter(pSt_Graph, family.szSink, sink, nullptr)) {
        return family.nCreateSink;
    }
    if (!bMix) {
        Offer(sources.front());
    }
    // From here on the entries are one list, which the first source heads: the parser takes entries out of
    // it and frees them, so the other sources let go of theirs.
    for (std::size_t k = sources.size() - 1; k > 0; --k) {
        (*sources[k - 1].ppSt_Entry)->next = std::exchange(*sources[k].ppSt_Entry, nullptr);
    }
    if (!Offer(sink)) {
        return family.nAlloc;
    }
    if (szFilterDescr == nullptr) {
        return family.nInvalidParam;
    }
    // FFmpeg's "inputs" are the ends that still want an input: the sink.
    if (avfilter_graph_parse_ptr(pSt_Graph, szFilterDescr, sink.ppSt_Entry, sources.front().ppSt_Entry,
                                 nullptr) < 0) {
        return family.nParseGraph;
    }
    return avfilter_graph_config(pSt_Graph, nullptr) < 0 ? family.nConfigGraph : api::kNoError;
}

bool InBounds(const AVFrame& st_Frame, const std::uint8_t* p, std::size_t n, int nRows,
              std::ptrdiff_t nStride)
{
    for (const AVBufferRef* pSt_Buffer : st_Frame.buf) {
        if (pSt_Buffer == nullptr) {
            break;
        }
        const std::uint8_t* pEnd = pSt_Buffer->data + pSt_Buffer->size;
        if (p < pSt_Buffer->data || p >= pEnd) {
            continue;
        }
        const std::ptrdiff_t nFirstRow = p - pSt_Buffer->data;
        const std::ptrdiff_t nLastRow = nFirstRow + (nRows - 1) * nStride;
        const auto nSize = static_cast<std::ptrdiff_t>(pSt_Buffer->size);
        return std::min(nFirstRow, nLastRow) >= 0 &&
               static_cast<std::ptrdiff_t>(n) <= nSize - std::max(nFirstRow, nLastRow);
    }
    return true;
}

} // namespace common
