// Reads its input as a program of library calls and runs it. What is looked for, besides crashes and what the
// sanitizers see: a code that the header does not list for the call, a flag that does not match the result, bytes
// written past the reported size, anything written by a failed call or into an input, and memory that is left behind
// where the header does not say so.
//
// README.md describes what is kept out.

#include "allocations.h"
#include "descriptions.h"
#include "support/jobs.h"

#include <fuzzer/FuzzedDataProvider.h>

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
#include <libavutil/samplefmt.h>
}

#include <climits>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace
{

using jobs::Handle;
using test::GuardedBuffer;

constexpr int kLargest = 8 << 20;    // FFmpeg's allocations, each
constexpr std::size_t kProbe = 4096; // bytes looked at for stray writes

// What a call may read: a block, or three planes.
using Sizes = std::array<int, 3>;
Sizes SizesOf(const AVFILTER_AUDIO_INFO& st)
{
    const auto format = static_cast<AVSampleFormat>(st.nSampleFormat);
    const int n = av_samples_get_buffer_size(nullptr, st.nChannels, st.nNbSamples, format, 1);
    return {std::clamp(n, 0, kLargest)};
}
Sizes SizesOf(const AVFILTER_VIDEO_INFO& st)
{
    int nLinesize[4] = {};
    std::size_t nPlanes[4] = {};
    const auto format = static_cast<AVPixelFormat>(st.nPixelFormat);
    if (av_image_fill_linesizes(nLinesize, format, st.nWidth) >= 0) {
        const std::ptrdiff_t nStrides[4] = {nLinesize[0], nLinesize[1], nLinesize[2], nLinesize[3]};
        av_image_fill_plane_sizes(nPlanes, format, st.nHeight, nStrides);
    }
    const auto size = [&](int i) { return static_cast<int>(std::min<std::size_t>(nPlanes[i], kLargest)); };
    return {size(0), size(1), size(2)};
}

// What is known about a handle, which stays here after it has been destroyed.
struct Slot {
    Handle h = 0;
    const jobs::Kind* pKind = nullptr;
    std::vector<std::pair<int, Sizes>> inputs = {}; // by id
    int nScaled[2] = {};                            // a scaler's pictures
    bool bWholePicture = false;

    Sizes Input(int nId) const
    {
        const auto it = std::find_if(inputs.begin(), inputs.end(),
                                     [&](const auto& input) { return input.first == nId; });
        return it == inputs.end() ? Sizes{} : it->second;
    }
};

class Machine
{
  public:
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
            st_Info.nInputId = m_Data.ConsumeIntegralInRange(-1, 2);
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
        Slot& slot = AnySlot();
        const bool bResult = New(slot, jobs::KindOf<Info>(bMix), [&](Handle* phHandle) {
            if constexpr (bMix) {
                return jobs::kMixInit<Info>(phHandle, pppInfo, nCount, szOut, szDescr);
            } else {
                return jobs::kInit<Info>(phHandle, szDescr, pppInfo == nullptr ? nullptr : (*pppInfo)[0]);
            }
        });
        for (std::size_t i = 0; bResult && i < infos.size(); ++i) {
            slot.inputs.emplace_back(infos[i].nInputId, SizesOf(infos[i]));
        }
        return bResult;
    }
    bool ScaleInit() { return New(AnySlot(), jobs::kKinds[jobs::kScaler], AVFilter_VideoScale_Init); }

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
        const Slot& slot = AnySlot();
        const int nId = m_Data.ConsumeIntegralInRange(-1, 2);
        const int n = slot.Input(nId)[0];
        // The block is as large as it says, but where the call must not look at it.
        const int nSize = m_Data.PickValueInArray({n, n, n / 2, 0, n + 1, -1, INT_MAX});
        GuardedBuffer in(static_cast<std::size_t>(std::clamp(nSize, 0, n + 1)));
        in.Protect();
        unsigned char* const pIn = OrNull(in.Data());
        return Call([&] { return AVFilter_Audio_MIXSend(slot.h, nId, pIn, nSize); });
    }

    // Planes of exactly the right size, or one block that is ample.
    template <bool bMix>
    bool VideoSend()
    {
        static GuardedBuffer ample(std::size_t{4} * kLargest);
        Slot& slot = AnySlot();
        const int nId =
            bMix || slot.inputs.empty() ? m_Data.ConsumeIntegralInRange(-1, 2) : slot.inputs[0].first;
        std::unique_ptr<GuardedBuffer> planes[3];
        unsigned char* p[3] = {OrNull(ample.Data())};
        Sizes n{};
        // After a whole picture the planes of a later conversion would go into that block: kept out.
        const bool bWhole = (!bMix && slot.bWholePicture) || m_Data.ConsumeBool();
        for (std::size_t i = 0; i < 3 && !bWhole; ++i) {
            const int nBytes = slot.Input(nId)[i];
            n[i] = Rarely() ? m_Data.PickValueInArray({-1, INT_MAX, 0}) : nBytes;
            planes[i] = std::make_unique<GuardedBuffer>(static_cast<std::size_t>(nBytes));
            planes[i]->Protect();
            p[i] = p[0] == nullptr ? nullptr : planes[i]->Data();
        }
        if constexpr (bMix) {
            return Call(
                [&] { return AVFilter_Video_MIXSend(slot.h, nId, p[0], p[1], p[2], n[0], n[1], n[2]); });
        }
        slot.bWholePicture = slot.bWholePicture || p[1] == nullptr;
        return Receive([&](unsigned char* pOut, int* pnOut) {
            return AVFilter_Video_Cvt(slot.h, p[0], p[1], p[2], n[0], n[1], n[2], pOut, pnOut);
        });
    }

    bool ScaleSet()
    {
        Slot& slot = AnySlot();
        int n[6];
        std::generate(std::begin(n), std::end(n), [this] { return Number(); });
        const bool bResult =
            Call([&] { return AVFilter_VideoScale_Set(slot.h, n[0], n[1], n[2], n[3], n[4], n[5]); });
        for (const int i : {0, 1}) {
            const auto format = static_cast<AVPixelFormat>(n[3 * i]);
            const int nBytes =
                bResult ? av_image_get_buffer_size(format, n[3 * i + 1], n[3 * i + 2], 1) : 0;
            slot.nScaled[i] = std::clamp(nBytes, 0, kLargest);
        }
        return bResult;
    }

    bool ScaleFmt()
    {
        const Slot& slot = AnySlot();
        GuardedBuffer in(static_cast<std::size_t>(slot.nScaled[0]));
        in.Protect();
        const int nNeeded = slot.nScaled[1];
        const int nRoom =
            m_Data.PickValueInArray({nNeeded, nNeeded, nNeeded + 5, nNeeded - 1, 0, -1, INT_MIN});
        GuardedBuffer out(static_cast<std::size_t>(std::max(nRoom, 0)));
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

  private:
    // Every call of the library but the last Destroy goes through here.
    template <class F>
    static bool Call(const F& call)
    {
        AVFilter_IsErrorOccur = true;
        AVFilter_dwErrorCode = 0;
        fuzz::Allocations allocations;
        const bool bResult = call();
        // Refused graphs of the audio family, and a mix's block that there was no memory for.
        const Handle n = AVFilter_dwErrorCode;
        if ((n >= AVFILTER_ERROR_AUDIO_ALLOC && n <= AVFILTER_ERROR_AUDIO_CONFIG_GRAPH) ||
            n == AVFILTER_ERROR_AUDIO_FRAME_BUFFER) {
            allocations.FreeTheRest();
        }
        return bResult;
    }
    static void Destroy(Slot& slot)
    {
        jobs::Demand(slot.pKind == nullptr || slot.pKind->Destroy(slot.h), "a destroying call has failed");
        slot = {slot.h};
    }
    template <class F>
    bool New(Slot& slot, const jobs::Kind& kind, const F& create)
    {
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
    // The first value, a small number or an extreme one.
    int Number(int nUsual = 0)
    {
        const auto n = m_Data.ConsumeIntegral<std::uint8_t>();
        return n < 128 ? nUsual
               : n < 250
                   ? m_Data.ConsumeIntegralInRange(0, 239)
                   : m_Data.PickValueInArray({INT_MIN, INT_MAX, -1, 1 << 30, 65535, 65536, 16384, 1 << 20,
                                              -2, 256, 1920, INT_MIN + 1, 4097, -25, 1080, INT_MAX - 63});
    }
    void FillIn(AVFILTER_AUDIO_INFO& st_Info)
    {
        st_Info.nSampleFormat = m_Data.ConsumeIntegralInRange(-1, 13);
        st_Info.nSampleRate = m_Data.PickValueInArray(
            {48000, 44100, 8000, 16000, 96000, 1, 0, -1, INT_MAX, 22050, 1000000, 7});
        st_Info.nNbSamples = Number(480);
        st_Info.nChannels = Number(2);
    }
    void FillIn(AVFILTER_VIDEO_INFO& st_Info)
    {
        st_Info.nPixelFormat = Number();
        st_Info.nWidth = Number(32);
        st_Info.nHeight = Number(16);
        st_Info.nTimeBase = Number(25);
    }

    // Runs a call that writes a block and its size.
    template <class F>
    bool Receive(const F& call)
    {
        static GuardedBuffer out(std::size_t{4} * kLargest);
        static const test::Bytes untouched(out.Data(), out.Data() + kProbe);
        int nOut = -7;
        unsigned char* const pOut = OrNull(out.Data());
        int* const pnOut = OrNull(&nOut);
        const bool bResult = Call([&] { return call(pOut, pnOut); });
        jobs::Demand(bResult ? nOut >= 0 && nOut <= 3 * kLargest : nOut == -7,
                     "a size that nothing was written for");
        unsigned char* const pEnd = out.Data() + std::max(nOut, 0);
        jobs::Demand(std::equal(untouched.begin(), untouched.end(), pEnd),
                     "written past the reported size");
        std::fill(out.Data(), pEnd, untouched[0]);
        return bResult;
    }

    FuzzedDataProvider m_Data;
    std::array<Slot, 6> m_Slots;
};

// The codes that each may report, and those that may come without the flag.
struct Operation {
    bool (Machine::*run)();
    std::vector<Handle> nCodes;
    std::vector<Handle> nQuiet = {};
};
constexpr Handle kA = 0x80F0000;
constexpr Handle kV = 0x80F1000;
const std::vector<Operation> kOperations{
    {&Machine::Create<AVFILTER_AUDIO_INFO, false>, {kA + 1, kA + 2, kA + 3, kA + 4, kA + 5}},
    {&Machine::Create<AVFILTER_AUDIO_INFO, true>, {kA + 1, kA + 2, kA + 3, kA + 4, kA + 5}},
    {&Machine::Take<jobs::kAudioFilter>, {kA + 1, kA + 6, kA + 7, kA + 8, kA + 9}, {kA + 7}},
    {&Machine::AudioSend, {kA + 1, kA + 6, kA + 7, kA + 8}, {kA + 6, kA + 7}},
    {&Machine::Take<jobs::kAudioMix>, {kA + 1, kA + 6, kA + 7, kA + 9}},
    {&Machine::Create<AVFILTER_VIDEO_INFO, false>, {kV + 1, kV + 2, kV + 3, kV + 4, kV + 5, kV + 6}},
    {&Machine::Create<AVFILTER_VIDEO_INFO, true>, {kV + 1, kV + 2, kV + 3, kV + 4, kV + 5, kV + 6}},
    {&Machine::VideoSend<false>, {kV + 1, kV + 2, kV + 7, kV + 8, kV + 9}},
    {&Machine::VideoSend<true>, {kV + 1, kV + 2, kV + 7, kV + 8}},
    {&Machine::Take<jobs::kVideoMix>, {kV + 1, kV + 2, kV + 7, kV + 9}},
    {&Machine::ScaleInit, {kV + 1}},
    {&Machine::ScaleSet, {kV + 5, kV + 7}},
    {&Machine::ScaleFmt, {kV + 1, kV + 7, kV + 0x10, kV + 0x11}},
    {&Machine::DestroyAny, {}},
};

void Machine::Run()
{
    const auto has = [](const std::vector<Handle>& codes) {
        return std::find(codes.begin(), codes.end(), AVFilter_dwErrorCode) != codes.end();
    };
    for (int i = 0; i < 48 && m_Data.remaining_bytes() > 0; ++i) {
        const Operation& operation = kOperations[Below(kOperations.size())];
        if ((this->*operation.run)()) {
            jobs::Demand(!AVFilter_IsErrorOccur && AVFilter_dwErrorCode == 0, "a report after success");
        } else {
            jobs::Demand(has(operation.nCodes), "the code is not in the list");
            jobs::Demand(AVFilter_IsErrorOccur || has(operation.nQuiet), "the flag is down");
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*pnArgs*/, char*** /*pppArgs*/)
{
    av_log_set_level(AV_LOG_QUIET);
    av_max_alloc(kLargest);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize)
{
    Machine(pData, nSize).Run();
    return 0;
}
