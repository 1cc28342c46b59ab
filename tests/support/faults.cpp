#include "faults.h"

#include "../../src/frame/ffmpeg.h"
#include "../../src/frame/handle.h"
#include "Telvane_AVFilter.h"

#include <cerrno>
#include <dlfcn.h>
#include <map>
#include <utility>

namespace
{

struct State {
    std::map<std::string, int> mapCountdown;
    std::vector<std::string> vec_Log;
    unsigned long long hNext = 0;
    double nProbability = 0;
    unsigned nRandom = 0;
    int nFailed = 0;
};

State& TheState()
{
    static State st_State;
    return st_State;
}

bool IsFromLibrary(void* pCaller)
{
    Dl_info st_Caller{};
    static const void* const pLibrary = [] {
        Dl_info st_Library{};
        dladdr(reinterpret_cast<void*>(&AVFilter_GetLastError), &st_Library);
        return st_Library.dli_fbase;
    }();
    return dladdr(pCaller, &st_Caller) != 0 && st_Caller.dli_fbase == pLibrary;
}

// Whether this call is to fail.
bool Enter(const char* szFunction, void* pCaller)
{
    if (!IsFromLibrary(pCaller)) {
        return false;
    }
    State& st_State = TheState();
    st_State.vec_Log.emplace_back(szFunction);
    bool bFail = false;
    if (st_State.nProbability > 0) {
        st_State.nRandom = st_State.nRandom * 1664525U + 1013904223U;
        bFail = st_State.nRandom < st_State.nProbability * 4294967296.0;
    }
    const auto it = st_State.mapCountdown.find(szFunction);
    if (it != st_State.mapCountdown.end() && --it->second == 0) {
        st_State.mapCountdown.erase(it);
        bFail = true;
    }
    st_State.nFailed += bFail ? 1 : 0;
    return bFail;
}

} // namespace

// One override: its declaration, how it fails, and the arguments to pass on. It has FFmpeg's name for the
// linker alone, so that it need not repeat FFmpeg's declaration to the letter.
#define OVERRIDE(result, name, parameters, arguments, failure)                                             \
    auto Override_##name parameters->result __asm__(#name);                                                \
    auto Override_##name parameters->result                                                                \
    {                                                                                                      \
        static const auto real = reinterpret_cast<decltype(&(name))>(dlsym(RTLD_NEXT, #name));             \
        if (Enter(#name, __builtin_return_address(0))) {                                                   \
            return (failure);                                                                              \
        }                                                                                                  \
        return real arguments;                                                                             \
    }

OVERRIDE(AVFilterGraph*, avfilter_graph_alloc, (), (), nullptr)
OVERRIDE(AVFilterInOut*, avfilter_inout_alloc, (), (), nullptr)
OVERRIDE(const AVFilter*, avfilter_get_by_name, (const char* a), (a), nullptr)
OVERRIDE(int, avfilter_graph_create_filter,
         (AVFilterContext * *a, const AVFilter* b, const char* c, const char* d, void* e, AVFilterGraph* f),
         (a, b, c, d, e, f), AVERROR(ENOMEM))
OVERRIDE(int, avfilter_graph_parse_ptr,
         (AVFilterGraph * a, const char* b, AVFilterInOut** c, AVFilterInOut** d, void* e), (a, b, c, d, e),
         AVERROR(ENOMEM))
OVERRIDE(int, avfilter_graph_config, (AVFilterGraph * a, void* b), (a, b), AVERROR(ENOMEM))
OVERRIDE(int, av_buffersrc_add_frame, (AVFilterContext * a, AVFrame* b), (a, b), AVERROR(ENOMEM))
OVERRIDE(int, av_buffersink_get_frame, (AVFilterContext * a, AVFrame* b), (a, b), AVERROR(ENOMEM))
OVERRIDE(AVFrame*, av_frame_alloc, (), (), nullptr)
OVERRIDE(int, av_frame_get_buffer, (AVFrame * a, int b), (a, b), AVERROR(ENOMEM))
OVERRIDE(char*, av_strdup, (const char* a), (a), nullptr)
OVERRIDE(void*, av_malloc, (size_t a), (a), nullptr)
OVERRIDE(int, av_image_alloc, (uint8_t * a[4], int b[4], int c, int d, enum AVPixelFormat e, int f),
         (a, b, c, d, e, f), AVERROR(ENOMEM))
OVERRIDE(int, av_image_fill_arrays,
         (uint8_t * a[4], int b[4], const uint8_t* c, enum AVPixelFormat d, int e, int f, int g),
         (a, b, c, d, e, f, g), AVERROR(EINVAL))
OVERRIDE(int, av_image_get_buffer_size, (enum AVPixelFormat a, int b, int c, int d), (a, b, c, d),
         AVERROR(EINVAL))
OVERRIDE(int, av_channel_layout_describe, (const AVChannelLayout* a, char* b, size_t c), (a, b, c),
         AVERROR(EINVAL))
OVERRIDE(const char*, av_get_sample_fmt_name, (enum AVSampleFormat a), (a), nullptr)
OVERRIDE(int, av_samples_get_buffer_size, (int* a, int b, int c, enum AVSampleFormat d, int e),
         (a, b, c, d, e), AVERROR(EINVAL))
OVERRIDE(SwsContext*, sws_getContext,
         (int a, int b, enum AVPixelFormat c, int d, int e, enum AVPixelFormat f, int g, SwsFilter* h,
          SwsFilter* i, const double* j),
         (a, b, c, d, e, f, g, h, i, j), nullptr)
OVERRIDE(int, sws_scale,
         (SwsContext * a, const uint8_t* const b[], const int c[], int d, int e, uint8_t* const f[],
          const int g[]),
         (a, b, c, d, e, f, g), 0)

extern "C" bool BaseLib_OperatorHandle_Create(unsigned long long* phHandle, unsigned long long nLower,
                                              unsigned long long nUpper, int nOption)
{
    static const auto real = reinterpret_cast<decltype(&BaseLib_OperatorHandle_Create)>(
        dlsym(RTLD_NEXT, "BaseLib_OperatorHandle_Create"));
    State& st_State = TheState();
    st_State.vec_Log.emplace_back("BaseLib_OperatorHandle_Create");
    if (st_State.hNext != 0) {
        *phHandle = std::exchange(st_State.hNext, 0ULL);
        return true;
    }
    return real(phHandle, nLower, nUpper, nOption);
}

namespace faults
{

void Fail(const std::string& szFunction, int nth)
{
    TheState().mapCountdown[szFunction] = nth;
}

void FailAtRandom(double nProbability, unsigned nSeed)
{
    TheState().nProbability = nProbability;
    TheState().nRandom = nSeed;
}

void NextHandle(unsigned long long hHandle)
{
    TheState().hNext = hHandle;
}

void Reset()
{
    TheState() = State{};
}

std::vector<std::string> Log()
{
    return TheState().vec_Log;
}

int Failed()
{
    return TheState().nFailed;
}

} // namespace faults
