// That no call waits without bound for the other calls of its family.

#include "support/jobs.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <future>
#include <thread>

namespace
{

using jobs::Job;

// One kind of each family.
class Waits : public testing::TestWithParam<std::size_t>
{
};
INSTANTIATE_TEST_SUITE_P(Family, Waits, testing::Values(jobs::kAudioMix, jobs::kVideoMix, jobs::kScaler));

TEST_P(Waits, HandlesComeAndGoWhileOthersConvert)
{
    const jobs::Kind& kind = jobs::kKinds[GetParam()];
    // All of them before the first conversion starts: creating is what is tested.
    std::deque<Job> converting;
    for (unsigned i = 0; i < 4; ++i) {
        converting.emplace_back(kind, jobs::Size{640, 360, 24000}, i);
    }
    std::atomic<int> nRounds = 0;
    std::future<void> future; // comes to its end in any case once the others have stopped
    std::deque<std::jthread> others;
    for (Job& job : converting) {
        others.emplace_back([&](const std::stop_token& stop) {
            for (; !stop.stop_requested(); ++nRounds) {
                job.Convert();
            }
        });
    }
    while (nRounds < 20) {
        std::this_thread::yield();
    }
    future = std::async(std::launch::async, [&kind] {
        for (int i = 0; i < 30; ++i) {
            Job(kind, {64, 48, 480}, 1);
        }
    });
    EXPECT_EQ(future.wait_for(std::chrono::seconds(20)), std::future_status::ready);
}

} // namespace
