// That no call waits without bound for the other calls of its family.

#include "support/jobs.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <future>
#include <thread>
#include <vector>

namespace
{

using jobs::Job;
using jobs::Kind;

constexpr jobs::Size kSmall{64, 48, 480};

// Whether the work comes to its end beside threads that repeat something else. It does in any case once they stop.
template <class Once, class Work>
bool EndsBeside(std::size_t nOthers, const Once& once, const Work& work)
{
    std::atomic<int> nRounds = 0;
    std::future<void> future; // waited for when the others are gone
    std::vector<std::jthread> others;
    for (std::size_t i = 0; i < nOthers; ++i) {
        others.emplace_back([&, i](const std::stop_token& stop) {
            for (; !stop.stop_requested(); ++nRounds) {
                once(i);
            }
        });
    }
    while (nRounds < 20) {
        std::this_thread::yield();
    }
    future = std::async(std::launch::async, work);
    return future.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
}

// One kind of each family.
class Waits : public testing::TestWithParam<std::size_t>
{
  protected:
    const Kind& m_Kind = jobs::kKinds[GetParam()];
};
INSTANTIATE_TEST_SUITE_P(Family, Waits, testing::Values(jobs::kAudioMix, jobs::kVideoMix, jobs::kScaler));

TEST_P(Waits, HandlesComeAndGoWhileOthersConvert)
{
    // All of them before the first conversion starts: creating is what is tested.
    std::deque<Job> others;
    for (unsigned i = 0; i < 4; ++i) {
        others.emplace_back(m_Kind, jobs::Size{640, 360, 24000}, i);
    }
    EXPECT_TRUE(EndsBeside(
        others.size(), [&](std::size_t i) { others[i].Convert(); },
        [&] {
            for (int i = 0; i < 30; ++i) {
                Job(m_Kind, kSmall, 1);
            }
        }));
}

// So many conversions take less than a second beside eight threads; with a lock that only prefers writers
// they do not come to an end in the watchdog's time.
TEST_P(Waits, ConversionsGetThroughWhileHandlesComeAndGo)
{
    Job job(m_Kind, kSmall, 1);
    const auto comeAndGo = [&](std::size_t) {
        Job(m_Kind, kSmall, 1);
        // Graphs are built outside the lock: it would be free most of the time.
        for (int k = 0; k < 1000; ++k) {
            jobs::Demand(m_Kind.Destroy(0), m_Kind.szName);
        }
    };
    EXPECT_TRUE(EndsBeside(8, comeAndGo, [&] {
        for (int i = 0; i < 300; ++i) {
            job.Convert();
        }
    }));
}

} // namespace
