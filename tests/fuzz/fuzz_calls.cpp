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

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace
{

using jobs::Handle;
using jobs::Init;
using test::GuardedBuffer;

constexpr int kLargest = 8 << 20;    // FFmpeg's allocations, each
constexpr std::size_t kProbe = 4096; // bytes looked at for stray writes

void Require(bool bCondition, const char* szWhat)
{
    if (!bCondition) {
        std::fprintf(stderr, "broken: %s (code %llx)\n", szWhat, AVFilter_dwErrorCode);
        std::abort();
    }
}

// What is known about a handle, which stays here after it has been destroyed.
struct Slot {
    Handle h = 0;
    const jobs::Kind* pKind = nullptr;
    std::tuple<std::vector<AVFILTER_AUDIO_INFO>, std::vector<AVFILTER_VIDEO_INFO>> infos;
    std::array<int, 6> nGeometry{}; // of a scaler, if it was accepted
    bool bWholePicture = false;

    void Forget() { *this = Slot{h, nullptr, {}, {}, false}; }
};

// A block for whatever the interface gives no size for.
GuardedBuffer& Ample()
{
    static GuardedBuffer ample(std::size_t{4} * kLargest);
    return ample;
}

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
        return New(jobs::KindOf<Info>(bMix), infos, [&](Handle* phHandle) {
            if constexpr (bMix) {
                return Init(phHandle, pppInfo, nCount, szOut, szDescr);
            } else {
                return Init(phHandle, szDescr, pppInfo == nullptr ? nullptr : (*pppInfo)[0]);
            }
        });
    }
    bool ScaleInit()
    {
        return New(jobs::kKinds[jobs::kScaler], std::vector<AVFILTER_VIDEO_INFO>(),
                   AVFilter_VideoScale_Init);
    }

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
        const auto* const p = Find<AVFILTER_AUDIO_INFO>(slot, nId);
        const int nBlock =
            p == nullptr
                ? 0
                : std::clamp(av_samples_get_buffer_size(nullptr, p->nChannels, p->nNbSamples,
                                                        static_cast<AVSampleFormat>(p->nSampleFormat), 1),
                             0, kLargest);
        // The block is as large as it says, but where the call must not look at it.
        const int nSize = m_Data.PickValueInArray({nBlock, nBlock, nBlock / 2, 0, nBlock + 1, -1, INT_MAX});
        GuardedBuffer in(static_cast<std::size_t>(std::clamp(nSize, 0, nBlock + 1)));
        in.Protect();
        unsigned char* const pIn = OrNull(in.Data());
        return Call([&] { return AVFilter_Audio_MIXSend(slot.h, nId, pIn, nSize); });
    }

    bool VideoCvt()
    {
        Slot& slot = AnySlot();
        const auto& infos = std::get<std::vector<AVFILTER_VIDEO_INFO>>(slot.infos);
        // After a whole picture the planes of a later call would go into that block: kept out.
        const Picture picture = AnyPicture(infos.empty() ? nullptr : infos.data(), slot.bWholePicture);
        slot.bWholePicture = slot.bWholePicture || picture.p[1] == nullptr;
        return Receive([&](unsigned char* pOut, int* pnOut) {
            return AVFilter_Video_Cvt(slot.h, picture.p[0], picture.p[1], picture.p[2], picture.n[0],
                                      picture.n[1], picture.n[2], pOut, pnOut);
        });
    }

    bool VideoSend()
    {
        const Slot& slot = AnySlot();
        const int nId = m_Data.ConsumeIntegralInRange(-1, 2);
        const Picture picture = AnyPicture(Find<AVFILTER_VIDEO_INFO>(slot, nId), false);
        return Call([&] {
            return AVFilter_Video_MIXSend(slot.h, nId, picture.p[0], picture.p[1], picture.p[2],
                                          picture.n[0], picture.n[1], picture.n[2]);
        });
    }

    bool ScaleSet()
    {
        Slot& slot = AnySlot();
        std::array<int, 6> n{};
        std::generate(n.begin(), n.end(), [this] { return Number(); });
        const bool bResult =
            Call([&] { return AVFilter_VideoScale_Set(slot.h, n[0], n[1], n[2], n[3], n[4], n[5]); });
        slot.nGeometry = bResult ? n : std::array<int, 6>{};
        return bResult;
    }

    bool ScaleFmt()
    {
        const Slot& slot = AnySlot();
        const auto bytes = [&n = slot.nGeometry](std::size_t i) {
            return std::clamp(
                av_image_get_buffer_size(static_cast<AVPixelFormat>(n[i]), n[i + 1], n[i + 2], 1), 0,
                kLargest);
        };
        GuardedBuffer in(static_cast<std::size_t>(bytes(0)));
        in.Protect();
        const int nNeeded = bytes(3);
        const int nRoom =
            m_Data.PickValueInArray({nNeeded, nNeeded, nNeeded + 5, nNeeded - 1, 0, -1, INT_MIN});
        GuardedBuffer out(static_cast<std::size_t>(std::max(nRoom, 0)));
        const char* const pIn = OrNull(reinterpret_cast<const char*>(in.Data()));
        unsigned char* const pOut = OrNull(out.Data());
        int nOut = nRoom;
        const bool bResult = Call([&] { return AVFilter_VideoScale_Fmt(slot.h, pIn, pOut, &nOut); });
        const bool bTold = bResult || AVFilter_dwErrorCode == AVFILTER_ERROR_VIDEO_BUFFER_TOO_SMALL;
        Require(nOut == (bTold ? nNeeded : nRoom), "a size that is not the picture's");
        return bResult;
    }

    // By the destroying call of any kind.
    bool DestroyAny()
    {
        Slot& slot = AnySlot();
        const jobs::Kind& kind = jobs::kKinds[Below(jobs::kKinds.size())];
        if (slot.pKind != nullptr && slot.pKind->cFamily == kind.cFamily) {
            slot.Forget();
        }
        return Call([&] { return kind.Destroy(slot.h); });
    }

  private:
    struct Picture {
        std::array<std::unique_ptr<GuardedBuffer>, 3> planes;
        std::array<unsigned char*, 3> p{};
        std::array<int, 3> n{};
    };

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
        Require(slot.pKind == nullptr || slot.pKind->Destroy(slot.h), "a destroying call has failed");
        slot.Forget();
    }
    template <class Info, class F>
    bool New(const jobs::Kind& kind, const std::vector<Info>& infos, const F& create)
    {
        Slot& slot = AnySlot();
        Destroy(slot);
        Handle h = 0;
        Handle* const phHandle = OrNull(&h);
        const bool bResult = Call([&] { return create(phHandle); });
        Require(bResult == (h >= 1000000001ULL && h <= 9000000002ULL) && (bResult || h == 0),
                "a wrong handle");
        if (bResult) {
            slot = {h, &kind, {}, {}, false};
            std::get<std::vector<Info>>(slot.infos) = infos;
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
        st_Info.nPixelFormat = Number(AV_PIX_FMT_YUV420P);
        st_Info.nWidth = Number(32);
        st_Info.nHeight = Number(16);
        st_Info.nTimeBase = Number(25);
    }

    template <class Info>
    static const Info* Find(const Slot& slot, int nId)
    {
        const auto& infos = std::get<std::vector<Info>>(slot.infos);
        const auto it = std::find_if(infos.begin(), infos.end(),
                                     [&](const Info& st_Info) { return st_Info.nInputId == nId; });
        return it == infos.end() ? nullptr : &*it;
    }

    // Planes of exactly the right size, or one block.
    Picture AnyPicture(const AVFILTER_VIDEO_INFO* pInfo, bool bWhole)
    {
        Picture picture;
        picture.p[0] = OrNull(Ample().Data());
        if (bWhole || m_Data.ConsumeBool()) {
            return picture;
        }
        std::array<int, 4> nLinesize{};
        std::array<std::size_t, 4> nPlane{};
        const auto format = static_cast<AVPixelFormat>(pInfo == nullptr ? -1 : pInfo->nPixelFormat);
        if (av_image_fill_linesizes(nLinesize.data(), format, pInfo == nullptr ? 0 : pInfo->nWidth) >= 0) {
            const std::array<std::ptrdiff_t, 4> nStride{nLinesize[0], nLinesize[1], nLinesize[2],
                                                        nLinesize[3]};
            av_image_fill_plane_sizes(nPlane.data(), format, pInfo->nHeight, nStride.data());
        }
        for (std::size_t i = 0; i < 3; ++i) {
            const std::size_t nBytes = std::min<std::size_t>(nPlane[i], kLargest);
            picture.n[i] = Rarely() ? m_Data.PickValueInArray({-1, INT_MAX, 0}) : static_cast<int>(nBytes);
            picture.planes[i] = std::make_unique<GuardedBuffer>(nBytes);
            picture.planes[i]->Protect();
            picture.p[i] = picture.p[0] == nullptr ? nullptr : picture.planes[i]->Data();
        }
        return picture;
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
        Require(bResult ? nOut >= 0 && nOut <= 3 * kLargest : nOut == -7,
                "a size that nothing was written for");
        unsigned char* const pEnd = out.Data() + std::max(nOut, 0);
        Require(std::equal(untouched.begin(), untouched.end(), pEnd), "written past the reported size");
        std::fill(out.Data(), pEnd, untouched[0]);
        return bResult;
    }

    FuzzedDataProvider m_Data;
    std::array<Slot, 6> m_Slots;
};

struct Operation {
    bool (Machine::*run)();
    Handle nBase;
    std::vector<Handle> nCodes; // that it may report, without the base
    std::vector<Handle> nQuiet; // that may come without the flag
};

void Machine::Run()
{
    constexpr Handle kAudio = 0x80F0000;
    constexpr Handle kVideo = 0x80F1000;
    static const std::vector<Operation> operations{
        {&Machine::Create<AVFILTER_AUDIO_INFO, false>, kAudio, {1, 2, 3, 4, 5}, {}},
        {&Machine::Create<AVFILTER_AUDIO_INFO, true>, kAudio, {1, 2, 3, 4, 5}, {}},
        {&Machine::Take<jobs::kAudioFilter>, kAudio, {1, 6, 7, 8, 9}, {7}},
        {&Machine::AudioSend, kAudio, {1, 6, 7, 8}, {6, 7}},
        {&Machine::Take<jobs::kAudioMix>, kAudio, {1, 6, 7, 9}, {}},
        {&Machine::Create<AVFILTER_VIDEO_INFO, false>, kVideo, {1, 2, 3, 4, 5, 6}, {}},
        {&Machine::Create<AVFILTER_VIDEO_INFO, true>, kVideo, {1, 2, 3, 4, 5, 6}, {}},
        {&Machine::VideoCvt, kVideo, {1, 2, 7, 8, 9}, {}},
        {&Machine::VideoSend, kVideo, {1, 2, 7, 8}, {}},
        {&Machine::Take<jobs::kVideoMix>, kVideo, {1, 2, 7, 9}, {}},
        {&Machine::ScaleInit, kVideo, {1}, {}},
        {&Machine::ScaleSet, kVideo, {5, 7}, {}},
        {&Machine::ScaleFmt, kVideo, {1, 7, 0x10, 0x11}, {}},
        {&Machine::DestroyAny, 0, {}, {}},
    };
    const auto has = [](const std::vector<Handle>& codes, Handle nCode) {
        return std::find(codes.begin(), codes.end(), nCode) != codes.end();
    };
    for (int i = 0; i < 48 && m_Data.remaining_bytes() > 0; ++i) {
        const Operation& operation = operations[Below(operations.size())];
        const bool bResult = (this->*operation.run)();
        const Handle nCode = AVFilter_GetLastError(nullptr);
        if (bResult) {
            Require(!AVFilter_IsErrorOccur && nCode == 0, "a report after success");
        } else {
            Require(has(operation.nCodes, nCode - operation.nBase), "the code is not in the list");
            Require(AVFilter_IsErrorOccur || has(operation.nQuiet, nCode - operation.nBase),
                    "the flag is down");
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
