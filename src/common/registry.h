// What all handle maps have in common: how a record is registered, found and destroyed.
#pragma once

#include "api/error.h"
#include "handle.h"
#include "lock.h"

#include <mutex>
#include <shared_mutex>
#include <unordered_map>

namespace common
{

// A family's records of one kind. Record types come with a function Release that frees what a record owns;
// a record's destructor frees none of it.
template <class Record>
class HandleMap
{
  public:
    explicit HandleMap(FamilyLock& lock) noexcept : m_Lock(lock), m_Map() {}
    HandleMap(const HandleMap&) = delete;
    HandleMap& operator=(const HandleMap&) = delete;

    // Runs at exit, when calls may still run or come, or when the library is unloaded. So records stay
    // where they are, and memory goes only if there is nobody who could use it. No record is released:
    // FFmpeg's own libraries may already have been taken down.
    ~HandleMap()
    {
        if (m_Lock.try_lock()) {
            if (m_Map.empty()) {
                Map().swap(m_Map);
            }
            m_Lock.unlock();
        }
    }

    // Obtains a new handle and files a copy of the record under it. If the generator repeats the value of
    // a live handle, the map keeps the old record and the new one's FFmpeg objects are orphaned.
    void Register(unsigned long long* phHandle, const Record& record)
    {
        BaseLib_OperatorHandle_Create(phHandle, 1000000001ULL, 9000000002ULL, 1);
        const std::lock_guard lock(m_Lock);
        m_Map.insert({*phHandle, record});
    }

    // The caller holds the lock. Null for a handle that is not in the map.
    Record* Find(unsigned long long hHandle)
    {
        const auto it = m_Map.find(hHandle);
        return it == m_Map.end() ? nullptr : &it->second;
    }

    // True for an unknown handle too.
    bool Destroy(unsigned long long hHandle)
    {
        api::ClearError();
        const std::lock_guard lock(m_Lock);
        if (Record* pRecord = Find(hHandle)) {
            Release(*pRecord);
            m_Map.erase(hHandle);
        }
        return true;
    }

  private:
    using Map = std::unordered_map<unsigned long long, Record>;

    FamilyLock& m_Lock;
    union { // is not destroyed
        Map m_Map;
    };
};

// Releases a record's FFmpeg objects unless it has been registered.
template <class Record>
class UnlessRegistered
{
  public:
    explicit UnlessRegistered(Record& record) : m_pRecord(&record) {}
    ~UnlessRegistered()
    {
        if (m_pRecord != nullptr) {
            Release(*m_pRecord);
        }
    }
    UnlessRegistered(const UnlessRegistered&) = delete;
    UnlessRegistered& operator=(const UnlessRegistered&) = delete;

    void Keep() { m_pRecord = nullptr; }

  private:
    Record* m_pRecord;
};

} // namespace common
