// What all handle maps have in common: how a record is registered and found.
#pragma once

#include "handle.h"
#include "lock.h"

#include <unordered_map>

namespace frame
{

template <class Record>
using HandleMap = std::unordered_map<unsigned long long, Record>;

// The caller holds the lock. Null for a handle that is not in the map.
template <class Record>
Record* Find(HandleMap<Record>& map, unsigned long long hHandle)
{
    const auto it = map.find(hHandle);
    return it == map.end() ? nullptr : &it->second;
}

// Releases a record's FFmpeg objects unless it has been registered.
template <class Record, void (*Release)(Record&)>
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

// Obtains a new handle and files a copy of the record under it. If the generator repeats the value of
// a live handle, the map keeps the old record and the new one's FFmpeg objects are orphaned.
template <class Record>
void Register(WriterGate& gate, std::shared_mutex& mutex, HandleMap<Record>& map,
              unsigned long long* phHandle, const Record& record)
{
    BaseLib_OperatorHandle_Create(phHandle, 1000000001ULL, 9000000002ULL, 1);
    const ExclusiveLock lock(gate, mutex);
    map.insert({*phHandle, record});
}

} // namespace frame
