// Every FFmpeg call of the library fails, one at a time, memory runs out, and the handle generator repeats a value;
// and what the family's lock keeps out, shown from within a call. That nothing is kept is seen by the leak check of
// the sanitizer build.

#include "kinds.h"
#include "support/faults.h"

#include <chrono>
#include <deque>
#include <functional>
#include <future>
#include <new>
#include <sstream>

namespace
{

using test::Create;
using test::ExpectFailure;
using test::g_nGot;
using test::Handle;
using test::Kind;
using test::kKinds;
using test::NotFound;
using test::Send;
using test::Take;
using test::Work;

class Faults : public testing::Test
{
  protected:
    void TearDown() override { faults::Reset(); }
};

#define HANDLE "BaseLib_OperatorHandle_Create(1000000001,9000000002,1) - "

// The library's calls in order, and what comes of the failure of each: the last digits of the code (0 if the call
// succeeds all the same, "u" for an open end, "-" if the failure is not tried), "k" if what was built is deliberately
// kept, "q" if the flag stays down. Then how the handle goes on: "p" without a picture for planes, "r" without the
// sizes of its rows either, "l" without the block, "s" with what was sent. Without a name for an end FFmpeg does not
// find it.
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
     "av_frame_alloc 2 av_frame_alloc 2 " HANDLE,
     {},
     "av_frame_get_buffer 7q av_buffersrc_add_frame 8 av_buffersink_get_frame 9s"},
    {"avfilter_graph_alloc 1 "
     "av_channel_layout_describe 3k av_get_sample_fmt_name 3k "
     "avfilter_get_by_name 3k avfilter_graph_create_filter 3k avfilter_inout_alloc 2 av_strdup 5k "
     "av_channel_layout_describe 3k av_get_sample_fmt_name 3k "
     "avfilter_get_by_name 3k avfilter_graph_create_filter 3k avfilter_inout_alloc 2 av_strdup 5k "
     "avfilter_get_by_name 3k avfilter_graph_create_filter 3k avfilter_inout_alloc 2k av_strdup 5k "
     "avfilter_graph_parse_ptr 4k avfilter_graph_config 5k " HANDLE,
     {"av_frame_alloc 7q av_frame_get_buffer 7kq av_buffersrc_add_frame 8",
      "av_frame_alloc 7q av_frame_get_buffer 7kq av_buffersrc_add_frame 8"},
     "av_frame_alloc 7 av_buffersink_get_frame 9 av_samples_get_buffer_size 9l"},
    {"avfilter_inout_alloc 2 avfilter_inout_alloc 2 avfilter_graph_alloc 2 "
     "avfilter_get_by_name 3 avfilter_graph_create_filter 3 "
     "avfilter_get_by_name 4 avfilter_graph_create_filter 4 "
     "av_strdup u av_strdup u avfilter_graph_parse_ptr 5 avfilter_graph_config 6 "
     "av_frame_alloc 2 av_image_get_buffer_size 0p av_malloc 0p av_image_fill_arrays 0r "
     "av_frame_alloc 2 av_image_get_buffer_size 0 av_malloc 0 av_image_fill_arrays 0 " HANDLE,
     {},
     "av_buffersrc_add_frame 8 av_buffersink_get_frame 9s"},
    {"avfilter_graph_alloc 1 "
     "avfilter_get_by_name 3 avfilter_graph_create_filter 3 avfilter_inout_alloc 2 av_strdup u "
     "avfilter_get_by_name 3 avfilter_graph_create_filter 3 avfilter_inout_alloc 2 av_strdup u "
     "avfilter_get_by_name 4 avfilter_graph_create_filter 4 avfilter_inout_alloc 2 av_strdup u "
     "avfilter_graph_parse_ptr 5 avfilter_graph_config 6 " HANDLE,
     // The frame that FFmpeg found no buffer for has lost its size too: the source refuses it.
     {"av_frame_alloc 2 av_frame_get_buffer 2 av_buffersrc_add_frame 8",
      "av_frame_alloc 2 av_frame_get_buffer 8 av_buffersrc_add_frame 8"},
     "av_frame_alloc 2 av_buffersink_get_frame 9"},
    {HANDLE,
     // The set-up; what is missing of the pictures, the one with padded rows last, is for the conversion.
     {"sws_getContext 5 av_image_get_buffer_size 0l av_malloc 0l av_image_fill_arrays 0l av_image_alloc 0l "
      "av_image_get_buffer_size 0l",
      "sws_getContext 5 av_image_get_buffer_size 0l av_malloc 0l av_image_fill_arrays 0l av_image_alloc 0l "
      "av_image_get_buffer_size 0l av_image_alloc 0l"},
     "sws_scale 11"},
};

// The call succeeds and makes the calls of the list. With each of these failing in turn, it ends as the list says,
// and succeeds the next time. The check is told the failed call's outcome ("0" for none) and the result.
void ExpectSites(Handle nBase, const char* szSites, const std::function<bool()>& call,
                 const std::function<void(const std::string&, bool)>& check)
{
    faults::Reset();
    EXPECT_OK(call());
    const std::vector<std::string> vec_Calls = faults::Log();
    check("0", true);

    std::istringstream sites(szSites);
    std::vector<std::string> vec_Expected;
    std::string outcome;
    for (std::string function; sites >> function >> outcome;) {
        vec_Expected.push_back(function);
        if (outcome == "-") {
            continue;
        }
        SCOPED_TRACE(function + ", call " + std::to_string(vec_Expected.size()));
        bool bDone = false;
        {
            const test::KeepsMemoryByContract keeps(outcome.find('k') != std::string::npos);
            faults::Reset();
            faults::Fail("", static_cast<int>(vec_Expected.size()));
            bDone = call();
            EXPECT_EQ(faults::Failed(), 1);
            faults::Reset();
        }
        if (outcome[0] == '0') {
            EXPECT_TRUE(bDone && !AVFilter_IsErrorOccur);
        } else {
            ExpectFailure(bDone,
                          outcome == "u" ? test::kUnlinked : nBase + std::stoul(outcome, nullptr, 16),
                          outcome.find('q') == std::string::npos);
        }
        check(outcome, bDone);
        EXPECT_OK(call());
        check("0", true);
    }
    EXPECT_EQ(vec_Calls, vec_Expected);
}

TEST_F(Faults, InCreatingCallsAreReportedAndWriteNoHandle)
{
    for (std::size_t k = 0; k < kKinds.size(); ++k) {
        const Kind& kind = kKinds[k];
        SCOPED_TRACE(kind.szName);
        Handle h = 42;
        const auto create = [&] {
            return kind.cFamily == 's' ? AVFilter_VideoScale_Init(&h) : Create(kind, &h);
        };
        ExpectSites(kind.nBase, kSites[k].szCreate, create, [&](const std::string& outcome, bool bDone) {
            EXPECT_EQ(h != 42, bDone);
            if (outcome == "0p" || outcome == "0r") {
                // Without a picture separate planes have nowhere to go; whole ones need its rows' sizes.
                unsigned char* const p = test::g_Out;
                ExpectFailure(AVFilter_Video_Cvt(h, p, p, p, 0, 8, 8, p, &test::g_nOut),
                              AVFILTER_ERROR_VIDEO_ALLOC);
                ExpectFailure(Take(kind, h, 20), AVFILTER_ERROR_VIDEO_ALLOC);
                EXPECT_EQ(Take(kind, h, 21), outcome == "0p");
                EXPECT_TRUE(outcome == "0p" || AVFilter_dwErrorCode == AVFILTER_ERROR_VIDEO_SEND_FRAME);
            } else if (bDone && kind.cFamily != 's') {
                EXPECT_TRUE(Work(kind, h));
            }
            EXPECT_OK(kind.Destroy(h));
            h = 42;
        });
    }
}

// The sending call of mixes, and the call that gives something out; with planes and with whole pictures.
TEST_F(Faults, InWorkingCallsAreReportedAndLeaveInTheGraphWhatWasThere)
{
    for (std::size_t nCase = 0; nCase < 4 * kKinds.size(); ++nCase) {
        const std::size_t k = nCase / 4;
        const std::size_t nWhole = nCase % 2;
        const bool bSending = nCase % 4 > 1;
        const Kind& kind = kKinds[k];
        if (bSending && kind.Send == nullptr) {
            continue;
        }
        SCOPED_TRACE(std::string(kind.szName) + (bSending ? " sends" : " takes") +
                     (nWhole == 0 ? "" : " whole"));
        Handle h = 0;
        EXPECT_OK(Create(kind, &h));
        int nValue = 20 + static_cast<int>(nWhole);
        std::deque<int> queued;
        const auto next = [&] {
            nValue += 2;
            queued.push_back(nValue);
            return kind.Send == nullptr ||
                   (Send(kind, h, 1, 2) && (bSending || Send(kind, h, 0, nValue - 2)));
        };
        const auto expectNext = [&] {
            EXPECT_EQ(g_nGot, k == jobs::kAudioFilter ? 100 : queued.front());
            queued.pop_front();
            EXPECT_TRUE(next());
        };
        EXPECT_TRUE(next());
        if (bSending) {
            ExpectSites(
                kind.nBase, kSites[k].szSend[nWhole], [&] { return Send(kind, h, 0, nValue - 2); },
                [&](const std::string&, bool bDone) {
                    EXPECT_EQ(Take(kind, h, 0), bDone);
                    bDone ? expectNext() : void();
                    ExpectFailure(Take(kind, h, 0), kind.nBase + 9);
                });
        } else {
            ExpectSites(
                kind.nBase, kSites[k].szTake, [&] { return Take(kind, h, nValue); },
                [&](const std::string& outcome, bool bDone) {
                    g_nGot = outcome == "9l" ? queued.front() : g_nGot;
                    bDone || outcome == "9l" ? expectNext() : void();
                    EXPECT_TRUE(outcome != "9s" || next());
                });
        }
        // Its blocks all look alike; the receiving call of mixes takes its handle too.
        if (k == jobs::kAudioFilter) {
            EXPECT_TRUE(Take(kKinds[jobs::kAudioMix], h, 0));
            ExpectFailure(Take(kKinds[jobs::kAudioMix], h, 0), kind.nBase + 9);
        }
        EXPECT_OK(kind.Destroy(h));
    }
}

TEST_F(Faults, InSettingUpAreReportedThereOrByTheConversion)
{
    const Kind& kind = kKinds[jobs::kScaler];
    for (const int nWidth : {64, 50}) {
        SCOPED_TRACE(nWidth);
        Handle h = 0;
        EXPECT_OK(AVFilter_VideoScale_Init(&h));
        ExpectSites(
            kind.nBase, kSites[jobs::kScaler].szSend[nWidth == 64 ? 0 : 1],
            [&] { return AVFilter_VideoScale_Set(h, 0, 64, 16, 0, nWidth, 16); },
            [&](const std::string& outcome, bool) {
                if (outcome == "0") {
                    EXPECT_OK(Take(kind, h, 20));
                    EXPECT_TRUE(g_nGot == 20 && test::g_nOut == nWidth * 24);
                } else {
                    ExpectFailure(Take(kind, h, 20), AVFILTER_ERROR_VIDEO_SCALE);
                }
            });
        EXPECT_OK(AVFilter_VideoScale_Destory(h));
    }
}

TEST_F(Faults, OfTheContainersLeaveTheCallAsAnException)
{
    for (const Kind& kind : kKinds) {
        SCOPED_TRACE(kind.szName);
        const test::KeepsMemoryByContract keeps(kind.cFamily == 'a');
        bool bThrown = true;
        for (int nth = 1; bThrown; ++nth) {
            Handle h = 0;
            faults::FailNew(nth);
            try {
                EXPECT_OK(Create(kind, &h));
                bThrown = false;
                EXPECT_GT(nth, 1);
            } catch (const std::bad_alloc&) { // which leaves no lock behind
                EXPECT_OK(Create(kind, &h));
            }
            faults::Reset();
            EXPECT_TRUE(Work(kind, h));
            EXPECT_OK(kind.Destroy(h));
        }
    }
}

TEST_F(Faults, RepeatedHandleKeepsTheOlderRecordAndSucceeds)
{
    for (const Kind& kind : kKinds) {
        SCOPED_TRACE(kind.szName);
        Handle hOlder = 0;
        Handle hNewer = 0;
        EXPECT_OK(Create(kind, &hOlder));
        faults::NextHandle(hOlder);
        {
            const test::KeepsMemoryByContract keeps;
            // A new scaler is set up by its handle, which would reach the older one here.
            EXPECT_OK(kind.cFamily == 's' ? AVFilter_VideoScale_Init(&hNewer)
                                          : jobs::Create(kind, &hNewer, {32, 16, 32}, 7));
        }
        EXPECT_EQ(hNewer, hOlder);
        EXPECT_TRUE(Work(kind, hNewer));
        EXPECT_OK(kind.Destroy(hOlder));
        ExpectFailure(Take(kind, hNewer, 100), NotFound(kind));
    }
}

// From within a call of FFmpeg that a working call makes.
TEST_F(Faults, WorkingCallsRunBesideEachOtherWhileThoseThatChangeTheFamilyWait)
{
    using namespace std::chrono_literals;
    for (std::size_t nCase = 0; nCase < 2 * kKinds.size(); ++nCase) {
        const Kind& kind = kKinds[nCase / 2];
        const bool bSend = nCase % 2 != 0;
        if (bSend && kind.Send == nullptr) {
            continue;
        }
        SCOPED_TRACE(std::string(kind.szName) + (bSend ? " sends" : " takes"));
        Handle hHandles[2] = {};
        for (Handle& h : hHandles) {
            EXPECT_OK(Create(kind, &h));
            EXPECT_TRUE(kind.Send == nullptr || (Send(kind, h, 0, 40) && Send(kind, h, 1, 60)));
        }
        const auto work = [&](Handle h) {
            test::Bytes out(test::kCapacity);
            int nOut = test::kCapacity;
            return bSend ? Send(kind, h, 0, 40) : kind.Take(h, test::Filled(100), out.data(), &nOut);
        };
        Handle h = 0;
        const std::vector<std::function<bool()>> waiting{
            [&] { return Create(kind, &h) && kind.Destroy(h); }, [&] { return kind.Destroy(0); },
            [&] {
                return kind.cFamily != 's' || AVFilter_VideoScale_Set(hHandles[1], 0, 64, 16, 0, 32, 8);
            }};
        std::vector<std::future<bool>> vec_Results;
        const auto within = [&] {
            auto beside = std::async(std::launch::async, [&] {
                Handle hOther = 0;
                const Kind& other = kKinds[(nCase / 2 + 2) % kKinds.size()];
                return work(hHandles[1]) && Create(other, &hOther) && other.Destroy(hOther);
            });
            EXPECT_EQ(beside.wait_for(20s), std::future_status::ready);
            EXPECT_TRUE(beside.get());
            for (const auto& call : waiting) {
                vec_Results.push_back(std::async(std::launch::async, call));
            }
            for (std::size_t i = 0; i < (kind.cFamily == 's' ? 3U : 2U); ++i) {
                EXPECT_EQ(vec_Results[i].wait_for(20ms), std::future_status::timeout);
            }
        };
        faults::Within(kind.cFamily == 's' ? "sws_scale"
                       : bSend             ? "av_buffersrc_add_frame"
                                           : "av_buffersink_get_frame",
                       within);
        EXPECT_TRUE(work(hHandles[0]));
        for (std::future<bool>& result : vec_Results) {
            EXPECT_TRUE(result.get());
        }
        EXPECT_TRUE(vec_Results.size() == 3 && kind.Destroy(hHandles[0]) && kind.Destroy(hHandles[1]));
    }
}

} // namespace
