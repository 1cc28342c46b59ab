#include "lock.h"

#include <pthread.h>
#include <type_traits>
#include <utility>

namespace common
{

// At exit other threads may be inside.
static_assert(std::is_trivially_destructible_v<FamilyLock>);

FamilyLock::FamilyLock() noexcept
{
    s_pFamilies[s_nFamilies++] = this;
    if (s_nFamilies == s_pFamilies.size()) {
        // Taken back when the library is unloaded.
        pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);
    }
}

void FamilyLock::lock()
{
    {
        std::unique_lock queue(m_Queue);
        if (m_bOpen) {
            ++m_nInside;
        } else {
            ++m_nNext;
            const unsigned nBatch = m_nBatch;
            queue.unlock();
            m_nBatch.wait(nBatch);
            queue.lock();
        }
        if (m_nWriters++ == 0) {
            ++m_nTurn;
        }
    }
    for (unsigned nLeft = m_nLeft; HasReaders(); nLeft = m_nLeft) {
        m_nLeft.wait(nLeft);
    }
    m_Alone.lock();
    t_pAlone = this;
    const std::lock_guard queue(m_Queue);
    m_bOpen = false;
}

bool FamilyLock::try_lock()
{
    {
        const std::unique_lock queue(m_Queue, std::try_to_lock);
        if (!queue || m_nInside > 0) {
            return false;
        }
        m_nInside = m_nWriters = 1;
        m_bOpen = false;
        ++m_nTurn;
    }
    if (HasReaders() || !m_Alone.try_lock()) {
        Leave();
        return false;
    }
    t_pAlone = this;
    return true;
}

void FamilyLock::unlock()
{
    t_pAlone = nullptr;
    m_Alone.unlock();
    Leave();
}

void FamilyLock::Leave()
{
    const std::lock_guard queue(m_Queue);
    if (--m_nWriters == 0) {
        const bool bByRight = m_nReaders > 0;
        m_nAdmitted += std::exchange(m_nReaders, 0);
        ++m_nTurn;
        if (bByRight) {
            m_nTurn.notify_all();
        } else {
            m_nTurn.notify_one(); // which wakes the next
        }
    }
    if (--m_nInside == 0) {
        m_bOpen = true;
        m_nInside = std::exchange(m_nNext, 0);
        ++m_nBatch;
        m_nBatch.notify_all();
    }
}

void FamilyLock::WaitForTurn(std::atomic<unsigned>& mark)
{
    const unsigned nFirst = m_nTurn;
    for (;;) {
        const unsigned nTurn = m_nTurn;
        if (!IsWriters(nTurn)) {
            m_nTurn.notify_one();
            return;
        }
        --mark;
        WakeWriters();
        if (nTurn - nFirst >= 2 * kPatience) {
            break;
        }
        m_nTurn.wait(nTurn);
        ++mark;
    }
    std::unique_lock queue(m_Queue);
    const unsigned nTurn = m_nTurn;
    if (!IsWriters(nTurn)) {
        ++mark;
        m_nTurn.notify_one();
        return;
    }
    ++m_nReaders;
    queue.unlock();
    m_nTurn.wait(nTurn);
    // Other writers may have their turn already, but wait for those who were let in.
    ++mark;
    --m_nAdmitted;
}

void FamilyLock::WakeWriters()
{
    ++m_nLeft;
    m_nLeft.notify_all();
}

// In this order: an admitted reader marks itself first.
bool FamilyLock::HasReaders() const
{
    if (m_nAdmitted != 0) {
        return true;
    }
    for (const Mark& mark : m_Marks) {
        if (mark.nReaders != 0) {
            return true;
        }
    }
    return false;
}

// The thread that forks may itself be inside a call: FFmpeg's log callback is the program's own. If it has
// this lock alone, there is nobody to keep out.
std::mutex& FamilyLock::AloneOfOthers()
{
    static constinit thread_local std::mutex t_Nobodys;
    return t_pAlone == this ? t_Nobodys : m_Alone;
}

void FamilyLock::BeforeFork()
{
    // Holds none while it waits for another: a thread that has a lock alone may be about to fork too.
    std::lock(s_pFamilies[0]->AloneOfOthers(), s_pFamilies[1]->AloneOfOthers(),
              s_pFamilies[2]->AloneOfOthers());
    for (FamilyLock* pLock : s_pFamilies) {
        pLock->m_Queue.lock();
    }
}

void FamilyLock::AfterForkInParent()
{
    for (FamilyLock* pLock : s_pFamilies) {
        pLock->m_Queue.unlock();
        pLock->AloneOfOthers().unlock();
    }
}

void FamilyLock::AfterForkInChild()
{
    for (FamilyLock* pLock : s_pFamilies) {
        pLock->ForgetOtherThreads();
    }
    AfterForkInParent();
}

void FamilyLock::ForgetOtherThreads()
{
    for (Mark& mark : m_Marks) {
        mark.nReaders = 0;
    }
    if (t_pShared == this) {
        OwnMark() = 1;
    }
    m_nAdmitted = m_nReaders = m_nNext = 0;
    m_nWriters = m_nInside = t_pAlone == this ? 1 : 0;
    m_bOpen = m_nInside == 0;
    m_nTurn = m_nInside;
}

} // namespace common
