// Reads its input as a program of library calls and runs it. What is looked for, besides crashes and
// what the sanitizers see: a code that the header does not list for the call, a flag that does not match
// the result, bytes written past the reported size, anything written by a failed call, and memory that
// is left behind where the header does not say so.
//
// README.md describes the input's form and what is kept out.

#include "Telvane_AVFilter.h"

#include "allocations.h"
#include "descriptions.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
#include <libavutil/samplefmt.h>
}

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <sys/mman.h>
#include <utility>
#include <vector>

namespace
{

constexpr std::size_t kLargestAllocation = std::size_t{8} << 20; // FFmpeg's, each
constexpr std::size_t kOutput = kLargestAllocation * 4;          // four planes
constexpr std::size_t kProbe = 4096;                             // bytes looked at for stray writes
constexpr int kMaxCalls = 48;
constexpr unsigned char kFill = 0xCD;

void Require(bool bCondition, const char* szWhat)
{
    if (!bCondition) {
        std::fprintf(stderr, "broken: %s (code %llx)\n", szWhat, AVFilter_dwErrorCode);
        std::abort();
    }
}

using Codes = std::initializer_list<unsigned long long>;

// Every call's outcome passes here.
void Check(bool bResult, Codes codes, bool bQuiet = false)
{
    if (bResult) {
        Require(!AVFilter_IsErrorOccur, "the flag is raised after success");
        Require(AVFilter_dwErrorCode == 0, "a code is stored after success");
        return;
    }
    const unsigned long long nCode = AVFilter_GetLastError(nullptr);
    Require(std::find(codes.begin(), codes.end(), nCode) != codes.end(), "the code is not in the list");
    Require(AVFilter_IsErrorOccur || bQuiet, "the flag is down after a failure");
}

void BeforeCall()
{
    AVFilter_IsErrorOccur = true;
    AVFilter_dwErrorCode = 0;
}

// One large block for all outputs, with pages behind it that cannot be touched.
class Output
{
  public:
    Output()
        : m_pStart(static_cast<unsigned char*>(mmap(nullptr, kOutput + kProbe, PROT_READ | PROT_WRITE,
                                                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)))
    {
        Require(mprotect(m_pStart + kOutput, kProbe, PROT_NONE) == 0, "no guard page");
        std::memset(m_pStart, kFill, 2 * kProbe);
        m_Fill.fill(kFill);
    }
    unsigned char* Start() { return m_pStart; }
    // Ends right before the guard page.
    unsigned char* Last(std::size_t nSize) { return m_pStart + kOutput - nSize; }

    // Not for Last(). Pages past the front are touched by large outputs alone.
    void CheckFailed() { Require(IsFilled(0, kProbe), "a failed call has written"); }
    void CheckWritten(int nLen)
    {
        Require(nLen >= 0 && static_cast<std::size_t>(nLen) <= kOutput, "an impossible size");
        const auto nSize = static_cast<std::size_t>(nLen);
        if (nSize <= kProbe) {
            Require(IsFilled(nSize, kProbe), "written past the reported size");
            std::memset(m_pStart, kFill, nSize);
        } else {
            madvise(m_pStart, kOutput, MADV_DONTNEED);
            std::memset(m_pStart, kFill, 2 * kProbe);
        }
    }

  private:
    bool IsFilled(std::size_t nFrom, std::size_t nCount) const
    {
        return std::memcmp(m_pStart + nFrom, m_Fill.data(), nCount) == 0;
    }

    unsigned char* m_pStart;
    std::array<unsigned char, kProbe> m_Fill{};
};

// The input, read byte by byte; past its end it reads as '0'.
class Program
{
  public:
    Program(const std::uint8_t* pData, std::size_t nSize) : m_pData(pData), m_pEnd(pData + nSize) {}

    bool IsDone() const { return m_pData == m_pEnd; }
    unsigned char Byte() { return IsDone() ? '0' : *m_pData++; }
    // '0' gives 0, '1' gives 1 and so on, through all 256 values.
    unsigned Small() { return static_cast<unsigned char>(Byte() - '0'); }
    unsigned Pick(std::size_t nCount) { return Small() % static_cast<unsigned>(nCount); }
    // A small number, or for the 16 characters from the space to '/' an extreme one.
    int Number()
    {
        static constexpr std::array<int, 16> kExtremes{
            INT_MIN, INT_MAX, -1,   1 << 30,     65535, 65536, 16384, 1 << 20,
            -2,      256,     1920, -2147483647, 4097,  -25,   1080,  INT_MAX - 63};
        const unsigned n = Small();
        return n < 0xF0 ? static_cast<int>(n) : kExtremes[n & 0xF];
    }
    int Rate()
    {
        static constexpr std::array<int, 12> kRates{48000, 44100, 8000,    16000, 96000,   1,
                                                    0,     -1,    INT_MAX, 22050, 1000000, 7};
        return kRates[Pick(kRates.size())];
    }
    // '<' starts a text that runs to the end of the line, any other byte a number of words.
    std::string Text(std::size_t nMost)
    {
        std::string text;
        if (const unsigned char first = Byte(); first == '<') {
            while (!IsDone()) {
                const unsigned char byte = Byte();
                if (byte == '\n') {
                    break;
                }
                text += static_cast<char>(byte == 0 ? '0' : byte);
            }
        } else {
            for (int n = (first - '0') & 0xF; n > 0; --n) {
                text += fuzz::Word(Small());
            }
        }
        text.resize(std::min(text.size(), nMost));
        return text;
    }
    // Empty for a text that is kept out.
    std::string Description()
    {
        std::string text = Text(400);
        return fuzz::IsAllowed(text) ? text : std::string();
    }

  private:
    const std::uint8_t* m_pData;
    const std::uint8_t* m_pEnd;
};

enum class Kind { None, Audio, AudioMix, Video, VideoMix, Scale };

// What the machine knows about a live handle.
struct Job {
    Kind kind = Kind::None;
    std::vector<AVFILTER_AUDIO_INFO> vec_Audio;
    std::vector<AVFILTER_VIDEO_INFO> vec_Video;
    std::array<int, 6> nGeometry{}; // as passed to AVFilter_VideoScale_Set
    bool bSet = false;
    bool bWholePicture = false;
};

class Machine
{
  public:
    Machine(Program& program, Output& output) : m_Program(program), m_Output(output) {}
    ~Machine()
    {
        while (!m_Jobs.empty()) {
            Destroy(m_Jobs.begin()->first);
        }
    }
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    void Run()
    {
        using Call = void (Machine::*)();
        struct Entry {
            char cLetter;
            Call call;
        };
        static constexpr std::array<Entry, 17> kCalls{{{'a', &Machine::AudioInit},
                                                       {'A', &Machine::AudioCvt},
                                                       {'m', &Machine::AudioMixInit},
                                                       {'s', &Machine::AudioSend},
                                                       {'r', &Machine::AudioRecv},
                                                       {'v', &Machine::VideoInit},
                                                       {'V', &Machine::VideoCvt},
                                                       {'n', &Machine::VideoMixInit},
                                                       {'t', &Machine::VideoSend},
                                                       {'u', &Machine::VideoRecv},
                                                       {'i', &Machine::ScaleInit},
                                                       {'c', &Machine::ScaleSet},
                                                       {'f', &Machine::ScaleFmt},
                                                       {'d', &Machine::DestroySlot},
                                                       {'x', &Machine::DestroyAny},
                                                       {'y', &Machine::CopySlot},
                                                       {'g', &Machine::LastError}}};
        for (int i = 0; i < kMaxCalls && !m_Program.IsDone(); ++i) {
            const unsigned char byte = m_Program.Byte();
            const auto* it = std::find_if(kCalls.begin(), kCalls.end(), [&](const Entry& entry) {
                return entry.cLetter == static_cast<char>(byte);
            });
            (this->*(it != kCalls.end() ? it->call : kCalls[byte % kCalls.size()].call))();
        }
    }

  private:
    // The slots hold live and destroyed handles, some twice.
    unsigned long long& AnySlot() { return m_hSlots[m_Program.Pick(m_hSlots.size())]; }

    Job& JobOf(unsigned long long hHandle)
    {
        static Job none;
        const auto it = m_Jobs.find(hHandle);
        return it == m_Jobs.end() ? none = Job() : it->second;
    }

    void Destroy(unsigned long long hHandle)
    {
        BeforeCall();
        bool bResult = true;
        switch (JobOf(hHandle).kind) {
        case Kind::None:
            return;
        case Kind::Audio:
            bResult = AVFilter_Audio_Destroy(hHandle);
            break;
        case Kind::AudioMix:
            bResult = AVFilter_Audio_MIXDestroy(hHandle);
            break;
        case Kind::Video:
            bResult = AVFilter_Video_Destroy(hHandle);
            break;
        case Kind::VideoMix:
            bResult = AVFilter_Video_MIXDestroy(hHandle);
            break;
        case Kind::Scale:
            bResult = AVFilter_VideoScale_Destory(hHandle);
            break;
        }
        Check(bResult, {});
        Require(bResult, "a destroying call has failed");
        m_Jobs.erase(hHandle);
    }

    // Files the outcome of a creating call.
    void Created(bool bResult, unsigned long long hHandle, unsigned long long& hSlot, Job job)
    {
        if (!bResult) {
            Require(hHandle == 0, "a failed creating call has written");
            return;
        }
        Require(hHandle >= 1000000001ULL && hHandle <= 9000000002ULL, "a handle out of bounds");
        Require(m_Jobs.emplace(hHandle, std::move(job)).second, "a live handle given again");
        hSlot = hHandle;
    }

    AVFILTER_AUDIO_INFO AudioInfo()
    {
        AVFILTER_AUDIO_INFO st_Info{};
        st_Info.nSampleFormat = m_Program.Number();
        st_Info.nSampleRate = m_Program.Rate();
        const int nSamples = m_Program.Number();
        st_Info.nNbSamples = nSamples > 0 && nSamples < 240 ? nSamples * 16 : nSamples;
        st_Info.nChannels = m_Program.Number();
        st_Info.nReserved = -1;
        return st_Info;
    }

    AVFILTER_VIDEO_INFO VideoInfo()
    {
        AVFILTER_VIDEO_INFO st_Info{};
        st_Info.nPixelFormat = m_Program.Number();
        st_Info.nWidth = m_Program.Number();
        st_Info.nHeight = m_Program.Number();
        st_Info.nTimeBase = m_Program.Number();
        return st_Info;
    }

    // A mix's record: label and id come first. '~' as id makes a label without an end.
    template <class Info>
    void Name(Info& st_Info)
    {
        const unsigned nId = m_Program.Small();
        st_Info.nInputId = static_cast<int>(nId);
        std::string name = m_Program.Text(63);
        if (nId == '~' - '0') {
            name.assign(64, 'n');
        }
        std::copy(name.begin(), name.end(), st_Info.szName);
    }

    // A mix's arguments, some of them null.
    template <class Info, class Init>
    void Mix(Kind kind, Init init, Info (Machine::*pInfo)(), std::vector<Info> Job::*pst_Infos,
             bool bLeavesMemory, Codes codes)
    {
        unsigned long long& hSlot = AnySlot();
        Destroy(hSlot);
        Job job;
        job.kind = kind;
        const int nInputs = static_cast<int>(m_Program.Pick(5));
        std::vector<Info>& vec_Infos = job.*pst_Infos;
        for (int i = 0; i < nInputs; ++i) {
            Info st_Name{};
            Name(st_Name);
            Info st_Info = (this->*pInfo)();
            std::copy(std::begin(st_Name.szName), std::end(st_Name.szName), st_Info.szName);
            st_Info.nInputId = st_Name.nInputId;
            vec_Infos.push_back(st_Info);
        }
        const unsigned nNull = m_Program.Small(); // '0': none is null
        const std::string out = m_Program.Text(80);
        const std::string description = m_Program.Description();
        std::vector<Info*> vec_Pointers;
        vec_Pointers.reserve(vec_Infos.size());
        for (Info& st_Info : vec_Infos) {
            vec_Pointers.push_back((nNull & 1U) != 0 && vec_Pointers.size() == 1 ? nullptr : &st_Info);
        }
        Info** ppInfo = (nNull & 2U) != 0 ? nullptr : vec_Pointers.data();
        unsigned long long hHandle = 0;
        const int nCount = nInputs == 0 ? std::min(m_Program.Number(), 0) : nInputs;
        BeforeCall();
        fuzz::Allocations allocations;
        const bool bResult = init(
            (nNull & 4U) != 0 ? nullptr : &hHandle, (nNull & 8U) != 0 ? nullptr : &ppInfo, nCount,
            (nNull & 16U) != 0 ? nullptr : out.c_str(), (nNull & 32U) != 0 ? nullptr : description.c_str());
        allocations.End(!bResult && bLeavesMemory);
        Check(bResult, codes);
        Created(bResult, hHandle, hSlot, std::move(job));
    }

    void AudioInit()
    {
        unsigned long long& hSlot = AnySlot();
        Destroy(hSlot);
        Job job;
        job.kind = Kind::Audio;
        AVFILTER_AUDIO_INFO st_Info = AudioInfo();
        const unsigned nNull = m_Program.Small();
        const std::string description = m_Program.Description();
        unsigned long long hHandle = 0;
        BeforeCall();
        fuzz::Allocations allocations;
        const bool bResult = AVFilter_Audio_Init((nNull & 1U) != 0 ? nullptr : &hHandle,
                                                 (nNull & 2U) != 0 ? nullptr : description.c_str(),
                                                 (nNull & 4U) != 0 ? nullptr : &st_Info);
        allocations.End(!bResult);
        Check(bResult, {AVFILTER_ERROR_AUDIO_INVALID_PARAM, AVFILTER_ERROR_AUDIO_ALLOC,
                        AVFILTER_ERROR_AUDIO_CREATE_FILTER, AVFILTER_ERROR_AUDIO_PARSE_GRAPH,
                        AVFILTER_ERROR_AUDIO_CONFIG_GRAPH});
        job.vec_Audio = {st_Info};
        Created(bResult, hHandle, hSlot, std::move(job));
    }

    void AudioMixInit()
    {
        Mix(Kind::AudioMix, AVFilter_Audio_MIXInit, &Machine::AudioInfo, &Job::vec_Audio, true,
            {AVFILTER_ERROR_AUDIO_INVALID_PARAM, AVFILTER_ERROR_AUDIO_ALLOC,
             AVFILTER_ERROR_AUDIO_CREATE_FILTER, AVFILTER_ERROR_AUDIO_PARSE_GRAPH,
             AVFILTER_ERROR_AUDIO_CONFIG_GRAPH});
    }

    void VideoInit()
    {
        unsigned long long& hSlot = AnySlot();
        Destroy(hSlot);
        Job job;
        job.kind = Kind::Video;
        AVFILTER_VIDEO_INFO st_Info = VideoInfo();
        const unsigned nNull = m_Program.Small();
        const std::string description = m_Program.Description();
        unsigned long long hHandle = 0;
        BeforeCall();
        const bool bResult = AVFilter_Video_Init((nNull & 1U) != 0 ? nullptr : &hHandle,
                                                 (nNull & 2U) != 0 ? nullptr : description.c_str(),
                                                 (nNull & 4U) != 0 ? nullptr : &st_Info);
        Check(bResult, {AVFILTER_ERROR_VIDEO_INVALID_PARAM, AVFILTER_ERROR_VIDEO_ALLOC,
                        AVFILTER_ERROR_VIDEO_CREATE_SOURCE, AVFILTER_ERROR_VIDEO_CREATE_SINK,
                        AVFILTER_ERROR_VIDEO_PARSE_GRAPH, AVFILTER_ERROR_VIDEO_CONFIG_GRAPH});
        job.vec_Video = {st_Info};
        Created(bResult, hHandle, hSlot, std::move(job));
    }

    void VideoMixInit()
    {
        Mix(Kind::VideoMix, AVFilter_Video_MIXInit, &Machine::VideoInfo, &Job::vec_Video, false,
            {AVFILTER_ERROR_VIDEO_INVALID_PARAM, AVFILTER_ERROR_VIDEO_ALLOC,
             AVFILTER_ERROR_VIDEO_CREATE_SOURCE, AVFILTER_ERROR_VIDEO_CREATE_SINK,
             AVFILTER_ERROR_VIDEO_PARSE_GRAPH, AVFILTER_ERROR_VIDEO_CONFIG_GRAPH});
    }

    // A call that writes a block to pOut and its size to pnLen.
    template <class Call>
    void Receive(Call call, Codes codes)
    {
        const unsigned nNull = m_Program.Small();
        int nLen = -7;
        BeforeCall();
        const bool bResult = call((nNull & 1U) != 0 ? nullptr : m_Output.Start(),
                                  (nNull & 2U) != 0 ? nullptr : &nLen, nNull);
        Check(bResult, codes, AVFilter_dwErrorCode == AVFILTER_ERROR_AUDIO_FRAME_BUFFER);
        if (bResult) {
            m_Output.CheckWritten(nLen);
        } else {
            Require(nLen == -7, "a failed call has written a size");
            m_Output.CheckFailed();
        }
    }

    void AudioCvt()
    {
        const unsigned long long hHandle = AnySlot();
        unsigned char unread = 0;
        Receive(
            [&](unsigned char* pOut, int* pnLen, unsigned nNull) {
                return AVFilter_Audio_Cvt(hHandle, (nNull & 4U) != 0 ? nullptr : &unread, INT_MAX, pOut,
                                          pnLen);
            },
            {AVFILTER_ERROR_AUDIO_INVALID_PARAM, AVFILTER_ERROR_AUDIO_NOT_FOUND,
             AVFILTER_ERROR_AUDIO_FRAME_BUFFER, AVFILTER_ERROR_AUDIO_SEND_FRAME,
             AVFILTER_ERROR_AUDIO_RECEIVE_FRAME});
    }

    void AudioRecv()
    {
        const unsigned long long hHandle = AnySlot();
        Receive([&](unsigned char* pOut, int* pnLen,
                    unsigned) { return AVFilter_Audio_MIXRecv(hHandle, pOut, pnLen); },
                {AVFILTER_ERROR_AUDIO_INVALID_PARAM, AVFILTER_ERROR_AUDIO_NOT_FOUND,
                 AVFILTER_ERROR_AUDIO_FRAME_BUFFER, AVFILTER_ERROR_AUDIO_RECEIVE_FRAME});
    }

    void VideoRecv()
    {
        const unsigned long long hHandle = AnySlot();
        Receive([&](unsigned char* pOut, int* pnLen,
                    unsigned) { return AVFilter_Video_MIXRecv(hHandle, pOut, pnLen); },
                {AVFILTER_ERROR_VIDEO_NOT_FOUND, AVFILTER_ERROR_VIDEO_ALLOC,
                 AVFILTER_ERROR_VIDEO_RECEIVE_FRAME, AVFILTER_ERROR_VIDEO_INVALID_PARAM});
    }

    void AudioSend()
    {
        const unsigned long long hHandle = AnySlot();
        const Job& job = JobOf(hHandle);
        const int nId = static_cast<int>(m_Program.Small());
        const unsigned nHow = m_Program.Pick(8);
        int nBlock = 0;
        for (const AVFILTER_AUDIO_INFO& st_Info : job.vec_Audio) {
            if (job.kind == Kind::Audio || st_Info.nInputId == nId) {
                const int nBytes =
                    av_samples_get_buffer_size(nullptr, st_Info.nChannels, st_Info.nNbSamples,
                                               static_cast<AVSampleFormat>(st_Info.nSampleFormat), 1);
                nBlock = std::clamp(nBytes, 0, static_cast<int>(kLargestAllocation));
                break;
            }
        }
        // The caller's block is exactly as large as it says, but where the call must not look at it.
        const int nSizes[8] = {nBlock, nBlock, nBlock, nBlock / 2, 0, -1, INT_MAX, nBlock + 1};
        const int nSize = nSizes[nHow];
        const std::vector<unsigned char> data(static_cast<std::size_t>(std::clamp(nSize, 1, nBlock + 1)),
                                              static_cast<unsigned char>(nId));
        std::unique_ptr<unsigned char[]> pData(new unsigned char[data.size()]);
        std::copy(data.begin(), data.end(), pData.get());
        BeforeCall();
        fuzz::Allocations allocations;
        const bool bResult = AVFilter_Audio_MIXSend(hHandle, nId, nHow == 2 ? nullptr : pData.get(), nSize);
        allocations.End(!bResult && AVFilter_dwErrorCode == AVFILTER_ERROR_AUDIO_FRAME_BUFFER);
        Check(bResult,
              {AVFILTER_ERROR_AUDIO_INVALID_PARAM, AVFILTER_ERROR_AUDIO_NOT_FOUND,
               AVFILTER_ERROR_AUDIO_FRAME_BUFFER, AVFILTER_ERROR_AUDIO_SEND_FRAME},
              AVFilter_dwErrorCode == AVFILTER_ERROR_AUDIO_FRAME_BUFFER ||
                  AVFilter_dwErrorCode == AVFILTER_ERROR_AUDIO_NOT_FOUND);
        Require(std::equal(data.begin(), data.end(), pData.get()), "the caller's samples were written to");
    }

    // A picture to send: planes of exactly the right size, or one block.
    struct Picture {
        std::array<unsigned char*, 3> pPlane{};
        std::array<int, 3> nSize{};
    };
    Picture MakePicture(const AVFILTER_VIDEO_INFO* pInfo)
    {
        const unsigned nHow = m_Program.Pick(8);
        Picture picture;
        std::array<std::size_t, 4> nPlane{};
        if (pInfo != nullptr) {
            const auto format = static_cast<AVPixelFormat>(pInfo->nPixelFormat);
            std::array<int, 4> nLinesize{};
            std::array<std::ptrdiff_t, 4> nStride{};
            if (av_image_fill_linesizes(nLinesize.data(), format, pInfo->nWidth) >= 0) {
                std::copy(nLinesize.begin(), nLinesize.end(), nStride.begin());
                if (av_image_fill_plane_sizes(nPlane.data(), format, pInfo->nHeight, nStride.data()) < 0) {
                    nPlane = {};
                }
            }
        }
        // A block of the harness serves where the header leaves the caller to know what FFmpeg reads.
        if (nHow == 1) {
            picture.pPlane[0] = WholeBlock(pInfo);
            return picture;
        }
        for (std::size_t i = 0; i < 3; ++i) {
            const std::size_t nBytes = std::min(nPlane[i], kLargestAllocation);
            picture.nSize[i] = static_cast<int>(nBytes);
            m_Blocks.emplace_back(new unsigned char[nBytes + 1]);
            picture.pPlane[i] = m_Blocks.back().get();
            std::memset(picture.pPlane[i], static_cast<int>(i + nHow), nBytes + 1);
        }
        switch (nHow) {
        case 2:
            picture.nSize[1] = -1;
            break;
        case 3:
            picture.nSize[0] /= 2;
            break;
        case 4:
            picture.nSize[2] = INT_MAX;
            break;
        case 5:
            picture.pPlane[0] = nullptr;
            break;
        default:
            break;
        }
        return picture;
    }

    // A whole picture: exactly the documented size for even 4:2:0, ample for all else. It stays until
    // all handles are gone.
    unsigned char* WholeBlock(const AVFILTER_VIDEO_INFO* pInfo)
    {
        const bool bExact = pInfo != nullptr && pInfo->nPixelFormat == AV_PIX_FMT_YUV420P &&
                            pInfo->nWidth % 2 == 0 && pInfo->nHeight % 2 == 0 && pInfo->nWidth < 4096 &&
                            pInfo->nHeight < 4096;
        std::size_t nBytes = kLargestAllocation * 4;
        if (bExact) {
            nBytes =
                static_cast<std::size_t>(pInfo->nWidth) * static_cast<std::size_t>(pInfo->nHeight) * 3 / 2 +
                64;
            m_Blocks.emplace_back(new unsigned char[nBytes]);
            std::memset(m_Blocks.back().get(), 77, nBytes);
            return m_Blocks.back().get();
        }
        static unsigned char* pAmple = static_cast<unsigned char*>(mmap(
            nullptr, nBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
        return pAmple;
    }

    void VideoCvt()
    {
        const unsigned long long hHandle = AnySlot();
        Job& job = JobOf(hHandle);
        const AVFILTER_VIDEO_INFO* pInfo = job.kind == Kind::Video ? &job.vec_Video.front() : nullptr;
        Picture picture = MakePicture(pInfo);
        if (job.bWholePicture) {
            // After a whole picture the planes of a later call would go into that block: kept out.
            picture = {{WholeBlock(nullptr)}, {}};
        }
        job.bWholePicture = job.bWholePicture || picture.pPlane[1] == nullptr;
        Receive(
            [&](unsigned char* pOut, int* pnLen, unsigned) {
                return AVFilter_Video_Cvt(hHandle, picture.pPlane[0], picture.pPlane[1], picture.pPlane[2],
                                          picture.nSize[0], picture.nSize[1], picture.nSize[2], pOut,
                                          pnLen);
            },
            {AVFILTER_ERROR_VIDEO_INVALID_PARAM, AVFILTER_ERROR_VIDEO_NOT_FOUND, AVFILTER_ERROR_VIDEO_ALLOC,
             AVFILTER_ERROR_VIDEO_SEND_FRAME, AVFILTER_ERROR_VIDEO_RECEIVE_FRAME});
    }

    void VideoSend()
    {
        const unsigned long long hHandle = AnySlot();
        Job& job = JobOf(hHandle);
        const int nId = static_cast<int>(m_Program.Small());
        const auto it =
            std::find_if(job.vec_Video.begin(), job.vec_Video.end(),
                         [&](const AVFILTER_VIDEO_INFO& st_Info) { return st_Info.nInputId == nId; });
        const Picture picture = MakePicture(it == job.vec_Video.end() ? nullptr : &*it);
        BeforeCall();
        Check(AVFilter_Video_MIXSend(hHandle, nId, picture.pPlane[0], picture.pPlane[1], picture.pPlane[2],
                                     picture.nSize[0], picture.nSize[1], picture.nSize[2]),
              {AVFILTER_ERROR_VIDEO_INVALID_PARAM, AVFILTER_ERROR_VIDEO_NOT_FOUND,
               AVFILTER_ERROR_VIDEO_ALLOC, AVFILTER_ERROR_VIDEO_SEND_FRAME});
    }

    void ScaleInit()
    {
        unsigned long long& hSlot = AnySlot();
        Destroy(hSlot);
        Job job;
        job.kind = Kind::Scale;
        unsigned long long hHandle = 0;
        const bool bNull = m_Program.Pick(16) == 15;
        BeforeCall();
        const bool bResult = AVFilter_VideoScale_Init(bNull ? nullptr : &hHandle);
        Check(bResult, {AVFILTER_ERROR_VIDEO_INVALID_PARAM});
        Created(bResult, hHandle, hSlot, std::move(job));
    }

    void ScaleSet()
    {
        const unsigned long long hHandle = AnySlot();
        Job& job = JobOf(hHandle);
        for (int& n : job.nGeometry) {
            n = m_Program.Number();
        }
        const std::array<int, 6>& n = job.nGeometry;
        BeforeCall();
        job.bSet = AVFilter_VideoScale_Set(hHandle, n[0], n[1], n[2], n[3], n[4], n[5]);
        Check(job.bSet, {AVFILTER_ERROR_VIDEO_NOT_FOUND, AVFILTER_ERROR_VIDEO_PARSE_GRAPH});
        Require(job.kind != Kind::Scale || job.bSet ||
                    AVFilter_dwErrorCode == AVFILTER_ERROR_VIDEO_PARSE_GRAPH,
                "a live scaler was not found");
    }

    void ScaleFmt()
    {
        const unsigned long long hHandle = AnySlot();
        const Job& job = JobOf(hHandle);
        const unsigned nHow = m_Program.Pick(8);
        const std::array<int, 6>& n = job.nGeometry;
        const auto bytes = [](int nFormat, int nWidth, int nHeight) {
            const int nBytes =
                av_image_get_buffer_size(static_cast<AVPixelFormat>(nFormat), nWidth, nHeight, 1);
            return std::clamp(nBytes, 0, static_cast<int>(kLargestAllocation));
        };
        const int nSource = job.bSet ? bytes(n[0], n[1], n[2]) : 0;
        const int nNeeded = job.bSet ? bytes(n[3], n[4], n[5]) : 0;
        std::unique_ptr<char[]> pSource(new char[static_cast<std::size_t>(nSource)]);
        std::memset(pSource.get(), static_cast<int>(nHow * 31), static_cast<std::size_t>(nSource));

        const int nCapacities[8] = {nNeeded, nNeeded, nNeeded - 1, 0, -1, nNeeded + 5, INT_MIN, nNeeded};
        const int nCapacity = nCapacities[nHow];
        int nLen = nCapacity;
        // Exact: what is written past it hits the guard page.
        const bool bNullOut = nHow == 2 || nHow == 7;
        unsigned char* pOut = m_Output.Last(static_cast<std::size_t>(std::max(nCapacity, 0)));
        BeforeCall();
        const bool bResult = AVFilter_VideoScale_Fmt(hHandle, nHow == 1 ? nullptr : pSource.get(),
                                                     bNullOut ? nullptr : pOut, &nLen);
        Check(bResult, {AVFILTER_ERROR_VIDEO_NOT_FOUND, AVFILTER_ERROR_VIDEO_SCALE,
                        AVFILTER_ERROR_VIDEO_BUFFER_TOO_SMALL, AVFILTER_ERROR_VIDEO_INVALID_PARAM});
        if (bResult || AVFilter_dwErrorCode == AVFILTER_ERROR_VIDEO_BUFFER_TOO_SMALL) {
            Require(nLen == nNeeded, "a scaled picture of another size");
        } else {
            Require(nLen == nCapacity, "a failed conversion has written a size");
        }
    }

    void DestroySlot() { Destroy(AnySlot()); }

    // Through the call of any family; the right one ends the handle.
    void DestroyAny()
    {
        const unsigned long long hHandle = AnySlot();
        const unsigned nCall = m_Program.Pick(5);
        static constexpr std::array<bool (*)(unsigned long long), 5> kDestroy{
            AVFilter_Audio_Destroy, AVFilter_Audio_MIXDestroy, AVFilter_Video_Destroy,
            AVFilter_Video_MIXDestroy, AVFilter_VideoScale_Destory};
        BeforeCall();
        const bool bResult = kDestroy[nCall](hHandle);
        Check(bResult, {});
        Require(bResult, "a destroying call has failed");
        const Kind kind = JobOf(hHandle).kind;
        if (((kind == Kind::Audio || kind == Kind::AudioMix) && nCall < 2) ||
            (kind == Kind::Video && nCall == 2) || (kind == Kind::VideoMix && nCall == 3) ||
            (kind == Kind::Scale && nCall == 4)) {
            m_Jobs.erase(hHandle);
        }
    }

    void CopySlot()
    {
        const unsigned long long hFrom = AnySlot();
        AnySlot() = hFrom;
    }

    void LastError()
    {
        int nSystem = -7;
        static_cast<void>(AVFilter_GetLastError(m_Program.Pick(2) == 0 ? &nSystem : nullptr));
    }

    Program& m_Program;
    Output& m_Output;
    std::array<unsigned long long, 6> m_hSlots{};
    std::map<unsigned long long, Job> m_Jobs;
    // What was handed in stays until the machine's handles are gone.
    std::vector<std::unique_ptr<unsigned char[]>> m_Blocks;
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*pnArgs*/, char*** /*pppArgs*/)
{
    av_log_set_level(AV_LOG_QUIET);
    av_max_alloc(kLargestAllocation);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize)
{
    static Output output;
    Program program(pData, nSize);
    Machine machine(program, output);
    machine.Run();
    return 0;
}
