// That no call waits without bound for the other calls of its family.

#include "jobs.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace
{

constexpr auto kWatchdog = std::chrono::seconds(20);

// Threads that repeat something until the object goes.
class Crowd
{
  public:
    void Add(std::function<void()> once)
    {
        m_Threads.emplace_back([this, once = std::move(once)] {
            while (!m_bStop) {
                once();
                ++m_nRounds;
            }
        });
    }
    void WaitUntilBusy(int nRounds) const
    {
        while (m_nRounds < nRounds) {
            std::this_thread::yield();
        }
    }
    void Stop()
    {
        m_bStop = true;
        for (std::thread& thread : m_Threads) {
            thread.join();
        }
        m_Threads.clear();
    }

  private:
    std::atomic<bool> m_bStop = false;
    std::atomic<int> m_nRounds = 0;
    std::vector<std::thread> m_Threads;
};

// Whether the work comes to its end beside the crowd. It does in any case once the crowd has stopped.
bool EndsBeside(Crowd& crowd, const std::function<void()>& work)
{
    crowd.WaitUntilBusy(20);
    std::future<void> future = std::async(std::launch::async, work);
    const bool bEnded = future.wait_for(kWatchdog) == std::future_status::ready;
    crowd.Stop();
    future.get();
    return bEnded;
}

template <class Job>
class Waits : public testing::Test
{
};
using Families = testing::Types<load::AudioMixJob, load::VideoMixJob, load::ScaleJob>;
TYPED_TEST_SUITE(Waits, Families, );

TYPED_TEST(Waits, HandlesComeAndGoWhileOthersConvert)
{
    // All of them before the first conversion starts: creating is what is tested.
    std::vector<std::shared_ptr<TypeParam>> jobs;
    for (unsigned i = 0; i < 4; ++i) {
        jobs.push_back(std::make_shared<TypeParam>(load::Size{640, 360, 24000}, i));
    }
    Crowd crowd;
    for (const auto& job : jobs) {
        crowd.Add([job] { job->Convert(); });
    }
    EXPECT_TRUE(EndsBeside(crowd, [] {
        for (int i = 0; i < 30; ++i) {
            TypeParam(load::Size{64, 48, 480}, 1);
        }
    }));
}

// So many conversions take about a second beside eight threads; with a lock that only prefers writers
// they do not come to an end in the watchdog's time.
TYPED_TEST(Waits, ConversionsGetThroughWhileHandlesComeAndGo)
{
    TypeParam job(load::Size{64, 48, 480}, 1);
    Crowd crowd;
    for (int i = 0; i < 8; ++i) {
        crowd.Add([] {
            TypeParam(load::Size{64, 48, 480}, 1);
            // Graphs are built outside the lock: it would be free most of the time.
            for (int k = 0; k < 10000; ++k) {
                TypeParam::DestroyNothing();
            }
        });
    }
    EXPECT_TRUE(EndsBeside(crowd, [&] {
        for (int i = 0; i < 3000; ++i) {
            job.Convert();
        }
    }));
}

} // namespace
