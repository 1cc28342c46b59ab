// That no call waits without bound for the other calls of its family.

#include "support/jobs.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>
#include <vector>

namespace
{

using jobs::Job;
using jobs::Kind;

constexpr jobs::Size kSmall{64, 48, 480};

// Whether the work comes to its end beside threads that repeat something else. It does in any case once they stop.
bool EndsBeside(const std::vector<std::function<void()>>& others, const std::function<void()>& work)
{
    std::atomic<bool> bStop = false;
    std::atomic<int> nRounds = 0;
    std::vector<std::thread> vec_Threads;
    vec_Threads.reserve(others.size());
    for (const auto& once : others) {
        vec_Threads.emplace_back([&] {
            for (; !bStop; ++nRounds) {
                once();
            }
        });
    }
    while (nRounds < 20) {
        std::this_thread::yield();
    }
    std::future<void> future = std::async(std::launch::async, work);
    const bool bEnded = future.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    bStop = true;
    for (std::thread& thread : vec_Threads) {
        thread.join();
    }
    future.get();
    return bEnded;
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
    std::vector<std::function<void()>> others;
    for (unsigned i = 0; i < 4; ++i) {
        others.emplace_back(
            [job = std::make_shared<Job>(m_Kind, jobs::Size{640, 360, 24000}, i)] { job->Convert(); });
    }
    EXPECT_TRUE(EndsBeside(others, [&] {
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
    const auto comeAndGo = [&] {
        {
            const Job come(m_Kind, kSmall, 1);
        }
        // Graphs are built outside the lock: it would be free most of the time.
        for (int k = 0; k < 1000; ++k) {
            jobs::Demand(m_Kind.Destroy(0), m_Kind.szName);
        }
    };
    EXPECT_TRUE(EndsBeside(std::vector<std::function<void()>>(8, comeAndGo), [&] {
        for (int i = 0; i < 300; ++i) {
            job.Convert();
        }
    }));
}

} // namespace
