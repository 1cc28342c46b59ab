#include "faults.h"

#include "../../src/common/ffmpeg.h"
#include "../../src/common/handle.h"
#include "Telvane_AVFilter.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <mutex>
#include <new>
#include <utility>

namespace
{

// What runs within a call may call the library on threads of its own.
std::mutex g_Mutex;

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

// Whose own memory is there.
void Log(const char* szCall)
{
    const int nFailNew = std::exchange(faults::s_nFailNew, 0);
    faults::s_Log.emplace_back(szCall);
    faults::s_nFailNew = nFailNew;
}

// Whether this call is to fail.
bool Enter(const char* szFunction, void* pCaller)
{
    if (!IsFromLibrary(pCaller)) {
        return false;
    }
    std::unique_lock lock(g_Mutex);
    Log(szFunction);
    if (faults::s_Within != nullptr && faults::s_szWithin == szFunction) {
        const auto within = std::exchange(faults::s_Within, nullptr);
        lock.unlock();
        within();
        lock.lock();
    }
    const bool bFail = (faults::s_szFail.empty() || faults::s_szFail == szFunction) &&
                       faults::s_nFail > 0 && --faults::s_nFail == 0;
    faults::s_nFailed += bFail ? 1 : 0;
    return bFail;
}

} // namespace

void faults::Reset()
{
    s_nFail = s_nFailNew = s_nFailed = 0;
    s_Within = nullptr;
    s_hNext = 0;
    s_Log.clear();
}

// One override: its declaration, how it fails, and the arguments to pass on. It has FFmpeg's name for the
// linker alone, so that it need not repeat FFmpeg's declaration to the letter.
#define OVERRIDE(name, parameters, arguments, failure)                                                     \
    auto Override_##name parameters->decltype(name arguments) __asm__(#name);                              \
    auto Override_##name parameters->decltype(name arguments)                                              \
    {                                                                                                      \
        static const auto real = reinterpret_cast<decltype(&(name))>(dlsym(RTLD_NEXT, #name));             \
        if (Enter(#name, __builtin_return_address(0))) {                                                   \
            return (failure);                                                                              \
        }                                                                                                  \
        return real arguments;                                                                             \
    }

OVERRIDE(avfilter_graph_alloc, (), (), nullptr)
OVERRIDE(avfilter_inout_alloc, (), (), nullptr)
OVERRIDE(avfilter_get_by_name, (const char* a), (a), nullptr)
OVERRIDE(avfilter_graph_create_filter,
         (AVFilterContext * *a, const AVFilter* b, const char* c, const char* d, void* e, AVFilterGraph* f),
         (a, b, c, d, e, f), -1)
OVERRIDE(avfilter_graph_parse_ptr,
         (AVFilterGraph * a, const char* b, AVFilterInOut** c, AVFilterInOut** d, void* e), (a, b, c, d, e),
         -1)
OVERRIDE(avfilter_graph_config, (AVFilterGraph * a, void* b), (a, b), -1)
OVERRIDE(av_buffersrc_add_frame, (AVFilterContext * a, AVFrame* b), (a, b), -1)
OVERRIDE(av_buffersink_get_frame, (AVFilterContext * a, AVFrame* b), (a, b), -1)
OVERRIDE(av_frame_alloc, (), (), nullptr)
OVERRIDE(av_frame_get_buffer, (AVFrame * a, int b), (a, b), -1)
OVERRIDE(av_strdup, (const char* a), (a), nullptr)
OVERRIDE(av_malloc, (size_t a), (a), nullptr)
OVERRIDE(av_image_alloc, (uint8_t * a[4], int b[4], int c, int d, enum AVPixelFormat e, int f),
         (a, b, c, d, e, f), -1)
OVERRIDE(av_image_fill_arrays,
         (uint8_t * a[4], int b[4], const uint8_t* c, enum AVPixelFormat d, int e, int f, int g),
         (a, b, c, d, e, f, g), -1)
OVERRIDE(av_image_get_buffer_size, (enum AVPixelFormat a, int b, int c, int d), (a, b, c, d), -1)
OVERRIDE(av_channel_layout_describe, (const AVChannelLayout* a, char* b, size_t c), (a, b, c), -1)
OVERRIDE(av_get_sample_fmt_name, (enum AVSampleFormat a), (a), nullptr)
OVERRIDE(av_samples_get_buffer_size, (int* a, int b, int c, enum AVSampleFormat d, int e), (a, b, c, d, e),
         -1)
OVERRIDE(sws_getContext,
         (int a, int b, enum AVPixelFormat c, int d, int e, enum AVPixelFormat f, int g, SwsFilter* h,
          SwsFilter* i, const double* j),
         (a, b, c, d, e, f, g, h, i, j), nullptr)
OVERRIDE(sws_scale,
         (SwsContext * a, const uint8_t* const b[], const int c[], int d, int e, uint8_t* const f[],
          const int g[]),
         (a, b, c, d, e, f, g), 0)

extern "C" bool BaseLib_OperatorHandle_Create(unsigned long long* phHandle, unsigned long long nLower,
                                              unsigned long long nUpper, int nOption)
{
    constexpr const char* kName = "BaseLib_OperatorHandle_Create";
    static const auto real =
        reinterpret_cast<decltype(&BaseLib_OperatorHandle_Create)>(dlsym(RTLD_NEXT, kName));
    const std::lock_guard lock(g_Mutex);
    char szCall[128];
    static_cast<void>(
        std::snprintf(szCall, sizeof(szCall), "%s(%llu,%llu,%d)", kName, nLower, nUpper, nOption));
    Log(szCall);
    const bool bDone = real(phHandle, nLower, nUpper, nOption);
    if (faults::s_hNext != 0) {
        *phHandle = std::exchange(faults::s_hNext, 0ULL);
    }
    return bDone;
}

// Where g++ 14 and later see the malloc or the free inlined, they miss the other.
[[gnu::noinline]] void* operator new(std::size_t nSize)
{
    void* const p = faults::s_nFailNew > 0 && --faults::s_nFailNew == 0 ? nullptr : std::malloc(nSize);
    return p != nullptr ? p : throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* p) noexcept
{
    std::free(p); // NOLINT(cppcoreguidelines-no-malloc)
}
void operator delete(void* p, std::size_t /*nSize*/) noexcept
{
    operator delete(p);
}
