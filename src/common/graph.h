// Building a filter graph: what audio and video, single-stream and mixing graphs have in common.
//
// The functions that build return api::kNoError or the code to report. None of them frees anything: what
// becomes of a partly built graph is the family's matter.
#pragma once

#include "api/error.h"
#include "ffmpeg.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <variant>
#include <vector>

namespace common
{

// What a family calls its filters and its failures.
struct Family {
    const char* szSource;
    const char* szSink;
    api::ErrorCode nInvalidParam;
    api::ErrorCode nAlloc;
    api::ErrorCode nCreateSource;
    api::ErrorCode nCreateSink;
    api::ErrorCode nParseGraph;
    api::ErrorCode nConfigGraph;
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

// One end of a graph, and where its filter and its list entry are kept.
struct End {
    const char* szLabel; // a source without one is refused as a parameter
    AVFilterContext** ppSt_Filter;
    AVFilterInOut** ppSt_Entry;
    // A source's stream.
    std::variant<std::monostate, const AVFILTER_AUDIO_INFO*, const AVFILTER_VIDEO_INFO*> stream;
};

// A graph whose filters work on the calling thread alone. Null if there is no memory.
AVFilterGraph* NewGraph();

// Builds sources -> description -> sink in the graph and configures it. A single stream's two list entries
// exist already; a mix's are made here. The entries keep what the parser leaves.
api::ErrorCode Build(const Family& family, AVFilterGraph* pSt_Graph, std::span<const End> sources,
                     const End& sink, const char* szFilterDescr);

// Whether the text ends within its field.
bool IsTerminated(const char (&szName)[64]);

// A mix's sources, over inputs that are filled from the caller's records up to the first that is missing
// or has a name without end. That one is refused when its turn comes.
template <class Element, class Info>
std::vector<End> MixSources(std::vector<Element>& vec_Inputs, Info Element::*pst_InfoCopy, Info*** pppInfo,
                            int nInputCount)
{
    for (int i = 0; i < nInputCount; ++i) {
        const Info* pInfo = pppInfo != nullptr && *pppInfo != nullptr ? (*pppInfo)[i] : nullptr;
        if (pInfo == nullptr || !IsTerminated(pInfo->szName)) {
            break;
        }
        vec_Inputs.emplace_back().*pst_InfoCopy = *pInfo;
    }
    std::vector<End> sources;
    for (Element& st_Input : vec_Inputs) {
        const Info& st_Info = st_Input.*pst_InfoCopy;
        sources.push_back({st_Info.szName, &st_Input.pSt_BufferSrcCtx, &st_Input.pSt_Outputs, &st_Info});
    }
    if (sources.size() < static_cast<std::size_t>(nInputCount)) {
        sources.emplace_back();
    }
    return sources;
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

} // namespace common
