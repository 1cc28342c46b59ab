// Frees what a call has left behind where its contract says that it leaves something behind: without that a few
// thousand refused audio descriptions would fill the memory. What is left behind elsewhere is for the leak check.
#pragma once

#include <sanitizer/allocator_interface.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <utility>

namespace fuzz
{

// Records the allocations made during its life. One may live at a time.
class Allocations
{
  public:
    Allocations()
    {
        static const int nInstalled = __sanitizer_install_malloc_and_free_hooks(
            [](const volatile void* p, std::size_t) { Note(p, true); },
            [](const volatile void* p) { Note(p, false); });
        s_Blocks.clear();
        s_bRecording = nInstalled != 0;
    }
    ~Allocations() { s_bRecording = false; }
    Allocations(const Allocations&) = delete;
    Allocations& operator=(const Allocations&) = delete;

    void FreeTheRest()
    {
        s_bRecording = false;
        for (const std::uintptr_t nBlock : s_Blocks) {
            std::free(reinterpret_cast<void*>(nBlock));
        }
    }

  private:
    static void Note(const volatile void* p, bool bNew)
    {
        // The set's own memory is not noted.
        if (std::exchange(s_bRecording, false)) {
            const auto nBlock = reinterpret_cast<std::uintptr_t>(p);
            bNew ? static_cast<void>(s_Blocks.insert(nBlock)) : static_cast<void>(s_Blocks.erase(nBlock));
            s_bRecording = true;
        }
    }

    static inline thread_local bool s_bRecording = false; // the fuzzer has a thread of its own
    static inline std::set<std::uintptr_t> s_Blocks;
};

} // namespace fuzz
