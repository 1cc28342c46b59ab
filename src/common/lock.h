// The reader-writer lock of a family of handles: working calls share it; creating, reconfiguring and
// destroying calls ("writers") have it alone. The standard guards take it.
//
// Three things that a std::shared_mutex does not give:
// - Nobody waits without bound. Writers come in batches: a writer waits for the batch that is there when it
//   comes, the readers that had come before it, and the others of its own batch. Batches rather than single
//   turns, because one long conversion then delays N destroying calls once, not N times. The lock is free
//   between two turns of writers for whoever runs first, because handing it to a sleeping thread lets all
//   others wait for the scheduler; but a reader that has lost kPatience times gets in by right. Readers
//   that wait are woken one by another, because all at once would push the writer off its processor.
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
    static constexpr unsigned kPatience = 16;

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
        if (IsWriters(m_nTurn)) {
            WaitForTurn(mark);
        }
        t_pShared = this;
    }
    void unlock_shared()
    {
        t_pShared = nullptr;
        --OwnMark();
        if (IsWriters(m_nTurn)) {
            WakeWriters();
        }
    }

  private:
    // Readers inside, or looking in. Threads beyond their number use one together.
    struct alignas(kCacheLine) Mark {
        std::atomic<unsigned> nReaders = 0;
    };
    static constexpr unsigned kMarks = 64;

    static bool IsWriters(unsigned nTurn) { return nTurn % 2 != 0; }
    std::atomic<unsigned>& OwnMark()
    {
        if (t_nMark == kMarks) {
            t_nMark = s_nThreads++ % kMarks;
        }
        return m_Marks[t_nMark].nReaders;
    }
    void WaitForTurn(std::atomic<unsigned>& mark);
    void WakeWriters();
    bool HasReaders() const;
    void Leave();

    std::mutex& AloneOfOthers();
    static void BeforeFork();
    static void AfterForkInParent();
    static void AfterForkInChild();
    void ForgetOtherThreads();

    // All atomics are used in sequential order. A reader marks itself and then looks at the turn, a writer
    // makes the turn the writers' and then looks at the marks: one of them sees the other. In the same way a
    // reader that leaves sees the writers' turn, or they see it gone.
    std::array<Mark, kMarks> m_Marks;
    alignas(kCacheLine) std::atomic<unsigned> m_nTurn = 0; // odd while writers want the lock or have it
    alignas(kCacheLine) std::atomic<unsigned> m_nLeft = 0; // counts what writers wait for; wraps around
    std::atomic<unsigned> m_nAdmitted = 0;                 // readers let in by right that have no mark yet
    std::atomic<unsigned> m_nBatch = 0; // counts the batches that had to wait; wraps around

    // Held by the writer that has the lock, and by a fork, which so waits for a change of the map but not
    // for conversions. Taken before m_Queue.
    std::mutex m_Alone;
    std::mutex m_Queue;      // guards what follows and every change of m_nTurn
    unsigned m_nReaders = 0; // get in at the end of the present turn
    unsigned m_nWriters = 0; // of the present turn
    unsigned m_nInside = 0;  // writers of the present batch that have not left
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
