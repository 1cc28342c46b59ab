#include "handle.h"

#include <atomic>

// Values are given out in ascending order and start again at nLower after nUpper, so a value comes
// back only after every other value within the bounds has been given: 8,000,000,001 of them with the
// bounds that libTelvane_AVFilter uses. A handle would have to outlive that many creations to meet
// its own value again; making that many of the cheapest handles, one after the other and doing
// nothing else, takes one thread some twenty minutes (147 ns each), that many graphs four days (48 us).
bool BaseLib_OperatorHandle_Create(unsigned long long* phHandle, unsigned long long nLower,
                                   unsigned long long nUpper, int /*nOption*/)
{
    static std::atomic<unsigned long long> nGiven{0};

    if (phHandle == nullptr || nUpper < nLower) {
        return false;
    }
    const unsigned long long nLast = nUpper - nLower;
    const unsigned long long nStep = nGiven.fetch_add(1, std::memory_order_relaxed);
    *phHandle = nLower + (nLast == ~0ULL ? nStep : nStep % (nLast + 1));
    return true;
}
