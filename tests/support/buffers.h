// Bytes to hand in, guarded room for what comes out, and the memory of the process. Without GoogleTest.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace test
{

using Bytes = std::vector<unsigned char>;

// Bytes that change from one to the next and from seed to seed.
inline Bytes Noise(std::size_t nSize, unsigned nSeed = 1)
{
    Bytes bytes(nSize);
    unsigned n = nSeed * 2654435761U + 12345U;
    for (unsigned char& byte : bytes) {
        n = n * 1664525U + 1013904223U;
        byte = static_cast<unsigned char>(n >> 24);
    }
    return bytes;
}

// n bytes that end right before a page that cannot be touched, with another one in front of theirs:
// it catches FFmpeg's assembly too, which AddressSanitizer does not see.
class GuardedBuffer
{
  public:
    explicit GuardedBuffer(std::size_t nSize, unsigned char nFill = 0xCD)
        : m_nSize(nSize), m_nPage(static_cast<std::size_t>(sysconf(_SC_PAGESIZE)))
    {
        m_nUsable = (std::max<std::size_t>(nSize, 1) + m_nPage - 1) / m_nPage *
                    m_nPage; // an emulator's mprotect refuses 0
        void* const pBase =
            mmap(nullptr, m_nUsable + 2 * m_nPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        m_pBase = static_cast<unsigned char*>(pBase);
        if (pBase == MAP_FAILED || mprotect(m_pBase + m_nPage, m_nUsable, PROT_READ | PROT_WRITE) != 0) {
            std::abort();
        }
        std::memset(m_pBase + m_nPage, nFill, m_nUsable);
    }
    ~GuardedBuffer() { munmap(m_pBase, m_nUsable + 2 * m_nPage); }
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    unsigned char* Data() { return m_pBase + m_nPage + m_nUsable - m_nSize; }
    std::size_t Size() const { return m_nSize; }
    void Assign(const Bytes& bytes) { std::copy(bytes.begin(), bytes.end(), Data()); }
    Bytes Copy() { return Bytes(Data(), Data() + m_nSize); }
    // From here on reading is allowed and writing is not.
    void Protect() { mprotect(m_pBase + m_nPage, m_nUsable, PROT_READ); }

  private:
    std::size_t m_nSize;
    std::size_t m_nPage;
    std::size_t m_nUsable;
    unsigned char* m_pBase;
};

// Resident memory of this process in bytes.
inline std::size_t ResidentBytes()
{
    std::ifstream file("/proc/self/statm");
    std::size_t nPages = 0;
    file >> nPages >> nPages;
    return nPages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

} // namespace test
