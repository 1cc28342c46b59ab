// The lock of a family by itself.

#include "../../src/common/lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace
{

common::FamilyLock g_Lock;

// The writer is awake and takes the lock again at once, the reader must be woken: it would lose each time.
TEST(Lock, LetsAReaderInThatHasLostOften)
{
    constexpr unsigned kMost = 5 * common::FamilyLock::kPatience;
    std::atomic<bool> bIn = false;
    g_Lock.lock();
    EXPECT_FALSE(g_Lock.try_lock());
    std::thread reader([&bIn] {
        g_Lock.lock_shared();
        bIn = true;
        g_Lock.unlock_shared();
    });
    unsigned nTurns = 0;
    for (; !bIn && nTurns < kMost; ++nTurns) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        g_Lock.unlock();
        g_Lock.lock();
    }
    EXPECT_LT(nTurns, kMost);
    g_Lock.unlock();
    reader.join();
    // Of writers that never pause each batch closes, and all are told of those that leave.
    std::vector<std::jthread> vec_Others;
    for (int i = 0; i < 8; ++i) {
        vec_Others.emplace_back([](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                g_Lock.lock();
                g_Lock.unlock();
            }
        });
    }
    const auto future = std::async(std::launch::async, [] {
        for (int i = 0; i < 1000; ++i) {
            g_Lock.lock_shared();
            g_Lock.unlock_shared();
        }
    });
    EXPECT_EQ(future.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    vec_Others.clear();

    g_Lock.lock_shared();
    EXPECT_FALSE(g_Lock.try_lock());
    g_Lock.unlock_shared();
    EXPECT_TRUE(g_Lock.try_lock());
    g_Lock.unlock();
}

} // namespace
