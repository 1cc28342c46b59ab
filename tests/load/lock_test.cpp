// The lock of a family by itself: who gets in, in which order.

#include "../../src/common/lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

// Threads that take the lock, each behind those that already wait, and write their letter once they are inside.
class Lock : public testing::Test
{
  protected:
    // A small letter shares the lock, a capital one has it alone. Comes back when the thread waits, or is gone.
    void Come(
        char c, const std::function<void()>& inside = [] {})
    {
        std::atomic<int> nThread = 0;
        m_Threads.emplace_back([this, c, inside, &nThread] {
            nThread = gettid();
            nThread.notify_one();
            c < 'a' ? s_Lock.lock() : s_Lock.lock_shared();
            {
                const std::lock_guard lock(m_Mutex);
                m_Order += c;
            }
            inside();
            c < 'a' ? s_Lock.unlock() : s_Lock.unlock_shared();
        });
        nThread.wait(0);
        std::string word = "started";
        for (int nAsleep = 0; nAsleep < 20 && !word.empty(); nAsleep = word == "S" ? nAsleep + 1 : 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            word.clear();
            std::ifstream("/proc/self/task/" + std::to_string(nThread) + "/stat") >> word >> word >> word;
        }
    }
    std::string Order()
    {
        const std::lock_guard lock(m_Mutex);
        return m_Order;
    }

    static inline common::FamilyLock s_Lock;

  private:
    std::mutex m_Mutex;
    std::string m_Order;
    std::vector<std::jthread> m_Threads;
};

TEST_F(Lock, TakesWritersInBatches)
{
    s_Lock.lock_shared();
    Come('a');
    EXPECT_EQ(Order(), "a"); // beside the other reader
    EXPECT_FALSE(s_Lock.try_lock());
    const auto inside = [&] {
        if (Order() == "aW") { // the batch is closed from here on
            Come('X');
            Come('b');
            EXPECT_FALSE(s_Lock.try_lock());
            EXPECT_EQ(Order(), "aW");
        }
    };
    Come('W', inside);
    Come('c');
    Come('W', inside);
    EXPECT_EQ(Order(), "a");
    s_Lock.unlock_shared();
    while (Order().size() < 6) {
        std::this_thread::yield();
    }
    EXPECT_EQ(Order().substr(0, 3), "aWW"); // and the other three as they come
    Come('d');
    EXPECT_TRUE(Order().ends_with('d') && s_Lock.try_lock());
    s_Lock.unlock();
    Come('Y');
    EXPECT_TRUE(Order().ends_with('Y'));
}

// The writer is awake and takes the lock again at once, the reader must be woken: it would lose each time.
TEST_F(Lock, LetsAReaderInThatHasLostOften)
{
    s_Lock.lock();
    Come('a');
    unsigned nTurns = 0;
    for (; Order().empty() && nTurns < 5 * common::FamilyLock::kPatience; ++nTurns) {
        s_Lock.unlock();
        s_Lock.lock();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    s_Lock.unlock();
    EXPECT_LT(nTurns, 5 * common::FamilyLock::kPatience);
    Come('B'); // who was let in by right has left
    EXPECT_EQ(Order(), "aB");
}

} // namespace
