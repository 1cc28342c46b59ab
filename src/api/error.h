// The process-wide error report.
//
// The flag and the code are plain exported globals, so their type is fixed; every access of the
// library goes through std::atomic_ref, which compiles to the same plain loads and stores and makes
// concurrent calls overwrite each other's report without a data race.
#pragma once

#include "Telvane_AVFilter.h"

#include <atomic>

namespace api
{

using ErrorCode = unsigned long long;
inline constexpr ErrorCode kNoError = 0;

// Every method calls this first.
inline void ClearError()
{
    // Storing only on change keeps the cache line shared between threads whose calls succeed.
    const std::atomic_ref<bool> flag(AVFilter_IsErrorOccur);
    if (flag.load(std::memory_order_relaxed)) {
        flag.store(false, std::memory_order_relaxed);
    }
}

// Stores a failure's code without raising the flag, as four sites of the audio family do: callers there
// tell these failures by the returned value alone.
inline bool FailWithoutFlag(ErrorCode code)
{
    std::atomic_ref(AVFilter_dwErrorCode).store(code, std::memory_order_relaxed);
    return false;
}

// Reports a failure and returns false, for `return Fail(...)`.
inline bool Fail(ErrorCode code)
{
    FailWithoutFlag(code);
    std::atomic_ref(AVFilter_IsErrorOccur).store(true, std::memory_order_relaxed);
    return false;
}

} // namespace api
