// The speed of the five jobs beside other ways of doing them; how costs grow; what one core holds. Writes the
// tables of docs/speed.md, each between its marker and "<!-- end -->", on standard output.
//
//   speed [quick]    quick: a smoke check, whose figures mean nothing

#include "rivals.h"

#include "Telvane_AVFilter.hpp"

extern "C" {
#include <libavutil/log.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <malloc.h>

using namespace bench;
using jobs::Demand;
using jobs::Kind;
using jobs::kKinds;
using jobs::Size;

namespace
{

class Handle
{
  public:
    Handle(const Kind& kind, Size size, const std::string& szDescr) : m_Kind(kind)
    {
        Demand(kind.Create(&m_hHandle, size, szDescr.c_str()), szDescr.c_str());
    }
    ~Handle() { m_Kind.Destroy(m_hHandle); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    jobs::Handle Get() const { return m_hHandle; }

    // One job: a block into each input, and the result.
    bool Run(int nInputs, const jobs::Block& block, const Buffer& out) const
    {
        bool bOk = true;
        for (int i = 0; i < nInputs && m_Kind.Send != nullptr; ++i) {
            bOk = m_Kind.Send(m_hHandle, i, block) && bOk;
        }
        auto nSize = static_cast<int>(out.Size());
        return m_Kind.Take(m_hHandle, block, out.Data(), &nSize) && bOk;
    }

  private:
    const Kind& m_Kind;
    jobs::Handle m_hHandle = 0;
};
using Shared = std::shared_ptr<Buffer>;

const Kind& KindOf(const Task& task)
{
    return kKinds.at(task.bAudio ? jobs::kAudioMix : task.bMix ? jobs::kVideoMix : jobs::kVideoFilter);
}

// The result's size: hstack puts its inputs beside each other.
Size OutSize(const Task& task)
{
    return {task.size.nWidth * (task.bMix ? 2 : 1), task.size.nHeight, task.size.nSamples};
}

Shared OutBuffer(const Task& task)
{
    return std::make_shared<Buffer>(task.bAudio ? task.InputBytes()
                                                : PictureBytes(task.format, OutSize(task)));
}

Shared InBuffer(const Task& task)
{
    return std::make_shared<Buffer>(task.InputBytes());
}

Path Library(const Task& task, const Shared& pIn, const Shared& pOut)
{
    auto pHandle = std::make_shared<Handle>(KindOf(task), task.size, task.szDescr);
    const jobs::Block block{pIn->Data(), task.size, task.bWhole};
    const auto nInputs = static_cast<int>(task.Inputs());
    return {"library", Repeat([=] {
                static_cast<void>(pIn); // what the block points to
                return pHandle->Run(nInputs, block, *pOut);
            })};
}

telvane::Picture PictureOf(AVPixelFormat format, Size size)
{
    return {format, size.nWidth, size.nHeight};
}

Path Layer(const Task& task, const Shared& pIn, const Shared& pOut)
{
    const auto nInputs = task.Inputs();
    const auto label = [&](std::size_t i) {
        return task.bMix ? std::string(1, task.szDescr[3 * i + 1]) : "in";
    };
    if (task.bAudio) {
        const telvane::AudioStream stream{AV_SAMPLE_FMT_S16, 48000, 2, task.size.nSamples};
        std::vector<telvane::AudioInput> vec_Inputs;
        for (std::size_t i = 0; i < nInputs; ++i) {
            vec_Inputs.push_back({label(i), stream});
        }
        auto pMixer =
            std::make_shared<telvane::AudioMixer>(vec_Inputs, task.szDescr, stream, telvane::Times::kNone);
        return {"layer", Repeat([=] {
                    for (std::size_t i = 0; i < nInputs; ++i) {
                        pMixer->Send(i, pIn->Bytes());
                    }
                    return static_cast<bool>(pMixer->Receive(pOut->Bytes()));
                })};
    }
    std::vector<telvane::VideoInput> vec_Inputs;
    for (std::size_t i = 0; i < nInputs; ++i) {
        vec_Inputs.push_back({label(i), {PictureOf(task.format, task.size), {25}}});
    }
    auto pMixer = std::make_shared<telvane::VideoMixer>(
        vec_Inputs, task.szDescr, PictureOf(task.format, OutSize(task)), telvane::Times::kNone);
    return {"layer", Repeat([=, bWhole = task.bWhole] {
                for (std::size_t i = 0; i < nInputs; ++i) {
                    if (bWhole) {
                        pMixer->SendWithoutCopy(i, pIn->Bytes(telvane::VideoMixer::kSpareBytes));
                    } else {
                        pMixer->Send(i, pIn->Bytes());
                    }
                }
                return static_cast<bool>(pMixer->Receive(pOut->Bytes()));
            })};
}

Path Library(const Conversion& c, const Shared& pIn, const Shared& pOut)
{
    auto pHandle = std::make_shared<Handle>(kKinds.at(jobs::kScaler), c.src, "");
    Demand(AVFilter_VideoScale_Set(pHandle->Get(), c.srcFormat, c.src.nWidth, c.src.nHeight, c.dstFormat,
                                   c.dst.nWidth, c.dst.nHeight),
           "AVFilter_VideoScale_Set");
    return {"library", Repeat([=] { return pHandle->Run(0, {pIn->Data(), c.src, true}, *pOut); })};
}

Path Layer(const Conversion& c, const Shared& pIn, const Shared& pOut)
{
    auto pScaler = std::make_shared<telvane::VideoScaler>(PictureOf(c.srcFormat, c.src),
                                                          PictureOf(c.dstFormat, c.dst));
    return {"layer", Repeat([=] {
                pScaler->Scale(pIn->Bytes(), pOut->Bytes());
                return true;
            })};
}

Shared InBuffer(const Conversion& c)
{
    return std::make_shared<Buffer>(PictureBytes(c.srcFormat, c.src));
}
Shared OutBuffer(const Conversion& c)
{
    return std::make_shared<Buffer>(PictureBytes(c.dstFormat, c.dst));
}

template <class What>
Job LibraryAlone(const What& what)
{
    const Shared pOut = OutBuffer(what);
    return {{Library(what, InBuffer(what), pOut)}, pOut};
}

template <class What>
Job Make(const What& what)
{
    const Shared pIn = InBuffer(what);
    const Shared pOut = OutBuffer(what);
    Job job{
        {Library(what, pIn, pOut), Layer(what, pIn, pOut), Steps(what, pIn, pOut), Expert(what, pIn, pOut)},
        pOut};
    // The smallest ones would measure the command's start and its locks, not its work.
    if constexpr (std::is_same_v<What, Conversion>) {
        if (what.src.nWidth >= 640) {
            job.vec_Paths.push_back(Pipes(what, pIn, pOut));
        }
        AddRivals(job, what, pIn);
    } else if (what.bAudio ? what.size.nSamples >= 1024 : what.size.nWidth >= 640 && what.bWhole) {
        job.vec_Paths.push_back(Pipes(what, pIn, pOut));
    }
    return job;
}

// ---- Tables --------------------------------------------------------------------------------------------------

std::string Text(Size size)
{
    return std::to_string(size.nWidth) + "x" + std::to_string(size.nHeight);
}

std::string Ratio(const Figures& figures)
{
    const char* const szFormat = figures.dRatio < 0.095 ? "%.3f" : "%.2f";
    return Number(szFormat, figures.dRatio) + " (" + Number(szFormat, figures.dLow) + "–" +
           Number(szFormat, figures.dHigh) + ")";
}

// One row; the columns' names before the first one.
template <class What>
void Measure(bool bFirst, const std::string& szJob, const std::string& szSize, const What& what)
{
    const std::vector<Figures> vec_Figures = Compare(szJob + ", " + szSize, 5, [&] { return Make(what); });
    constexpr const char* kNames[] = {"layer", "steps", "expert", "pipes", "libyuv", "zimg"};
    const bool bScaler = std::is_same_v<What, Conversion>;
    std::vector<std::string> vec_Row{szSize, Duration(vec_Figures[0].dTime)};
    std::vector<std::string> vec_Head{szJob, "library"};
    for (const char* szName : std::span(kNames).first(bScaler ? 6 : 4)) {
        vec_Head.push_back(std::string("/ ") + szName);
        const auto it = std::find_if(vec_Figures.begin(), vec_Figures.end(),
                                     [&](const Figures& f) { return f.szName == szName; });
        vec_Row.push_back(it == vec_Figures.end() ? "–" : Ratio(*it));
    }
    if (bFirst) {
        Head(vec_Head);
    }
    Row(vec_Row);
}

class Section
{
  public:
    explicit Section(const char* szName) { std::printf("<!-- measured: %s -->\n", szName); }
    ~Section()
    {
        std::puts("<!-- end -->");
        static_cast<void>(std::fflush(stdout));
    }
    Section(const Section&) = delete;
    Section& operator=(const Section&) = delete;
};

constexpr const char* kVolume = "[a]volume=0.5,aformat=sample_fmts=s16[out]";

void Jobs()
{
    const Section section("jobs");
    const struct {
        const char* szName;
        const char* szDescr;
    } audio[] = {{"audio filter (volume)", kVolume},
                 {"audio mix (amix of two)", kKinds[jobs::kAudioMix].szDescr}};
    for (const auto& job : audio) {
        for (const int nSamples : {64, 1024}) {
            Measure(nSamples == 64, job.szName, std::to_string(nSamples) + " samples",
                    Task{true, true, {0, 0, nSamples}, job.szDescr});
        }
    }
    constexpr Size kSizes[] = {
        {16, 16, 0}, {640, 360, 0}, {1280, 720, 0}, {1920, 1080, 0}, {3840, 2160, 0}};
    for (const bool bMix : {false, true}) {
        const std::string szName = bMix ? "video mix (hstack)" : "video filter (hflip)";
        Task task{false, bMix, {}, kKinds.at(bMix ? jobs::kVideoMix : jobs::kVideoFilter).szDescr};
        for (const Size& size : kSizes) {
            task.size = size;
            Measure(size.nWidth == 16, szName, Text(size), task);
        }
        task.size = {1920, 1080, 0};
        task.bWhole = false;
        Measure(false, szName, "1920x1080, plane by plane", task);
    }
    for (const bool bHalf : {true, false}) {
        for (const Size& size : kSizes) {
            // The chroma rows of 8x8 are too short for the scaler to work without padding.
            const Size src = size.nWidth == 16 && bHalf ? Size{64, 64, 0} : size;
            Measure(size.nWidth == 16, bHalf ? "scaling to half width and height" : "yuv420p to rgb24",
                    Text(src),
                    bHalf ? Conversion{AV_PIX_FMT_YUV420P,
                                       src,
                                       AV_PIX_FMT_YUV420P,
                                       {src.nWidth / 2, src.nHeight / 2, 0}}
                          : Conversion{AV_PIX_FMT_YUV420P, src, AV_PIX_FMT_RGB24, src});
        }
    }
}

// What it costs that the layer gives any format exactly, beside FFmpeg by hand, which gives the format as it is.
void Exact()
{
    const Section section("exact");
    Head({"hflip, 1280x720", "layer", "FFmpeg by hand (expert)", "layer / it"});
    for (const AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_GRAY8, AV_PIX_FMT_YUV444P,
                                       AV_PIX_FMT_RGB24, AV_PIX_FMT_RGBA, AV_PIX_FMT_YUV420P10LE}) {
        const std::string szFormat = av_get_pix_fmt_name(format);
        const Task task{false,  false, {1280, 720, 0}, "[in]hflip,format=" + szFormat + "[out]",
                        format, false};
        const std::vector<Figures> vec_Figures = Compare(szFormat, 3, [&] {
            auto pIn = std::make_shared<Buffer>(task.InputBytes());
            const Shared pOut = OutBuffer(task);
            return Job{{Layer(task, pIn, pOut), Expert(task, pIn, pOut)}, pOut};
        });
        Row({szFormat, Duration(vec_Figures[0].dTime), Duration(vec_Figures[1].dTime),
             Ratio(vec_Figures[1])});
    }
}

// ---- Growth --------------------------------------------------------------------------------------------------

double Resident()
{
    malloc_trim(0);
    return static_cast<double>(test::ResidentBytes());
}

double Threads()
{
    return static_cast<double>(std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

// A row: time, threads and memory of one more thing beside nLive of its kind; and of a call on one of them.
template <class Thing, class MakeThing>
void Grow(const char* szName, int nLive, const MakeThing& make,
          const std::function<void(const Thing&)>& call)
{
    const int nSamples = g_bQuick ? 3 : 301;
    make(); // what FFmpeg sets up once for the process
    const double dBytes = Resident();
    const double dThreads = Threads();
    std::vector<std::unique_ptr<Thing>> vec_Live;
    vec_Live.reserve(static_cast<std::size_t>(nLive));
    for (int i = 0; i < nLive; ++i) {
        vec_Live.push_back(make());
    }
    const double dMemory = (Resident() - dBytes) / nLive / 1024;
    const double dPerThing = (Threads() - dThreads) / nLive;
    std::vector<double> vec_Make, vec_Destroy, vec_Call;
    for (int i = 0; i < nSamples; ++i) {
        std::unique_ptr<Thing> pOne;
        vec_Make.push_back(Time([&] { pOne = make(); }));
        vec_Destroy.push_back(Time([&] { pOne.reset(); }));
        constexpr int kCalls = 100;
        vec_Call.push_back(Time([&] {
                               for (int k = 0; call && k < kCalls; ++k) {
                                   call(*vec_Live.front());
                               }
                           }) /
                           kCalls);
    }
    Row({szName, std::to_string(nLive), Duration(Median(vec_Make)), Duration(Median(vec_Destroy)),
         call ? Duration(Median(vec_Call)) : "–", Number("%.0f", dPerThing),
         nLive > 1 ? Number("%.1f KiB", dMemory) : "–"});
}

void Growth()
{
    const Section section("growth");
    const Size size{16, 16, 0};
    const Task task{false, false, size, kKinds[jobs::kVideoFilter].szDescr};
    const Buffer in(task.InputBytes());
    const Buffer out(task.InputBytes());
    const auto run = [&](const Handle& handle) { handle.Run(0, {in.Data(), size, true}, out); };
    Head({"16x16", "live", "create", "destroy", "call", "threads each", "memory each"});
    for (const int nLive : {1, 1000, g_bQuick ? 2000 : 100000}) {
        for (const std::size_t k : {jobs::kVideoFilter, jobs::kScaler}) {
            const Kind& kind = kKinds.at(k);
            if (nLive > 1000 && kind.szDescr == nullptr) {
                continue; // gigabytes
            }
            const std::string szDescr = kind.szDescr != nullptr ? kind.szDescr : "";
            Grow<Handle>(
                kind.szName, nLive, [&] { return std::make_unique<Handle>(kind, size, szDescr); }, run);
        }
        // More threads than a thousand graphs start are more than most systems let a process have.
        if (nLive <= 1000) {
            Grow<Graph>("FFmpeg's graph with its default threads", nLive,
                        [&] { return std::make_unique<Graph>(task, 0); }, {});
        }
    }
    Head({"audio mix of 64 samples, inputs", "library", "library / input", "/ steps"});
    for (const int nInputs : {2, 8, 32}) {
        Task mix{true, true, {0, 0, 64}, ""};
        for (int i = 0; i < nInputs; ++i) {
            mix.szDescr.append("[")
                .append(1, static_cast<char>(i < 26 ? 'a' + i : 'A' + i - 26))
                .append("]");
        }
        mix.szDescr +=
            "amix=normalize=0:inputs=" + std::to_string(nInputs) + ",aformat=sample_fmts=s16[out]";
        const std::vector<Figures> vec_Figures = Compare("amix of " + std::to_string(nInputs), 3, [&] {
            auto pIn = std::make_shared<Buffer>(mix.InputBytes());
            const Shared pOut = OutBuffer(mix);
            return Job{{Library(mix, pIn, pOut), Steps(mix, pIn, pOut)}, pOut};
        });
        Row({std::to_string(nInputs), Duration(vec_Figures[0].dTime),
             Duration(vec_Figures[0].dTime / nInputs), Ratio(vec_Figures[1])});
    }
}

// ---- What one core holds in real time ------------------------------------------------------------------------

// Streams that take turns, as on a server, so that none finds the caches as it left them.
template <class What>
void RealTime(const std::string& szName, double dPerSecond, const What& what)
{
    std::vector<Job> vec_Jobs;
    vec_Jobs.reserve(8);
    for (int i = 0; i < 8; ++i) {
        vec_Jobs.push_back(LibraryAlone(what));
    }
    std::vector<double> vec_Times;
    double dAll = 0;
    while (dAll < (g_bQuick ? 0 : 1e9) || vec_Times.empty()) {
        vec_Times.push_back(Time([&] {
            for (const Job& job : vec_Jobs) {
                Demand(job.vec_Paths[0].Run(1), szName.c_str());
            }
        }));
        dAll += vec_Times.back();
    }
    const double dJob = Median(vec_Times) / static_cast<double>(vec_Jobs.size());
    Row({szName, Duration(dJob), Number("%.0f", 1e9 / (dJob * dPerSecond))});
}

void RealTimes()
{
    const Section section("realtime");
    Head({"stream", "one block or picture", "streams on one core"});
    const std::string szMix =
        "[a][b][c][d][e][f][g][h]amix=inputs=8:normalize=0,aformat=sample_fmts=s16[out]";
    RealTime("conference mix of eight voices, 48 kHz stereo, blocks of 20 ms", 50,
             Task{true, true, {0, 0, 960}, szMix});
    for (const Size& size : {Size{1280, 720, 0}, Size{1920, 1080, 0}}) {
        for (const char* szFilters : {"hflip", "eq=saturation=1.2", "unsharp", "hqdn3d"}) {
            RealTime(Text(size) + " at 30 a second, `" + szFilters + "`", 30,
                     Task{false, false, size, std::string("[in]") + szFilters + ",format=yuv420p[out]"});
        }
    }
    constexpr Size kLarge{1920, 1080, 0}, kMiddle{1280, 720, 0};
    RealTime("scaling 1920x1080 to 1280x720, 30 a second", 30,
             Conversion{AV_PIX_FMT_YUV420P, kLarge, AV_PIX_FMT_YUV420P, kMiddle});
    RealTime("scaling 1280x720 to 640x360, 30 a second", 30,
             Conversion{AV_PIX_FMT_YUV420P, kMiddle, AV_PIX_FMT_YUV420P, {640, 360, 0}});
    RealTime("1920x1080 yuv420p to rgb24, 30 a second", 30,
             Conversion{AV_PIX_FMT_YUV420P, kLarge, AV_PIX_FMT_RGB24, kLarge});
}

} // namespace

int main(int argc, char** argv)
{
    g_bQuick = argc > 1 && std::strcmp(argv[1], "quick") == 0;
    av_log_set_level(AV_LOG_ERROR);
    // Freed memory stays with the process. Otherwise the allocator gives large pictures' memory back between the
    // paths, and whichever allocates next pays for getting it anew: 3,000 page faults and twice the time at
    // 3840x2160, a lottery that says nothing about the paths.
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));

    Jobs();
    Exact();
    RealTimes();
    Growth();
    return 0;
}
