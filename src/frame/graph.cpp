#include "graph.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace frame
{

namespace
{

struct ChannelLayoutText {
    char szText[64];
};

ChannelLayoutText DefaultLayoutText(int nChannels)
{
    ChannelLayoutText st_Text{};
    AVChannelLayout st_Layout{};
    av_channel_layout_default(&st_Layout, nChannels);
    av_channel_layout_describe(&st_Layout, st_Text.szText, sizeof(st_Text.szText));
    return st_Text;
}

// A number that is no sample format has no name. The text in its place must be one that the source
// refuses; an empty one would be read as format 0.
const char* SampleFormatName(int nSampleFormat)
{
    const char* szName = av_get_sample_fmt_name(static_cast<AVSampleFormat>(nSampleFormat));
    return szName != nullptr ? szName : "unknown";
}

} // namespace

SourceArgs SingleSourceArgs(const AVFILTER_AUDIO_INFO& st_Info)
{
    SourceArgs args{};
    const ChannelLayoutText layout = DefaultLayoutText(st_Info.nChannels);
    static_cast<void>(std::snprintf(args.szText, sizeof(args.szText),
                                    "sample_rate=%d:sample_fmt=%s:channel_layout=%s", st_Info.nSampleRate,
                                    SampleFormatName(st_Info.nSampleFormat), layout.szText));
    return args;
}

SourceArgs MixSourceArgs(const AVFILTER_AUDIO_INFO& st_Info)
{
    SourceArgs args{};
    const ChannelLayoutText layout = DefaultLayoutText(st_Info.nChannels);
    static_cast<void>(std::snprintf(
        args.szText, sizeof(args.szText), "time_base=1/%d:sample_rate=%d:sample_fmt=%s:channel_layout=%s",
        st_Info.nSampleRate, st_Info.nSampleRate, SampleFormatName(st_Info.nSampleFormat), layout.szText));
    return args;
}

SourceArgs MixSourceArgs(const AVFILTER_VIDEO_INFO& st_Info)
{
    SourceArgs args{};
    static_cast<void>(std::snprintf(
        args.szText, sizeof(args.szText), "video_size=%dx%d:pix_fmt=%d:time_base=1/%d:pixel_aspect=0/1",
        st_Info.nWidth, st_Info.nHeight, st_Info.nPixelFormat, st_Info.nTimeBase));
    return args;
}

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

void SetEntry(AVFilterInOut& st_Entry, const char* szLabel, AVFilterContext* pSt_Filter)
{
    st_Entry.name = av_strdup(szLabel);
    st_Entry.filter_ctx = pSt_Filter;
    st_Entry.pad_idx = 0;
    st_Entry.next = nullptr;
}

ErrorCode LinkAndConfigure(const Family& family, AVFilterGraph* pSt_Graph, const char* szFilterDescr,
                           AVFilterInOut** ppSt_SinkList, AVFilterInOut** ppSt_SourceList)
{
    if (szFilterDescr == nullptr) {
        return family.nInvalidParam;
    }
    // FFmpeg's "inputs" are the ends that still want an input: the sink.
    if (avfilter_graph_parse_ptr(pSt_Graph, szFilterDescr, ppSt_SinkList, ppSt_SourceList, nullptr) < 0) {
        return family.nParseGraph;
    }
    return avfilter_graph_config(pSt_Graph, nullptr) < 0 ? family.nConfigGraph : kNoError;
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

} // namespace frame
