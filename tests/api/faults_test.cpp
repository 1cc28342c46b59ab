// Every FFmpeg call of the library fails, one at a time, and the handle generator repeats a value;
// and what the family's lock keeps out, shown from within a call. That nothing is kept is seen by the leak check of
// the sanitizer build.

#include "kinds.h"
#include "support/faults.h"

#include <chrono>
#include <deque>
#include <functional>
#include <future>
#include <sstream>

namespace
{

using namespace test;

struct Faults : testing::Test {
    void TearDown() override { faults::Reset(); }
};

#define HANDLE "BaseLib_OperatorHandle_Create(1000000001,9000000002,1) - "

// The library's calls in order, and what comes of the failure of each: the last digits of the code (0 if the call
// succeeds all the same, "u" for an open end), "k" if what was built is deliberately kept, "q" if the flag stays
// down. Then how the handle goes on: "p" without a picture for planes, "r" without the sizes of its rows either, "c"
// without conversions, "l" without the block, "s" with what was sent. Without a name for an end FFmpeg does not find
// it.
#define SOUND                                                                                              \
    "av_channel_layout_describe 3k av_get_sample_fmt_name 3k "                                             \
    "avfilter_get_by_name 3k avfilter_graph_create_filter 3k "
#define SOUND_SINK "avfilter_get_by_name 3k avfilter_graph_create_filter 3k "
#define PICTURES "avfilter_get_by_name 3 avfilter_graph_create_filter 3 "
#define PICTURES_SINK "avfilter_get_by_name 4 avfilter_graph_create_filter 4 "
#define ENTRY "avfilter_inout_alloc 2 av_strdup "
const struct {
    const char* szCreate;
    const char* szSend[2]; // separate planes, and a whole picture
    const char* szTake;
} kSites[] = {
    {"avfilter_graph_alloc 2k avfilter_inout_alloc 2 avfilter_inout_alloc 2 " SOUND SOUND_SINK
     "av_strdup 5k av_strdup 5k avfilter_graph_parse_ptr 4k avfilter_graph_config 5k "
     "av_frame_alloc 2 av_frame_alloc 2 " HANDLE,
     {},
     "av_frame_get_buffer 7q av_buffersrc_add_frame 8 av_buffersink_get_frame 9s"},
    {"avfilter_graph_alloc 1 " SOUND ENTRY "5k " SOUND ENTRY "5k " SOUND_SINK
     "avfilter_inout_alloc 2k av_strdup 5k avfilter_graph_parse_ptr 4k avfilter_graph_config 5k " HANDLE,
     {"av_frame_alloc 7q av_frame_get_buffer 7kq av_buffersrc_add_frame 8",
      "av_frame_alloc 7q av_frame_get_buffer 7kq av_buffersrc_add_frame 8"},
     "av_frame_alloc 7 av_buffersink_get_frame 9 av_samples_get_buffer_size 9l"},
    {"avfilter_inout_alloc 2 avfilter_inout_alloc 2 avfilter_graph_alloc 2 " PICTURES PICTURES_SINK
     "av_strdup u av_strdup u avfilter_graph_parse_ptr 5 avfilter_graph_config 6 "
     "av_frame_alloc 2 av_image_get_buffer_size 0p av_malloc 0p av_image_fill_arrays 0r "
     "av_frame_alloc 2 av_image_get_buffer_size 0 av_malloc 0 av_image_fill_arrays 0 " HANDLE,
     {},
     "av_buffersrc_add_frame 8 av_buffersink_get_frame 9s"},
    {"avfilter_graph_alloc 1 " PICTURES ENTRY "u " PICTURES ENTRY "u " PICTURES_SINK ENTRY "u "
     "avfilter_graph_parse_ptr 5 avfilter_graph_config 6 " HANDLE,
     // The frame that FFmpeg found no buffer for has lost its size too: the source refuses it.
     {"av_frame_alloc 2 av_frame_get_buffer 2 av_buffersrc_add_frame 8",
      "av_frame_alloc 2 av_frame_get_buffer 8 av_buffersrc_add_frame 8"},
     "av_frame_alloc 2 av_buffersink_get_frame 9"},
    {HANDLE,
     // The set-up; what is missing of the pictures, the one with padded rows last, is for the conversion.
     {"sws_getContext 5 av_image_get_buffer_size 0c av_malloc 0c av_image_fill_arrays 0c av_image_alloc 0c "
      "av_image_get_buffer_size 0c av_image_alloc 0c",
      {}},
     "sws_scale 11"},
};

// A session: a handle is made, two blocks go in, as planes and whole, and two come out.
struct Step {
    std::string sites;
    std::function<bool()> call;
    int nValue = 0; // taken
};
std::vector<Step> Session(std::size_t k, Handle& h)
{
    const Kind& kind = kKinds[k];
    const auto& sites = kSites[k];
    std::vector<Step> vec_Steps;
    if (kind.cFamily == 's') {
        vec_Steps.push_back({sites.szCreate, [&h] { return AVFilter_VideoScale_Init(&h); }});
        vec_Steps.push_back(
            {sites.szSend[0], [&h] { return AVFilter_VideoScale_Set(h, 0, 64, 16, 0, 50, 16); }});
    } else {
        vec_Steps.push_back({sites.szCreate, [&] { return jobs::Create(kind, &h, kSize); }});
    }
    for (const int n : {40, 60, 41, 60}) {
        if (kind.Send != nullptr) {
            vec_Steps.push_back(
                {sites.szSend[n % 2], [&, n] { return Send(kind, h, n == 60 ? 1 : 0, n); }});
        }
    }
    for (const int nValue : {100, 101}) {
        vec_Steps.push_back({sites.szTake, [&, nValue] { return Take(kind, h, nValue); }, nValue});
    }
    return vec_Steps;
}

// With each of the session's calls failing in turn.
TEST_F(Faults, AreReportedWhereTheyHappenAndTheNextTrySucceeds)
{
    for (std::size_t k = 0; k < kKinds.size(); ++k) {
        const Kind& kind = kKinds[k];
        Handle h = 0;
        const std::vector<Step> vec_Steps = Session(k, h);
        std::vector<std::string> vec_Functions;
        std::vector<std::string> vec_Outcomes{""};
        for (const Step& step : vec_Steps) {
            std::istringstream sites(step.sites);
            for (std::string function, outcome; sites >> function >> outcome;) {
                vec_Functions.push_back(function);
                vec_Outcomes.push_back(outcome);
            }
        }
        std::erase(vec_Outcomes, "-");
        for (std::size_t n = 0; n < vec_Outcomes.size(); ++n) { // 0: none fails
            const std::string& outcome = vec_Outcomes[n];
            SCOPED_TRACE(testing::Message() << kind.szName << " " << n << " " << outcome);
            const auto has = [&outcome](char c) { return outcome.find(c) != std::string::npos; };
            const KeepsMemoryByContract keeps(has('k'));
            h = 42;
            faults::Reset();
            faults::Fail("", static_cast<int>(n));
            std::deque<int> queued{100, 101};
            for (const Step& step : vec_Steps) {
                const bool bWhole = step.nValue % 2 != 0;
                bool bDone = step.call();
                EXPECT_EQ(h != 42, bDone || &step != vec_Steps.data());
                if (step.nValue > 0 && (has('c') || has('r') || (has('p') && !bWhole))) {
                    ExpectFailure(bDone, has('c')             ? AVFILTER_ERROR_VIDEO_SCALE
                                         : has('r') && bWhole ? AVFILTER_ERROR_VIDEO_SEND_FRAME
                                                              : AVFILTER_ERROR_VIDEO_ALLOC);
                    queued.pop_front();
                    continue;
                }
                if (!bDone) {
                    const Handle nCode =
                        has('u') ? kUnlinked : kind.nBase + std::stoul(outcome, nullptr, 16);
                    ExpectFailure(bDone, nCode, !has('q'));
                    if (has('s')) {
                        queued.push_front(step.nValue);
                    } else if (has('l')) {
                        queued.pop_front();
                        continue;
                    }
                    bDone = step.call();
                }
                EXPECT_TRUE(bDone);
                if (step.nValue > 0) {
                    EXPECT_EQ(g_nGot, k == jobs::kAudioFilter ? 100 : queued.front());
                    queued.pop_front();
                }
            }
            EXPECT_EQ(faults::Failed(), n == 0 ? 0 : 1);
            EXPECT_TRUE(n > 0 || faults::Log() == vec_Functions);
            // The receiving call of mixes takes the handle of the audio filter too.
            EXPECT_TRUE(kind.cFamily != 'a' || Take(kKinds[jobs::kAudioMix], h, 0) == has('s'));
            EXPECT_OK(kind.Destroy(h));
        }
    }
}

TEST_F(Faults, RepeatedHandleKeepsTheOlderRecordAndSucceeds)
{
    for (const Kind& kind : kKinds) {
        SCOPED_TRACE(kind.szName);
        Handle hOlder = 0, hNewer = 0;
        EXPECT_OK(jobs::Create(kind, &hOlder, kSize));
        faults::NextHandle(hOlder);
        {
            const KeepsMemoryByContract keeps;
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
    const auto async = [](const std::function<bool()>& call) {
        return std::async(std::launch::async, call);
    };
    for (std::size_t nCase = 0; nCase < 2 * kKinds.size(); ++nCase) {
        const Kind& kind = kKinds[nCase / 2];
        const Kind& other = kKinds[(nCase / 2 + 2) % kKinds.size()]; // of another family
        const bool bSend = nCase % 2 != 0;
        if (bSend && kind.Send == nullptr) {
            continue;
        }
        SCOPED_TRACE(std::string(kind.szName) + (bSend ? " sends" : " takes"));
        Handle hHandles[2] = {};
        for (Handle& h : hHandles) {
            EXPECT_OK(jobs::Create(kind, &h, kSize));
            EXPECT_TRUE(kind.Send == nullptr || (Send(kind, h, 0, 40) && Send(kind, h, 1, 60)));
        }
        const auto work = [&](Handle h) {
            Bytes out(kCapacity);
            int nOut = kCapacity;
            return bSend ? Send(kind, h, 0, 40) : kind.Take(h, Filled(100), out.data(), &nOut);
        };
        Handle h = 0, hOther = 0;
        std::vector<std::future<bool>> vec_Waiting;
        faults::Within(kind.cFamily == 's' ? "sws_scale"
                       : bSend             ? "av_buffersrc_add_frame"
                                           : "av_buffersink_get_frame",
                       [&] {
                           auto beside = async([&] {
                               return work(hHandles[1]) && jobs::Create(other, &hOther, kSize) &&
                                      other.Destroy(hOther);
                           });
                           EXPECT_TRUE(beside.wait_for(20s) == std::future_status::ready && beside.get());
                           vec_Waiting.push_back(
                               async([&] { return jobs::Create(kind, &h, kSize) && kind.Destroy(h); }));
                           vec_Waiting.push_back(async([&] { return kind.Destroy(0); }));
                           if (kind.cFamily == 's') {
                               vec_Waiting.push_back(async([&] {
                                   return AVFilter_VideoScale_Set(hHandles[1], 0, 64, 16, 0, 32, 8);
                               }));
                           }
                           for (std::future<bool>& waiting : vec_Waiting) {
                               EXPECT_EQ(waiting.wait_for(20ms), std::future_status::timeout);
                           }
                       });
        EXPECT_TRUE(work(hHandles[0]) && !vec_Waiting.empty());
        for (std::future<bool>& waiting : vec_Waiting) {
            EXPECT_TRUE(waiting.get());
        }
        EXPECT_TRUE(kind.Destroy(hHandles[0]) && kind.Destroy(hHandles[1]));
    }
}

} // namespace
