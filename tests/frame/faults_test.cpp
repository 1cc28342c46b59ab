// Every FFmpeg call of the library fails, one at a time and at random, and the handle generator repeats a
// value. That nothing is kept is seen by the leak check of the sanitizer build.

#include "kinds.h"
#include "support/faults.h"

extern "C" {
#include <libavutil/mem.h>
}

#include <climits>
#include <deque>
#include <functional>
#include <map>
#include <sstream>

namespace
{

using test::ExpectFailure;
using test::g_nGot;
using test::Handle;
using test::Kind;
using test::kKinds;
using test::Take;

class Faults : public testing::Test
{
  protected:
    void TearDown() override { faults::Reset(); }
};

// The library's calls in order, and what comes of the failure of each: the last digits of the code (0 if
// the call succeeds all the same, "u" for an open end, "-" if the failure is not tried), "k" if what was
// built is deliberately kept, "q" if the flag stays down. Without a name for an end FFmpeg does not find it.
const struct {
    const char* szCreate;
    const char* szSend[2]; // separate planes, and a whole picture
    const char* szTake;
} kSites[] = {
    {"avfilter_graph_alloc 2k avfilter_inout_alloc 2 avfilter_inout_alloc 2 "
     "av_channel_layout_describe 3k av_get_sample_fmt_name 3k "
     "avfilter_get_by_name 3k avfilter_graph_create_filter 3k "
     "avfilter_get_by_name 3k avfilter_graph_create_filter 3k "
     "av_strdup 5k av_strdup 5k avfilter_graph_parse_ptr 4k avfilter_graph_config 5k "
     "av_frame_alloc 2 av_frame_alloc 2 BaseLib_OperatorHandle_Create -",
     {},
     "av_frame_get_buffer 7q av_buffersrc_add_frame 8 av_buffersink_get_frame 9"},
    {"avfilter_graph_alloc 1 "
     "av_channel_layout_describe 3k av_get_sample_fmt_name 3k "
     "avfilter_get_by_name 3k avfilter_graph_create_filter 3k avfilter_inout_alloc 2 av_strdup 5k "
     "av_channel_layout_describe 3k av_get_sample_fmt_name 3k "
     "avfilter_get_by_name 3k avfilter_graph_create_filter 3k avfilter_inout_alloc 2 av_strdup 5k "
     "avfilter_get_by_name 3k avfilter_graph_create_filter 3k avfilter_inout_alloc 2k av_strdup 5k "
     "avfilter_graph_parse_ptr 4k avfilter_graph_config 5k BaseLib_OperatorHandle_Create -",
     {"av_frame_alloc 7q av_frame_get_buffer 7kq av_buffersrc_add_frame 8",
      "av_frame_alloc 7q av_frame_get_buffer 7kq av_buffersrc_add_frame 8"},
     "av_frame_alloc 7 av_buffersink_get_frame 9 av_samples_get_buffer_size 9"},
    {"avfilter_inout_alloc 2 avfilter_inout_alloc 2 avfilter_graph_alloc 2 "
     "avfilter_get_by_name 3 avfilter_graph_create_filter 3 "
     "avfilter_get_by_name 4 avfilter_graph_create_filter 4 "
     "av_strdup u av_strdup u avfilter_graph_parse_ptr 5 avfilter_graph_config 6 "
     "av_frame_alloc 2 av_image_get_buffer_size 0 av_malloc 0 av_image_fill_arrays 0 "
     "av_frame_alloc 2 av_image_get_buffer_size 0 av_malloc 0 av_image_fill_arrays 0 "
     "BaseLib_OperatorHandle_Create -",
     {},
     "av_buffersrc_add_frame 8 av_buffersink_get_frame 9"},
    {"avfilter_graph_alloc 1 "
     "avfilter_get_by_name 3 avfilter_graph_create_filter 3 avfilter_inout_alloc 2 av_strdup u "
     "avfilter_get_by_name 3 avfilter_graph_create_filter 3 avfilter_inout_alloc 2 av_strdup u "
     "avfilter_get_by_name 4 avfilter_graph_create_filter 4 avfilter_inout_alloc 2 av_strdup u "
     "avfilter_graph_parse_ptr 5 avfilter_graph_config 6 BaseLib_OperatorHandle_Create -",
     // The frame that FFmpeg found no buffer for has lost its size too: the source refuses it.
     {"av_frame_alloc 2 av_frame_get_buffer 2 av_buffersrc_add_frame 8",
      "av_frame_alloc 2 av_frame_get_buffer 8 av_buffersrc_add_frame 8"},
     "av_frame_alloc 2 av_buffersink_get_frame 9"},
    {"BaseLib_OperatorHandle_Create -",
     // The set-up; what is missing of the pictures, the one with padded rows last, is for the conversion.
     {"sws_getContext 5 av_image_get_buffer_size 0 av_malloc 0 av_image_fill_arrays 0 av_image_alloc 0 "
      "av_image_get_buffer_size 0",
      "sws_getContext 5 av_image_get_buffer_size 0 av_malloc 0 av_image_fill_arrays 0 av_image_alloc 0 "
      "av_image_get_buffer_size 0 av_image_alloc 0"},
     "sws_scale 11"},
};

// The call succeeds and makes the calls of the list. With each of these failing in turn, it ends as the
// list says, and succeeds the next time. The check is told the failed call ("av_malloc 2", "" for none)
// and the result.
void ExpectSites(Handle nBase, const char* szSites, const std::function<bool()>& call,
                 const std::function<void(const std::string&, bool)>& check)
{
    faults::Reset();
    EXPECT_OK(call());
    const std::vector<std::string> vec_Calls = faults::Log();
    check("", true);

    std::istringstream sites(szSites);
    std::map<std::string, int> mapNth;
    std::vector<std::string> vec_Expected;
    std::string outcome;
    for (std::string function; sites >> function >> outcome;) {
        vec_Expected.push_back(function);
        const int nth = ++mapNth[function];
        if (outcome == "-") {
            continue;
        }
        const std::string site = function + ' ' + std::to_string(nth);
        SCOPED_TRACE(site);
        bool bDone = false;
        {
            const test::KeepsMemoryByContract keeps(outcome.find('k') != std::string::npos);
            faults::Reset();
            faults::Fail(function, nth);
            bDone = call();
            EXPECT_EQ(faults::Failed(), 1);
            faults::Reset();
        }
        if (outcome == "0") {
            EXPECT_TRUE(bDone && !AVFilter_IsErrorOccur);
        } else {
            ExpectFailure(bDone,
                          outcome == "u" ? test::kUnlinked : nBase + std::stoul(outcome, nullptr, 16),
                          outcome.find('q') == std::string::npos);
        }
        check(site, bDone);
        EXPECT_OK(call());
        check("", true);
    }
    EXPECT_EQ(vec_Calls, vec_Expected);
}

// Calls the function for each kind, with new handles of it: for even values, and for odd ones.
template <class Function>
void ForEachKind(const Function& function)
{
    for (std::size_t k = 0; k < std::size(kKinds); ++k) {
        for (const int nFirst : {20, 21}) {
            SCOPED_TRACE(std::string(kKinds[k].szName) + (nFirst % 2 == 0 ? "" : ", whole pictures"));
            Handle h = 0;
            EXPECT_OK(kKinds[k].pCreate(&h, 64));
            function(k, kKinds[k], h, nFirst);
            EXPECT_OK(kKinds[k].pDestroy(h));
        }
    }
}

TEST_F(Faults, InCreatingCallsAreReportedAndWriteNoHandle)
{
    for (std::size_t k = 0; k < std::size(kKinds); ++k) {
        const Kind& kind = kKinds[k];
        SCOPED_TRACE(kind.szName);
        Handle h = 42;
        const auto create = [&] {
            return kind.cFamily == 's' ? AVFilter_VideoScale_Init(&h) : kind.pCreate(&h, 64);
        };
        ExpectSites(kind.nBase, kSites[k].szCreate, create, [&](const std::string& failed, bool bDone) {
            EXPECT_EQ(h != 42, bDone);
            const bool bNoSizes = failed == "av_image_fill_arrays 1";
            if (bNoSizes ||
                (bDone && (failed == "av_image_get_buffer_size 1" || failed == "av_malloc 1"))) {
                // Without a picture separate planes have nowhere to go; whole ones need its rows' sizes.
                ExpectFailure(Take(kind, h, 20), AVFILTER_ERROR_VIDEO_ALLOC);
                EXPECT_EQ(Take(kind, h, 21), !bNoSizes);
                EXPECT_TRUE(!bNoSizes || AVFilter_dwErrorCode == AVFILTER_ERROR_VIDEO_SEND_FRAME);
            } else if (bDone && kind.cFamily != 's') {
                EXPECT_TRUE(Work(kind, h));
            }
            EXPECT_OK(kind.pDestroy(h));
            h = 42;
        });
    }
}

TEST_F(Faults, InSendingAreReportedAndLeaveTheGraphAsItWas)
{
    ForEachKind([](std::size_t k, const Kind& kind, Handle h, int nValue) {
        if (kind.pSend == nullptr) {
            return;
        }
        const int nWhole = nValue % 2;
        const auto send = [&] { return kind.pSend(h, 0, nValue += 2); };
        const auto expectSent = [&](const std::string&, bool bDone) {
            if (bDone) {
                EXPECT_TRUE(kind.pSend(h, 1, 50) && Take(kind, h, 0));
                EXPECT_EQ(g_nGot, nValue + 50);
            }
            ExpectFailure(Take(kind, h, 0), kind.nBase + 9);
        };
        ExpectSites(kind.nBase, kSites[k].szSend[nWhole], send, expectSent);
        if (kind.cFamily == 'm') {
            av_max_alloc(1024); // enough for a frame, not for a picture
            ExpectFailure(send(), kind.nBase + (nWhole == 0 ? 2 : 8));
            av_max_alloc(INT_MAX);
            expectSent("", send());
        }
    });
}

TEST_F(Faults, InGivingOutAreReportedAndKeepWhatIsInTheGraph)
{
    ForEachKind([](std::size_t k, const Kind& kind, Handle h, int nValue) {
        std::deque<int> queued;
        const auto next = [&] {
            nValue += 2;
            EXPECT_TRUE(kind.pSend == nullptr || (kind.pSend(h, 0, nValue - 1) && kind.pSend(h, 1, 1)));
            queued.push_back(nValue);
        };
        next();
        ExpectSites(
            kind.nBase, kSites[k].szTake, [&] { return Take(kind, h, nValue); },
            [&](const std::string& failed, bool bDone) {
                if (bDone) {
                    EXPECT_EQ(g_nGot, &kind == kKinds ? 100 : queued.front());
                }
                // A block in a form that cannot be told is lost.
                if (bDone || failed == "av_samples_get_buffer_size 1") {
                    queued.pop_front();
                    next();
                } else if (failed == "av_buffersink_get_frame 1" && kind.pSend == nullptr) {
                    next(); // the graph has this one, and another is sent
                }
            });
        // Its blocks all look alike; the receiving call of mixes takes its handle too.
        if (&kind == kKinds) {
            EXPECT_TRUE(Take(kKinds[1], h, 0));
            ExpectFailure(Take(kKinds[1], h, 0), kind.nBase + 9);
        }
    });
}

TEST_F(Faults, InSettingUpAreReportedThereOrByTheConversion)
{
    constexpr std::size_t kScaler = 4;
    for (const int nWidth : {64, 50}) {
        SCOPED_TRACE(nWidth);
        Handle h = 0;
        EXPECT_OK(AVFilter_VideoScale_Init(&h));
        ExpectSites(
            test::Video::kBase, kSites[kScaler].szSend[nWidth == 64 ? 0 : 1],
            [&] { return AVFilter_VideoScale_Set(h, 0, 64, 16, 0, nWidth, 16); },
            [&](const std::string& failed, bool) {
                if (failed.empty()) {
                    EXPECT_OK(Take(kKinds[kScaler], h, 20));
                    EXPECT_TRUE(g_nGot == 20 && test::g_nOut == nWidth * 24);
                } else {
                    ExpectFailure(Take(kKinds[kScaler], h, 20), AVFILTER_ERROR_VIDEO_SCALE);
                }
            });
        EXPECT_OK(AVFilter_VideoScale_Destory(h));
    }
}

// Random calls on four handles of a kind, in which one call of FFmpeg in thirty fails.
TEST_F(Faults, AtRandomNeverCrashOrContradict)
{
    for (const Kind& kind : kKinds) {
        SCOPED_TRACE(kind.szName);
        const test::KeepsMemoryByContract keeps(kind.cFamily == 'a');
        const bool bScaler = kind.cFamily == 's';
        const test::Bytes dice = test::Noise(30000, 7);
        Handle hHandles[4] = {};
        faults::Reset();
        faults::FailAtRandom(1.0 / 30, 7);
        for (std::size_t i = 0; i < dice.size(); i += 3) {
            Handle& h = hHandles[dice[i] % 4];
            const Handle hBefore = h;
            const int nFailed = faults::Failed();
            const Handle nBefore = AVFilter_GetLastError(nullptr);
            const int nInput = dice[i + 1] / 2 % 2;
            bool bDone = false;
            if (h != 0 && dice[i + 2] % 50 == 0) {
                EXPECT_OK(kind.pDestroy(std::exchange(h, 0ULL)));
                continue;
            }
            if (h == 0) {
                bDone = bScaler ? AVFilter_VideoScale_Init(&h) : kind.pCreate(&h, 64);
            } else if (bScaler && dice[i + 1] % 2 == 0) {
                bDone = AVFilter_VideoScale_Set(h, 0, 64, 16, 0, 1 + dice[i + 2] % 128, 16);
            } else if (kind.pSend != nullptr && dice[i + 1] % 2 == 0) {
                bDone = kind.pSend(h, nInput, nInput == 0 ? 40 : 60 + dice[i + 2] % 2);
            } else {
                bDone = Take(kind, h, 100 + nInput);
            }
            const Handle nCode = AVFilter_GetLastError(nullptr);
            if (bDone) {
                ASSERT_TRUE(h != 0 && !AVFilter_IsErrorOccur && nCode == nBefore) << i;
                continue;
            }
            ASSERT_EQ(h, hBefore) << i;
            ASSERT_TRUE(nCode > kind.nBase && nCode < kind.nBase + 0x12) << nCode;
            // A video filter may lack its picture, and a scaler its set-up, since an earlier failure.
            ASSERT_TRUE(faults::Failed() > nFailed || nCode == kind.nBase + 9 || kind.cFamily == 'f' ||
                        nCode == AVFILTER_ERROR_VIDEO_SCALE)
                << "no cause at " << i;
        }
        EXPECT_GT(faults::Failed(), 200);
        faults::Reset();
        for (Handle& h : hHandles) {
            EXPECT_OK(h != 0 || kind.pCreate(&h, 64));
            EXPECT_OK(!bScaler || AVFilter_VideoScale_Set(h, 0, 64, 16, 0, 64, 16));
            EXPECT_OK(kind.pSend == nullptr || (kind.pSend(h, 0, 40) && kind.pSend(h, 1, 60)));
            EXPECT_TRUE(Take(kind, h, 100) || kind.cFamily == 'f');
            EXPECT_OK(kind.pDestroy(h));
        }
    }
}

TEST_F(Faults, RepeatedHandleKeepsTheOlderRecordAndSucceeds)
{
    for (const Kind& kind : kKinds) {
        SCOPED_TRACE(kind.szName);
        Handle hOlder = 0;
        Handle hNewer = 0;
        EXPECT_OK(kind.pCreate(&hOlder, 64));
        EXPECT_TRUE(Work(kind, hOlder));
        const int nSize = test::g_nOut;
        faults::NextHandle(hOlder);
        {
            const test::KeepsMemoryByContract keeps;
            // A new scaler is set up by its handle, which would reach the older one here.
            EXPECT_OK(kind.cFamily == 's' ? AVFilter_VideoScale_Init(&hNewer) : kind.pCreate(&hNewer, 32));
        }
        EXPECT_EQ(hNewer, hOlder);
        EXPECT_TRUE(Work(kind, hNewer));
        EXPECT_EQ(test::g_nOut, nSize);
        EXPECT_OK(kind.pDestroy(hOlder));
        ExpectFailure(Take(kind, hNewer, 100), kind.nNotFound);
    }
}

} // namespace
