// How the calls of a family take its reader-writer lock so that none of them waits without bound.
//
// A std::shared_mutex promises nothing about who goes next, and glibc's default lets readers overtake
// a waiting writer: overlapping conversions then keep a creating or destroying call out for as long
// as they go on. PreferWriters turns that round, after which overlapping writers would keep the
// conversions out (measured: four threads that reconfigure scalers left two converting threads one
// conversion in three seconds). WriterGate bounds that: writers enter in batches, and between two
// batches the readers that wait get in.
#pragma once

#include <condition_variable>
#include <mutex>
#include <pthread.h>
#include <shared_mutex>

namespace frame
{

// To be called once, before the lock is first used.
inline void PreferWriters(std::shared_mutex& mutex) noexcept
{
#ifdef __GLIBC__
    pthread_rwlockattr_t st_Attr;
    pthread_rwlockattr_init(&st_Attr);
    pthread_rwlockattr_setkind_np(&st_Attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    auto* pst_Lock = static_cast<pthread_rwlock_t*>(mutex.native_handle());
    pthread_rwlock_destroy(pst_Lock);
    pthread_rwlock_init(pst_Lock, &st_Attr);
    pthread_rwlockattr_destroy(&st_Attr);
#endif
}

// Writers pass here on their way to the lock. A batch is open until its first writer has the lock; who
// comes later belongs to the next one, which enters when the last of this batch has left. So a writer
// waits for the readers and the batch that are there when it comes, the readers that had come before it,
// and the others of its own batch; a reader that queues at the lock waits for one batch.
class WriterGate
{
  public:
    // Returns when the caller may go for the lock.
    void Enter()
    {
        std::unique_lock lock(m_Mutex);
        if (m_bOpen) {
            ++m_nInside;
            return;
        }
        ++m_nNext;
        const unsigned nMine = m_nBatch + 1;
        m_Changed.wait(lock, [&] { return m_nBatch == nMine; });
    }

    // The caller has the lock.
    void Close()
    {
        const std::lock_guard lock(m_Mutex);
        m_bOpen = false;
    }

    // The caller has given the lock back.
    void Leave()
    {
        const std::lock_guard lock(m_Mutex);
        if (--m_nInside > 0) {
            return;
        }
        m_bOpen = true;
        if (m_nNext > 0) {
            m_nInside = m_nNext;
            m_nNext = 0;
            ++m_nBatch;
            m_Changed.notify_all();
        }
    }

  private:
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    unsigned m_nBatch = 0;  // counts the batches that had to wait; wraps around
    unsigned m_nInside = 0; // writers of the present batch that have not left
    unsigned m_nNext = 0;   // writers that wait for the next batch
    bool m_bOpen = true;
};

// Holds a family's lock exclusively.
class ExclusiveLock
{
  public:
    ExclusiveLock(WriterGate& gate, std::shared_mutex& mutex) : m_Gate(gate), m_Mutex(mutex)
    {
        m_Gate.Enter();
        m_Mutex.lock();
        m_Gate.Close();
    }
    ~ExclusiveLock()
    {
        m_Mutex.unlock();
        m_Gate.Leave();
    }
    ExclusiveLock(const ExclusiveLock&) = delete;
    ExclusiveLock& operator=(const ExclusiveLock&) = delete;

  private:
    WriterGate& m_Gate;
    std::shared_mutex& m_Mutex;
};

} // namespace frame
