// The lock of a family by itself.

#include "../../src/common/lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace
{

// The writer is awake and takes the lock again at once, the reader must be woken: it would lose each time.
TEST(Lock, LetsAReaderInThatHasLostOften)
{
    static common::FamilyLock s_Lock;
    constexpr unsigned kMost = 5 * common::FamilyLock::kPatience;
    std::atomic<bool> bIn = false;
    s_Lock.lock();
    EXPECT_FALSE(s_Lock.try_lock());
    std::thread reader([&bIn] {
        s_Lock.lock_shared();
        bIn = true;
        s_Lock.unlock_shared();
    });
    unsigned nTurns = 0;
    for (; !bIn && nTurns < kMost; ++nTurns) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        s_Lock.unlock();
        s_Lock.lock();
    }
    EXPECT_LT(nTurns, kMost);
    s_Lock.unlock();
    reader.join();
    s_Lock.lock_shared();
    EXPECT_FALSE(s_Lock.try_lock());
    s_Lock.unlock_shared();
    EXPECT_TRUE(s_Lock.try_lock());
    s_Lock.unlock();
}

} // namespace
