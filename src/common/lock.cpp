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
            if (m_nBatch++ == 0) {
                ++m_nTurn;
            }
        } else {
            ++m_nNext;
            const unsigned nTurn = m_nTurn;
            queue.unlock();
            m_nTurn.wait(nTurn);
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
        if (!queue || m_nBatch > 0) {
            return false;
        }
        m_nBatch = 1;
        m_bOpen = false;
        ++m_nTurn;
    }
    if (HasReaders() || !m_Alone.try_lock()) {
        LeaveBatch();
        return false;
    }
    t_pAlone = this;
    return true;
}

void FamilyLock::unlock()
{
    t_pAlone = nullptr;
    m_Alone.unlock();
    LeaveBatch();
}

void FamilyLock::LeaveBatch()
{
    const std::lock_guard queue(m_Queue);
    if (--m_nBatch > 0) {
        return;
    }
    m_bOpen = true;
    m_nAdmitted += std::exchange(m_nReaders, 0);
    m_nBatch = std::exchange(m_nNext, 0);
    m_nTurn += m_nBatch > 0 ? 2 : 1;
    m_nTurn.notify_all();
}

void FamilyLock::WaitForBatch(std::atomic<unsigned>& mark)
{
    --mark;
    WakeWriters();
    std::unique_lock queue(m_Queue);
    const unsigned nTurn = m_nTurn;
    if (!IsBatch(nTurn)) {
        ++mark;
        return;
    }
    ++m_nReaders;
    queue.unlock();
    m_nTurn.wait(nTurn);
    // Another batch may have begun, but it lets those in who waited for this one.
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
    m_nBatch = t_pAlone == this ? 1 : 0;
    m_bOpen = m_nBatch == 0;
    m_nTurn = m_nBatch;
}

} // namespace common
