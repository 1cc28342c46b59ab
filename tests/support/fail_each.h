// Lets every FFmpeg call that a call of the library makes fail, one at a time.
#pragma once

#include "faults.h"
#include "support.h"

#include <algorithm>
#include <string>
#include <vector>

namespace test
{

inline constexpr unsigned long long kSucceeds = 0;

// One FFmpeg call, and how the library's call ends if it fails.
struct Site {
    const char* szFunction;
    unsigned long long nCode;
};

// Expects that a clean call makes exactly the calls of the table, in this order, with szLast behind them if
// that is not null. Then lets each fail and hands the code, the result and the site ("av_malloc 2") on.
template <class Call, class Check>
void FailEach(const std::vector<Site>& vec_Sites, const char* szLast, const Call& call, const Check& check)
{
    std::vector<std::string> vec_Expected;
    vec_Expected.reserve(vec_Sites.size() + 1);
    for (const Site& site : vec_Sites) {
        vec_Expected.emplace_back(site.szFunction);
    }
    if (szLast != nullptr) {
        vec_Expected.emplace_back(szLast);
    }
    faults::Reset();
    const bool bClean = call();
    EXPECT_EQ(faults::Log(), vec_Expected);
    check(kSucceeds, bClean, std::string());
    for (auto site = vec_Sites.begin(); site != vec_Sites.end(); ++site) {
        const auto nth = 1 + std::count_if(vec_Sites.begin(), site, [&](const Site& other) {
                             return std::string(other.szFunction) == site->szFunction;
                         });
        const std::string szSite = std::string(site->szFunction) + " " + std::to_string(nth);
        SCOPED_TRACE(szSite);
        faults::Reset();
        faults::Fail(site->szFunction, static_cast<int>(nth));
        const bool bDone = call();
        EXPECT_EQ(faults::Failed(), 1);
        faults::Reset();
        if (site->nCode != kSucceeds) {
            ExpectFailure(bDone, site->nCode);
        }
        check(site->nCode, bDone, szSite);
    }
}

} // namespace test
