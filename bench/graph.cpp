#include "graph.h"

#include "job.h"

#include <cstdio>
#include <cstdlib>

namespace bench
{

void Require(bool bCondition, const char* szWhat)
{
    if (!bCondition) {
        static_cast<void>(std::fprintf(stderr, "failed: %s\n", szWhat));
        std::abort();
    }
}

namespace
{

AVFilterInOut* NewEntry(const std::string& szLabel, AVFilterContext* pSt_Filter, AVFilterInOut* pSt_Next)
{
    AVFilterInOut* pSt_Entry = avfilter_inout_alloc();
    Require(pSt_Entry != nullptr, "avfilter_inout_alloc");
    pSt_Entry->name = av_strdup(szLabel.c_str());
    pSt_Entry->filter_ctx = pSt_Filter;
    pSt_Entry->next = pSt_Next;
    return pSt_Entry;
}

} // namespace

Frame NewFrame()
{
    Frame frame(av_frame_alloc());
    Require(frame != nullptr, "av_frame_alloc");
    return frame;
}

Graph::Graph(bool bAudio, const std::vector<GraphSource>& vec_Wanted, const std::string& szDescr,
             int nThreads)
    : pGraph(avfilter_graph_alloc())
{
    Require(pGraph != nullptr, "avfilter_graph_alloc");
    pGraph->nb_threads = nThreads;
    for (const GraphSource& source : vec_Wanted) {
        AVFilterContext* pSt_Source = nullptr;
        Require(avfilter_graph_create_filter(
                    &pSt_Source, avfilter_get_by_name(bAudio ? "abuffer" : "buffer"),
                    source.szLabel.c_str(), source.szArgs.c_str(), nullptr, pGraph.get()) >= 0,
                source.szArgs.c_str());
        vec_Sources.push_back(pSt_Source);
    }
    Require(avfilter_graph_create_filter(&pSt_Sink,
                                         avfilter_get_by_name(bAudio ? "abuffersink" : "buffersink"), "out",
                                         nullptr, nullptr, pGraph.get()) >= 0,
            "sink");
    AVFilterInOut* pSt_SourceList = nullptr;
    for (std::size_t i = vec_Wanted.size(); i-- > 0;) {
        pSt_SourceList = NewEntry(vec_Wanted[i].szLabel, vec_Sources[i], pSt_SourceList);
    }
    AVFilterInOut* pSt_SinkList = NewEntry("out", pSt_Sink, nullptr);
    Require(avfilter_graph_parse_ptr(pGraph.get(), szDescr.c_str(), &pSt_SinkList, &pSt_SourceList,
                                     nullptr) >= 0 &&
                avfilter_graph_config(pGraph.get(), nullptr) >= 0,
            szDescr.c_str());
    avfilter_inout_free(&pSt_SinkList);
    avfilter_inout_free(&pSt_SourceList);
}

AVBufferRef* Wrap(unsigned char* pData, std::size_t nSize)
{
    return av_buffer_create(
        pData, nSize, [](void*, std::uint8_t*) {}, nullptr, AV_BUFFER_FLAG_READONLY);
}

std::string Text(const Size& size)
{
    std::string szText = std::to_string(size.nWidth);
    szText += 'x';
    return szText += std::to_string(size.nHeight);
}

std::string Label(int nInputId)
{
    return std::string(1, 'i') += std::to_string(nInputId);
}

void FillNoise(Buffer& buffer)
{
    std::uint32_t nState = 1;
    for (std::size_t i = 0; i < buffer.Size(); ++i) {
        nState = nState * 1664525U + 1013904223U;
        buffer.Data()[i] = static_cast<unsigned char>(nState >> 24U);
    }
}

} // namespace bench
