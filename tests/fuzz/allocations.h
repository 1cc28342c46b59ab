// Frees what a call has left behind where its contract says that it leaves something behind: without
// that a few thousand refused audio descriptions would fill the memory.
#pragma once

#include <sanitizer/allocator_interface.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace fuzz
{

// Records the allocations made during its life. One may live at a time, on the only thread.
class Allocations
{
  public:
    Allocations()
    {
        static const int nInstalled = __sanitizer_install_malloc_and_free_hooks(OnAllocation, OnFree);
        if (nInstalled == 0) {
            std::abort();
        }
        s_nCount = 0;
        s_bRecording = true;
    }
    ~Allocations() { s_bRecording = false; }
    Allocations(const Allocations&) = delete;
    Allocations& operator=(const Allocations&) = delete;

    void End(bool bFreeTheRest)
    {
        s_bRecording = false;
        while (bFreeTheRest && s_nCount > 0) {
            std::free(s_Blocks[--s_nCount]);
        }
    }

  private:
    static void OnAllocation(const volatile void* p, std::size_t /*nSize*/)
    {
        if (s_bRecording && s_nCount < s_Blocks.size()) {
            // The hooks pass blocks as const volatile; a cast would be the only one of its kind.
            std::memcpy(&s_Blocks[s_nCount++], &p, sizeof(p));
        }
    }
    // Most blocks are freed soon after they are made, so the search starts at the end.
    static void OnFree(const volatile void* p)
    {
        for (std::size_t i = s_bRecording ? s_nCount : 0; i > 0; --i) {
            if (s_Blocks[i - 1] == p) {
                s_Blocks[i - 1] = s_Blocks[--s_nCount];
                return;
            }
        }
    }

    static inline bool s_bRecording = false;
    static inline std::size_t s_nCount = 0;
    static inline std::array<void*, 65536> s_Blocks{};
};

} // namespace fuzz
