// Reads its input as a program of library calls and runs it. What is looked for, besides crashes and what the
// sanitizers see: a code that the header does not list for the call, a flag that does not match the result, bytes
// written past the reported size, anything written by a failed call or into an input, and memory that is left behind
// where the header does not say so.
//
// README.md describes what is kept out.

#include "descriptions.h"
#include "support/jobs.h"

#include <fuzzer/FuzzedDataProvider.h>
#include <sanitizer/allocator_interface.h>

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
}

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>
#include <utility>

namespace
{

using jobs::Handle;
using test::GuardedBuffer;

constexpr int kLargest = 8 << 20; // FFmpeg's allocations, each
constexpr int kProbe = 4096;      // bytes looked at for stray writes
constexpr unsigned char kFill = 0xA7;

// The allocations of a call, to free what it leaves behind where its contract says so: without that a few thousand
// refused audio descriptions would fill the memory. What is left behind elsewhere is for the leak check.
thread_local bool t_bRecording = false; // the fuzzer has a thread of its own
std::set<std::uintptr_t> g_Blocks;
void Note(const volatile void* p, bool bNew)
{
    // The set's own memory is not noted.
    if (std::exchange(t_bRecording, false)) {
        const auto nBlock = reinterpret_cast<std::uintptr_t>(p);
        bNew ? static_cast<void>(g_Blocks.insert(nBlock)) : static_cast<void>(g_Blocks.erase(nBlock));
        t_bRecording = true;
    }
}

// As many bytes as a call is told that it may read; none if there cannot be so many.
struct Told : GuardedBuffer {
    explicit Told(int n) : GuardedBuffer(n < 0 || n > kLargest ? 0U : static_cast<unsigned>(n)), nSize(n)
    {
        Protect();
    }
    const int nSize;
};

// What is known about a handle, which stays here after it has been destroyed.
struct Slot {
    Handle h = 0;
    const jobs::Kind* pKind = nullptr;
    int nScaled[2] = {}; // a scaler's pictures
    bool bWholePicture = false;
};

// A program of calls.
struct Machine {
    Machine(const std::uint8_t* pData, std::size_t nSize) : m_Data(pData, nSize) {}
    ~Machine() { std::for_each(m_Slots.begin(), m_Slots.end(), Destroy); }
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    void Run();

    template <class Info, bool bMix>
    bool Create()
    {
        std::vector<Info> infos(bMix ? Below(5) : 1);
        for (Info& st_Info : infos) {
            FillIn(st_Info);
            const std::string name = m_Data.PickValueInArray({"a", "b", "c", "in", "", "out", "[a"});
            st_Info.szName[name.copy(st_Info.szName, 63)] = '\0';
            std::fill_n(st_Info.szName, Rarely() ? 64 : 0, 'n'); // without an end
            st_Info.nInputId = AnyId();
        }
        jobs::Inputs<Info> inputs(infos);
        const std::string text = fuzz::Description(m_Data);
        const char* const szDescr = OrNull(text.c_str());
        const char* const szOut = OrNull(m_Data.PickValueInArray({"out", "out", "out", "a", ""}));
        const int nCount = infos.empty() ? m_Data.PickValueInArray({0, -1, INT_MIN}) : inputs.Count();
        if (!infos.empty()) {
            (*inputs.Get())[infos.size() - 1] = OrNull((*inputs.Get())[infos.size() - 1]);
        }
        auto* const pppInfo = OrNull(inputs.Get());
        return New(jobs::KindOf<Info>(bMix), [&](Handle* phHandle) {
            if constexpr (bMix) {
                return jobs::kMixInit<Info>(phHandle, pppInfo, nCount, szOut, szDescr);
            } else {
                return jobs::kInit<Info>(phHandle, szDescr, pppInfo == nullptr ? nullptr : (*pppInfo)[0]);
            }
        });
    }
    bool ScaleInit() { return New(jobs::kKinds[jobs::kScaler], AVFilter_VideoScale_Init); }

    // The calls that only give something out, and Audio_Cvt, which reads nothing.
    template <std::size_t nKind>
    bool Take()
    {
        unsigned char unread = 0;
        const jobs::Block block{OrNull(&unread), {}, true};
        return Receive([&, h = AnySlot().h](unsigned char* pOut, int* pnOut) {
            return jobs::kKinds[nKind].Take(h, block, pOut, pnOut);
        });
    }

    bool AudioSend()
    {
        Told block(Number(1920));
        unsigned char* const pIn = OrNull(block.Data());
        return Call([&, h = AnySlot().h, nId = AnyId()] {
            return AVFilter_Audio_MIXSend(h, nId, pIn, block.nSize);
        });
    }

    // Planes, or one block that is ample.
    template <bool bMix>
    bool VideoSend()
    {
        static GuardedBuffer ample(std::size_t{4} * kLargest);
        Slot& slot = AnySlot();
        Told y(Number(512)), u(Number(128)), v(Number(128));
        // After a whole picture the planes of a later conversion would go into that block: kept out.
        const bool bWhole = (!bMix && slot.bWholePicture) || m_Data.ConsumeBool();
        unsigned char* const pY = OrNull(bWhole ? ample.Data() : y.Data());
        unsigned char* const pU = bWhole ? nullptr : u.Data();
        if constexpr (bMix) {
            return Call([&, nId = AnyId()] {
                return AVFilter_Video_MIXSend(slot.h, nId, pY, pU, v.Data(), y.nSize, u.nSize, v.nSize);
            });
        }
        slot.bWholePicture = bWhole;
        return Receive([&](unsigned char* pOut, int* pnOut) {
            return AVFilter_Video_Cvt(slot.h, pY, pU, v.Data(), y.nSize, u.nSize, v.nSize, pOut, pnOut);
        });
    }

    bool ScaleSet()
    {
        Slot& slot = AnySlot();
        int n[6];
        std::generate(std::begin(n), std::end(n), [this] { return Number(); });
        const bool bResult = Call(
            [&, h = slot.h] { return AVFilter_VideoScale_Set(h, n[0], n[1], n[2], n[3], n[4], n[5]); });
        for (const int i : {0, 3}) {
            const auto format = static_cast<AVPixelFormat>(bResult ? n[i] : -1);
            slot.nScaled[i / 3] = std::max(av_image_get_buffer_size(format, n[i + 1], n[i + 2], 1), 0);
        }
        return bResult;
    }

    bool ScaleFmt()
    {
        const Slot& slot = AnySlot();
        Told in(slot.nScaled[0]);
        const int nNeeded = slot.nScaled[1];
        const int nRoom =
            m_Data.PickValueInArray({nNeeded, nNeeded, nNeeded + 5, nNeeded - 1, 0, -1, INT_MIN});
        GuardedBuffer out(static_cast<std::size_t>(std::clamp(nRoom, 0, kLargest)));
        const char* const pIn = OrNull(reinterpret_cast<const char*>(in.Data()));
        unsigned char* const pOut = OrNull(out.Data());
        int nOut = nRoom;
        const bool bResult = Call([&] { return AVFilter_VideoScale_Fmt(slot.h, pIn, pOut, &nOut); });
        const bool bTold = bResult || AVFilter_dwErrorCode == AVFILTER_ERROR_VIDEO_BUFFER_TOO_SMALL;
        jobs::Demand(nOut == (bTold ? nNeeded : nRoom), "a size that is not the picture's");
        return bResult;
    }

    // By the destroying call of any kind.
    bool DestroyAny()
    {
        Slot& slot = AnySlot();
        const jobs::Kind& kind = jobs::kKinds[Below(jobs::kKinds.size())];
        if (slot.pKind != nullptr && slot.pKind->cFamily == kind.cFamily) {
            slot = {slot.h};
        }
        return Call([&] { return kind.Destroy(slot.h); });
    }

    // Every call of the library but the last Destroy goes through here.
    template <class F>
    static bool Call(const F& call)
    {
        AVFilter_IsErrorOccur = true;
        AVFilter_dwErrorCode = 0;
        g_Blocks.clear();
        t_bRecording = true;
        const bool bResult = call();
        t_bRecording = false;
        // Refused graphs of the audio family, and a mix's block that there was no memory for.
        const Handle n = AVFilter_dwErrorCode;
        if ((n >= AVFILTER_ERROR_AUDIO_ALLOC && n <= AVFILTER_ERROR_AUDIO_CONFIG_GRAPH) ||
            n == AVFILTER_ERROR_AUDIO_FRAME_BUFFER) {
            for (const std::uintptr_t nBlock : g_Blocks) {
                std::free(reinterpret_cast<void*>(nBlock));
            }
        }
        return bResult;
    }
    static void Destroy(Slot& slot)
    {
        jobs::Demand(slot.pKind == nullptr || slot.pKind->Destroy(slot.h), "a destroying call has failed");
        slot = {slot.h};
    }
    template <class F>
    bool New(const jobs::Kind& kind, const F& create)
    {
        Slot& slot = AnySlot();
        Destroy(slot);
        Handle h = 0;
        Handle* const phHandle = OrNull(&h);
        const bool bResult = Call([&] { return create(phHandle); });
        jobs::Demand(bResult == (h >= 1000000001ULL && h <= 9000000002ULL) && (bResult || h == 0),
                     "a wrong handle");
        if (bResult) {
            slot = {h, &kind};
        }
        return bResult;
    }

    std::size_t Below(std::size_t n) { return m_Data.ConsumeIntegralInRange<std::size_t>(0, n - 1); }
    bool Rarely() { return m_Data.ConsumeIntegral<std::uint8_t>() == 255; }
    template <class T>
    T* OrNull(T* p)
    {
        return Rarely() ? nullptr : p;
    }
    Slot& AnySlot() { return m_Slots[Below(m_Slots.size())]; }
    // The first value, a small number, or one around a power of two, of either sign.
    int Number(int nUsual = 0)
    {
        const auto n = m_Data.ConsumeIntegral<std::uint8_t>();
        const auto nSmall = m_Data.ConsumeIntegralInRange(0U, 239U);
        return n < 128 ? nUsual : static_cast<int>(n < 250 ? nSmall : (1U << nSmall % 32) - Below(65));
    }
    int AnyId() { return m_Data.ConsumeIntegralInRange(-1, 2); }
    void FillIn(AVFILTER_AUDIO_INFO& st_Info)
    {
        const int nFormat = m_Data.ConsumeIntegralInRange(-1, 13);
        st_Info = {{}, nFormat, Number(48000), Number(480), Number(2), 0, 0};
    }
    void FillIn(AVFILTER_VIDEO_INFO& st_Info)
    {
        st_Info = {{}, Number(32), Number(16), Number(25), Number(), 0};
    }

    // Runs a call that writes a block and its size.
    template <class F>
    bool Receive(const F& call)
    {
        static GuardedBuffer out(std::size_t{4} * kLargest, kFill);
        int nOut = -7;
        unsigned char* const pOut = OrNull(out.Data());
        int* const pnOut = OrNull(&nOut);
        const bool bResult = Call([&] { return call(pOut, pnOut); });
        jobs::Demand(bResult ? nOut >= 0 && nOut <= 3 * kLargest : nOut == -7,
                     "a size that nothing was written for");
        unsigned char* const pEnd = out.Data() + std::max(nOut, 0);
        jobs::Demand(std::count(pEnd, pEnd + kProbe, kFill) == kProbe, "written past the reported size");
        std::fill(out.Data(), pEnd, kFill);
        return bResult;
    }

    FuzzedDataProvider m_Data;
    std::array<Slot, 6> m_Slots;
};

// The last digits of the codes that each may report, and of those that may come without the flag.
struct Operation {
    bool (Machine::*run)();
    Handle nBase;
    std::set<Handle> digits;
    std::set<Handle> quiet = {};
};
constexpr Handle kA = 0x80F0000, kV = 0x80F1000;
const std::vector<Operation> kOperations{
    {&Machine::Create<AVFILTER_AUDIO_INFO, false>, kA, {1, 2, 3, 4, 5}},
    {&Machine::Create<AVFILTER_AUDIO_INFO, true>, kA, {1, 2, 3, 4, 5}},
    {&Machine::Take<jobs::kAudioFilter>, kA, {1, 6, 7, 8, 9}, {7}},
    {&Machine::AudioSend, kA, {1, 6, 7, 8}, {6, 7}},
    {&Machine::Take<jobs::kAudioMix>, kA, {1, 6, 7, 9}},
    {&Machine::Create<AVFILTER_VIDEO_INFO, false>, kV, {1, 2, 3, 4, 5, 6}},
    {&Machine::Create<AVFILTER_VIDEO_INFO, true>, kV, {1, 2, 3, 4, 5, 6}},
    {&Machine::VideoSend<false>, kV, {1, 2, 7, 8, 9}},
    {&Machine::VideoSend<true>, kV, {1, 2, 7, 8}},
    {&Machine::Take<jobs::kVideoMix>, kV, {1, 2, 7, 9}},
    {&Machine::ScaleInit, kV, {1}},
    {&Machine::ScaleSet, kV, {5, 7}},
    {&Machine::ScaleFmt, kV, {1, 7, 0x10, 0x11}},
    {&Machine::DestroyAny, kV, {}},
};

void Machine::Run()
{
    for (int i = 0; i < 48 && m_Data.remaining_bytes() > 0; ++i) {
        const Operation& operation = kOperations[Below(kOperations.size())];
        if ((this->*operation.run)()) {
            jobs::Demand(!AVFilter_IsErrorOccur && AVFilter_dwErrorCode == 0, "a report after success");
        } else {
            const Handle nDigit = AVFilter_dwErrorCode - operation.nBase;
            jobs::Demand(operation.digits.contains(nDigit), "the code is not in the list");
            jobs::Demand(AVFilter_IsErrorOccur || operation.quiet.contains(nDigit), "the flag is down");
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*pnArgs*/, char*** /*pppArgs*/)
{
    av_log_set_level(AV_LOG_QUIET);
    av_max_alloc(kLargest);
    __sanitizer_install_malloc_and_free_hooks([](const volatile void* p, std::size_t) { Note(p, true); },
                                              [](const volatile void* p) { Note(p, false); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize)
{
    Machine(pData, nSize).Run();
    return 0;
}
