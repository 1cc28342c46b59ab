// The reader-writer lock of a family of handles: working calls share it; creating, reconfiguring and
// destroying calls ("writers") have it alone. The standard guards take it.
//
// Three things that a std::shared_mutex does not give:
// - Nobody waits without bound. Writers come in batches, and between two batches the readers that wait
//   get in: a writer waits for the readers and the batch that are there when it comes, the readers that
//   had come before it, and the others of its own batch; a reader waits for one batch. Batches rather
//   than single turns, because one long conversion then delays N destroying calls once, not N times.
// - Readers on different threads do not write to the same cache line.
// - It can be used at any time: before its constructor's turn, while the process exits (nothing of it is
//   destroyed), and in the child of a fork.
#pragma once

#include <array>
#include <atomic>
#include <mutex>

namespace common
{

inline constexpr std::size_t kCacheLine = 64;

class FamilyLock
{
  public:
    // Enters the lock among those that a fork goes through.
    FamilyLock() noexcept;
    ~FamilyLock() = default;
    FamilyLock(const FamilyLock&) = delete;
    FamilyLock& operator=(const FamilyLock&) = delete;

    void lock();
    bool try_lock();
    void unlock();

    void lock_shared()
    {
        std::atomic<unsigned>& mark = OwnMark();
        ++mark;
        if (IsBatch(m_nTurn)) {
            WaitForBatch(mark);
        }
        t_pShared = this;
    }
    void unlock_shared()
    {
        t_pShared = nullptr;
        --OwnMark();
        if (IsBatch(m_nTurn)) {
            WakeWriters();
        }
    }

  private:
    // Readers inside, or looking in. Threads beyond their number use one together.
    struct alignas(kCacheLine) Mark {
        std::atomic<unsigned> nReaders = 0;
    };
    static constexpr unsigned kMarks = 64;

    static bool IsBatch(unsigned nTurn) { return nTurn % 2 != 0; }
    std::atomic<unsigned>& OwnMark()
    {
        if (t_nMark == kMarks) {
            t_nMark = s_nThreads++ % kMarks;
        }
        return m_Marks[t_nMark].nReaders;
    }
    void WaitForBatch(std::atomic<unsigned>& mark);
    void WakeWriters();
    bool HasReaders() const;
    void LeaveBatch();

    std::mutex& AloneOfOthers();
    static void BeforeFork();
    static void AfterForkInParent();
    static void AfterForkInChild();
    void ForgetOtherThreads();

    // All atomics are used in sequential order. A reader marks itself and then looks at the turn, a writer
    // makes the turn a batch's and then looks at the marks: one of them sees the other. In the same way a
    // reader that leaves sees the batch, or the batch sees it gone.
    std::array<Mark, kMarks> m_Marks;
    alignas(kCacheLine) std::atomic<unsigned> m_nTurn = 0; // odd from a batch's first writer to its last
    alignas(kCacheLine) std::atomic<unsigned> m_nLeft = 0; // counts what writers wait for; wraps around
    std::atomic<unsigned> m_nAdmitted = 0; // readers let in by the last batch that have no mark yet

    // Held by the writer that has the lock, and by a fork, which so waits for a change of the map but not
    // for conversions. Taken before m_Queue.
    std::mutex m_Alone;
    std::mutex m_Queue;      // guards what follows and every change of m_nTurn
    unsigned m_nReaders = 0; // wait for the end of the present batch
    unsigned m_nBatch = 0;   // writers of the present batch
    unsigned m_nNext = 0;    // writers that wait for the next batch
    bool m_bOpen = true;     // until its first writer has the lock, a batch takes further writers in

    static inline constinit std::array<FamilyLock*, 3> s_pFamilies{};
    static inline constinit std::size_t s_nFamilies = 0;
    static inline constinit std::atomic<unsigned> s_nThreads = 0;

    static inline constinit thread_local unsigned t_nMark = kMarks; // none yet
    // The lock that this thread is inside of. Calls do not nest.
    static inline constinit thread_local const FamilyLock* t_pShared = nullptr;
    static inline constinit thread_local const FamilyLock* t_pAlone = nullptr;
};

} // namespace common
