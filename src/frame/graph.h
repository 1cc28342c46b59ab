// Building a filter graph: what audio and video, single-stream and mixing graphs have in common.
//
// The functions that build return kNoError or the code to report. None of them frees anything: what
// becomes of a partly built graph is the family's matter.
#pragma once

#include "error.h"
#include "ffmpeg.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace frame
{

// What a family calls its filters and its failures.
struct Family {
    const char* szSource;
    const char* szSink;
    ErrorCode nInvalidParam;
    ErrorCode nAlloc;
    ErrorCode nCreateSource;
    ErrorCode nCreateSink;
    ErrorCode nParseGraph;
    ErrorCode nConfigGraph;
};

inline constexpr Family kAudio{"abuffer",
                               "abuffersink",
                               AVFILTER_ERROR_AUDIO_INVALID_PARAM,
                               AVFILTER_ERROR_AUDIO_ALLOC,
                               AVFILTER_ERROR_AUDIO_CREATE_FILTER,
                               AVFILTER_ERROR_AUDIO_CREATE_FILTER,
                               AVFILTER_ERROR_AUDIO_PARSE_GRAPH,
                               AVFILTER_ERROR_AUDIO_CONFIG_GRAPH};

inline constexpr Family kVideo{"buffer",
                               "buffersink",
                               AVFILTER_ERROR_VIDEO_INVALID_PARAM,
                               AVFILTER_ERROR_VIDEO_ALLOC,
                               AVFILTER_ERROR_VIDEO_CREATE_SOURCE,
                               AVFILTER_ERROR_VIDEO_CREATE_SINK,
                               AVFILTER_ERROR_VIDEO_PARSE_GRAPH,
                               AVFILTER_ERROR_VIDEO_CONFIG_GRAPH};

// A source's argument text. The longest that the formats below can give is under 200 characters.
struct SourceArgs {
    char szText[260];
};
// A single audio stream is given no time base (FFmpeg's default applies), a mix's inputs are.
SourceArgs SingleSourceArgs(const AVFILTER_AUDIO_INFO& st_Info);
SourceArgs MixSourceArgs(const AVFILTER_AUDIO_INFO& st_Info);
SourceArgs MixSourceArgs(const AVFILTER_VIDEO_INFO& st_Info); // single streams too

// Whether the text ends within its field.
bool IsTerminated(const char (&szName)[64]);

// A graph whose filters work on the calling thread alone. Null if there is no memory.
AVFilterGraph* NewGraph();

// Fills the list entry that offers pad 0 of a filter under a label.
void SetEntry(AVFilterInOut& st_Entry, const char* szLabel, AVFilterContext* pSt_Filter);

// Links the graph's open ends with the description and configures the result. The lists are passed by
// the address of the record's own fields, which keep what the parser leaves.
ErrorCode LinkAndConfigure(const Family& family, AVFilterGraph* pSt_Graph, const char* szFilterDescr,
                           AVFilterInOut** ppSt_SinkList, AVFilterInOut** ppSt_SourceList);

// Builds "in" -> description -> "out" in the record's graph. Both list entries exist already.
template <class Record>
ErrorCode BuildSingle(const Family& family, Record& record, const SourceArgs& args,
                      const char* szFilterDescr)
{
    if (avfilter_graph_create_filter(&record.pSt_BufferSrcCtx, avfilter_get_by_name(family.szSource), "in",
                                     args.szText, nullptr, record.pSt_FilterGraph) < 0) {
        return family.nCreateSource;
    }
    if (avfilter_graph_create_filter(&record.pSt_BufferSinkCtx, avfilter_get_by_name(family.szSink), "out",
                                     nullptr, nullptr, record.pSt_FilterGraph) < 0) {
        return family.nCreateSink;
    }
    SetEntry(*record.pSt_Outputs, "in", record.pSt_BufferSrcCtx);
    SetEntry(*record.pSt_Inputs, "out", record.pSt_BufferSinkCtx);
    return LinkAndConfigure(family, record.pSt_FilterGraph, szFilterDescr, &record.pSt_Inputs,
                            &record.pSt_Outputs);
}

// Builds a mix in pSt_Graph: one source per caller record, the sink, and the description between them.
// Template parameters: the family's input element and the public record that the element copies.
template <class Element, class Info>
ErrorCode BuildMix(const Family& family, AVFilterGraph* pSt_Graph, std::vector<Element>& vec_Inputs,
                   Info Element::*pst_InfoCopy, Info*** pppInfo, int nInputCount, const char* szOutName,
                   const char* szFilterDescr, AVFilterContext** ppSt_Sink, AVFilterInOut** ppSt_SinkList)
{
    for (int i = 0; i < nInputCount; ++i) {
        const Info* pInfo = pppInfo != nullptr && *pppInfo != nullptr ? (*pppInfo)[i] : nullptr;
        if (pInfo == nullptr || !IsTerminated(pInfo->szName)) {
            return family.nInvalidParam;
        }
        // Before the call below: the order in which a call's arguments are evaluated is the compiler's.
        const SourceArgs args = MixSourceArgs(*pInfo);
        // In the vector first, so that nothing is lost if that throws.
        Element& st_Input = vec_Inputs.emplace_back();
        if (avfilter_graph_create_filter(&st_Input.pSt_BufferSrcCtx, avfilter_get_by_name(family.szSource),
                                         pInfo->szName, args.szText, nullptr, pSt_Graph) < 0) {
            return family.nCreateSource;
        }
        st_Input.pSt_Outputs = avfilter_inout_alloc();
        if (st_Input.pSt_Outputs == nullptr) {
            return family.nAlloc;
        }
        SetEntry(*st_Input.pSt_Outputs, pInfo->szName, st_Input.pSt_BufferSrcCtx);
        st_Input.*pst_InfoCopy = *pInfo;
    }

    if (avfilter_graph_create_filter(ppSt_Sink, avfilter_get_by_name(family.szSink), szOutName, nullptr,
                                     nullptr, pSt_Graph) < 0) {
        return family.nCreateSink;
    }
    // From here on the entries are one list, which the first input heads: the parser takes entries
    // out of it and frees them, so the other inputs let go of theirs.
    for (std::size_t k = vec_Inputs.size() - 1; k > 0; --k) {
        vec_Inputs[k - 1].pSt_Outputs->next = vec_Inputs[k].pSt_Outputs;
        vec_Inputs[k].pSt_Outputs = nullptr;
    }
    *ppSt_SinkList = avfilter_inout_alloc();
    if (*ppSt_SinkList == nullptr) {
        return family.nAlloc;
    }
    SetEntry(**ppSt_SinkList, szOutName, *ppSt_Sink);
    return LinkAndConfigure(family, pSt_Graph, szFilterDescr, ppSt_SinkList,
                            &vec_Inputs.front().pSt_Outputs);
}

// The first input with this id, in the order of creation. Ids need not be unique.
template <class Element, class Info>
Element* FindInput(std::vector<Element>& vec_Inputs, const Info Element::*pst_InfoCopy, int nInputId)
{
    for (Element& st_Input : vec_Inputs) {
        if ((st_Input.*pst_InfoCopy).nInputId == nInputId) {
            return &st_Input;
        }
    }
    return nullptr;
}

// Frees the list entries that a mix still holds.
template <class Element>
void FreeMixEntries(std::vector<Element>& vec_Inputs, AVFilterInOut** ppSt_SinkList)
{
    avfilter_inout_free(ppSt_SinkList);
    for (Element& st_Input : vec_Inputs) {
        avfilter_inout_free(&st_Input.pSt_Outputs);
    }
}

// Whether nRows rows of n bytes, the first at p, are the frame's to read or write. A negative stride
// goes up in memory. Planes that lie outside all of the frame's own buffers (a caller's block handed in
// as a whole) cannot be checked and are taken on trust.
bool InBounds(const AVFrame& st_Frame, const std::uint8_t* p, std::size_t n, int nRows = 1,
              std::ptrdiff_t nStride = 0);

} // namespace frame
