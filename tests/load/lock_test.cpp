// The lock of a family by itself.

#include "../../src/common/lock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;

common::FamilyLock g_Lock;
int g_nInside = 0; // writers

std::future<void> Read(int nTimes)
{
    return std::async(std::launch::async, [nTimes] {
        for (int i = 0; i < nTimes; ++i) {
            g_Lock.lock_shared();
            g_Lock.unlock_shared();
        }
    });
}

TEST(Lock, LetsAllInThatWait)
{
    g_Lock.lock();
    const std::future<void> readers[] = {Read(1), Read(1), Read(1)};
    std::this_thread::sleep_for(50ms);
    g_Lock.unlock();
    for (const std::future<void>& reader : readers) {
        EXPECT_EQ(reader.wait_for(20s), std::future_status::ready);
    }
    // The writer is awake and takes the lock again at once, the reader must be woken: it would lose each time.
    g_Lock.lock();
    const std::future<void> late = Read(1);
    unsigned nTurns = 0;
    for (; late.wait_for(5ms) != std::future_status::ready && nTurns < 5 * g_Lock.kPatience; ++nTurns) {
        g_Lock.unlock();
        g_Lock.lock();
    }
    EXPECT_LT(nTurns, 5 * g_Lock.kPatience);
    g_Lock.unlock();
    // Of writers that never pause each batch closes; a single one is told of a reader that draws back.
    for (const std::size_t nWriters : {1U, 8U}) {
        std::vector<std::jthread> writers(nWriters);
        for (std::jthread& writer : writers) {
            writer = std::jthread([](const std::stop_token& stop) {
                while (!stop.stop_requested()) {
                    g_Lock.lock();
                    EXPECT_EQ(g_nInside++, 0);
                    std::this_thread::yield();
                    --g_nInside;
                    g_Lock.unlock();
                }
            });
        }
        EXPECT_EQ(Read(nWriters == 1 ? 100000 : 1000).wait_for(20s), std::future_status::ready);
    }
    g_Lock.lock_shared();
    EXPECT_FALSE(g_Lock.try_lock());
    g_Lock.unlock_shared();
    EXPECT_TRUE(g_Lock.try_lock());
    g_Lock.unlock();
}

} // namespace
