// Every FFmpeg call of the audio family fails, one at a time and at random.

#include "support/faults.h"
#include "support/support.h"

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <sstream>

namespace
{

using test::ExpectFailure;
using Handle = unsigned long long;

constexpr Handle kCode = 0x80F0000; // plus the digits below

// The library's calls in order, and what comes of the failure of each: the last digit of the code (0
// if it cannot fail), "k" if what was built is deliberately kept, "q" if the flag stays down.
// Without a name for an end FFmpeg does not find it, and leaves it open.
const char* const kInitSites =
    "avfilter_graph_alloc 2k avfilter_inout_alloc 2 avfilter_inout_alloc 2 "
    "av_channel_layout_describe 3k av_get_sample_fmt_name 3k "
    "avfilter_get_by_name 3k avfilter_graph_create_filter 3k "
    "avfilter_get_by_name 3k avfilter_graph_create_filter 3k "
    "av_strdup 5k av_strdup 5k avfilter_graph_parse_ptr 4k avfilter_graph_config 5k "
    "av_frame_alloc 2 av_frame_alloc 2 BaseLib_OperatorHandle_Create 0";
const char* const kMixInitSites =
    "avfilter_graph_alloc 1 "
    "av_channel_layout_describe 3k av_get_sample_fmt_name 3k "
    "avfilter_get_by_name 3k avfilter_graph_create_filter 3k avfilter_inout_alloc 2 av_strdup 5k "
    "av_channel_layout_describe 3k av_get_sample_fmt_name 3k "
    "avfilter_get_by_name 3k avfilter_graph_create_filter 3k avfilter_inout_alloc 2 av_strdup 5k "
    "avfilter_get_by_name 3k avfilter_graph_create_filter 3k avfilter_inout_alloc 2k av_strdup 5k "
    "avfilter_graph_parse_ptr 4k avfilter_graph_config 5k BaseLib_OperatorHandle_Create 0";
const char* const kCvtSites = "av_frame_get_buffer 7q av_buffersrc_add_frame 8 av_buffersink_get_frame 9";
const char* const kSendSites = "av_frame_alloc 7q av_frame_get_buffer 7kq av_buffersrc_add_frame 8";
const char* const kRecvSites = "av_frame_alloc 7 av_buffersink_get_frame 9 av_samples_get_buffer_size 9";

bool CreateFilter(Handle* ph)
{
    AVFILTER_AUDIO_INFO st_Info = test::AudioInfo(test::kS16, 48000, 480, 1);
    return AVFilter_Audio_Init(ph, "[in]aeval=exprs=0.5:c=same,aformat=sample_fmts=s16[out]", &st_Info);
}

bool CreateMix(Handle* ph)
{
    test::AudioInfos infos({test::AudioInfo(test::kS16, 48000, 480, 1, "a", 1),
                            test::AudioInfo(test::kS16, 48000, 480, 1, "b", 2)});
    return AVFilter_Audio_MIXInit(ph, infos.Get(), 2, "out",
                                  "[a][b]amix=inputs=2:normalize=0,aformat=sample_fmts=s16[out]");
}

bool SendLevel(Handle hMix, int nId, std::int16_t nLevel)
{
    std::vector<std::int16_t> block(480, nLevel);
    return AVFilter_Audio_MIXSend(hMix, nId, reinterpret_cast<unsigned char*>(block.data()), 960);
}

// A conversion or, of a mix, a receiving call: leaves the level of the block that came out, or -1.
bool Take(Handle hHandle, bool bMix, int& nLevel)
{
    std::vector<std::int16_t> out(4096, -1);
    auto* pOut = reinterpret_cast<unsigned char*>(out.data());
    int nBytes = -1;
    const bool bResult = bMix ? AVFilter_Audio_MIXRecv(hHandle, pOut, &nBytes)
                              : AVFilter_Audio_Cvt(hHandle, pOut, 1, pOut, &nBytes);
    nLevel = out[0];
    EXPECT_EQ(bResult, nBytes >= 960);
    EXPECT_EQ(std::count(out.begin(), out.begin() + 480, nLevel), 480);
    return bResult;
}

// The call succeeds and makes the calls of the list. With each of these failing in turn, it fails as
// the list says, and succeeds the next time. The check is told the failed function, "" for none.
void ExpectSites(const char* szSites, const std::function<bool()>& call,
                 const std::function<void(const std::string&)>& check)
{
    faults::Reset();
    EXPECT_OK(call());
    const std::vector<std::string> vec_Calls = faults::Log();
    check("");

    std::istringstream sites(szSites);
    std::map<std::string, int> mapNth;
    std::vector<std::string> vec_Expected;
    std::string outcome;
    for (std::string function; sites >> function >> outcome;) {
        vec_Expected.push_back(function);
        const int nth = ++mapNth[function];
        if (outcome == "0") {
            continue;
        }
        SCOPED_TRACE(function + ' ' + std::to_string(nth));
        {
            std::optional<test::KeepsMemoryByContract> keeps;
            if (outcome.find('k') != std::string::npos) {
                keeps.emplace();
            }
            faults::Reset();
            faults::Fail(function, nth);
            const auto nDigit = static_cast<Handle>(outcome[0] - '0');
            ExpectFailure(call(), kCode + nDigit, outcome.find('q') == std::string::npos);
            EXPECT_EQ(faults::Failed(), 1);
        }
        check(function);
        EXPECT_OK(call());
        check("");
    }
    EXPECT_EQ(vec_Calls, vec_Expected);
}

TEST(AudioFaults, InCreatingCallsAreReportedAndWriteNoHandle)
{
    Handle hHandle = 42;
    const auto check = [&](const std::string& failed) {
        EXPECT_EQ(hHandle == 42, !failed.empty());
        EXPECT_OK(AVFilter_Audio_Destroy(hHandle));
        hHandle = 42;
    };
    ExpectSites(
        kInitSites, [&] { return CreateFilter(&hHandle); }, check);
    ExpectSites(
        kMixInitSites, [&] { return CreateMix(&hHandle); }, check);
}

TEST(AudioFaults, InConversionsAreReported)
{
    Handle hFilter = 0;
    int nLevel = 0;
    EXPECT_OK(CreateFilter(&hFilter));
    ExpectSites(
        kCvtSites, [&] { return Take(hFilter, false, nLevel); },
        [&](const std::string& failed) { EXPECT_EQ(nLevel, failed.empty() ? 16384 : -1); });
    EXPECT_OK(Take(hFilter, true, nLevel)); // the block that was in the graph when receiving failed
    EXPECT_FALSE(Take(hFilter, true, nLevel));
    EXPECT_OK(AVFilter_Audio_Destroy(hFilter));
}

TEST(AudioFaults, InSendingAreReportedAndLeaveTheGraphAsItWas)
{
    Handle hMix = 0;
    int nLevel = 0;
    std::int16_t nSent = 0;
    EXPECT_OK(CreateMix(&hMix));
    ExpectSites(
        kSendSites, [&] { return SendLevel(hMix, 1, ++nSent); },
        [&](const std::string& failed) {
            if (failed.empty()) {
                EXPECT_OK(SendLevel(hMix, 2, 1000));
                EXPECT_OK(Take(hMix, true, nLevel));
                EXPECT_EQ(nLevel, nSent + 1000);
            }
            EXPECT_FALSE(Take(hMix, true, nLevel));
        });
    EXPECT_OK(AVFilter_Audio_MIXDestroy(hMix));
}

TEST(AudioFaults, InReceivingAreReportedAndKeepTheBlock)
{
    Handle hMix = 0;
    int nLevel = 0;
    EXPECT_OK(CreateMix(&hMix));
    const auto fill = [&] { EXPECT_TRUE(SendLevel(hMix, 1, 30) && SendLevel(hMix, 2, 12)); };
    fill();
    ExpectSites(
        kRecvSites, [&] { return Take(hMix, true, nLevel); },
        [&](const std::string& failed) {
            EXPECT_EQ(nLevel, failed.empty() ? 42 : -1);
            if (failed.empty() || failed == "av_samples_get_buffer_size") {
                EXPECT_FALSE(Take(hMix, true, nLevel));
                fill();
            }
        });
    EXPECT_OK(AVFilter_Audio_MIXDestroy(hMix));
}

// Six handles under random calls, in which one call of FFmpeg in thirty fails.
TEST(AudioFaults, AtRandomNeverCrashOrContradict)
{
    const test::KeepsMemoryByContract keeps;
    const test::Bytes dice = test::Noise(18000);
    Handle hHandles[6] = {};
    int nLevel = 0;
    faults::Reset();
    faults::FailAtRandom(1.0 / 30, 7);
    for (std::size_t i = 0; i < dice.size(); i += 3) {
        const std::size_t k = dice[i] % 6;
        const bool bMix = k >= 3;
        Handle& h = hHandles[k];
        const bool bCreate = h == 0;
        const bool bSend = !bCreate && bMix && dice[i + 1] % 2 == 0;
        const int nFailed = faults::Failed();
        const Handle nBefore = AVFilter_GetLastError(nullptr);
        if (!bCreate && dice[i + 2] % 50 == 0) {
            EXPECT_OK(AVFilter_Audio_Destroy(std::exchange(h, 0ULL)));
            continue;
        }
        const bool bResult = bCreate ? (bMix ? CreateMix(&h) : CreateFilter(&h))
                             : bSend ? SendLevel(h, 1 + dice[i + 1] / 2 % 2, 100)
                                     : Take(h, bMix, nLevel);
        const Handle nCode = AVFilter_GetLastError(nullptr);
        if (bResult) {
            ASSERT_TRUE(h != 0 && !AVFilter_IsErrorOccur && nCode == nBefore);
            continue;
        }
        ASSERT_EQ(h == 0, bCreate);
        ASSERT_TRUE(bCreate ? nCode <= kCode + 5 : nCode >= kCode + 7 && nCode <= kCode + 9) << nCode;
        ASSERT_EQ(AVFilter_IsErrorOccur, nCode != kCode + 7 || (bMix && !bSend));
        ASSERT_TRUE(faults::Failed() > nFailed || nCode == kCode + 9) << "no cause";
    }
    EXPECT_GT(faults::Failed(), 300);
    faults::Reset();
    for (std::size_t k = 0; k < 6; ++k) {
        Handle& h = hHandles[k];
        EXPECT_OK(h != 0 || (k < 3 ? CreateFilter(&h) : CreateMix(&h)));
        EXPECT_OK(k < 3 || (SendLevel(h, 1, 100) && SendLevel(h, 2, 100)));
        EXPECT_OK(Take(h, k >= 3, nLevel));
        EXPECT_EQ(nLevel, k < 3 ? 16384 : 200);
        EXPECT_OK(AVFilter_Audio_Destroy(h));
    }
}

} // namespace
