#include "jobs.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace tool
{

namespace
{

constexpr double kForever = std::numeric_limits<double>::infinity();

// An input turned out to be of another length than its packets told, or its pictures to stand elsewhere.
struct Mismeasured {
    std::size_t nInput;
};

// An input on its way into the library.
struct Lane {
    Input* pInput = nullptr;
    std::optional<Length> length; // nothing: not known beforehand
    AVRational rate{25, 1};       // of pictures
    bool bUneven = false;
    int64_t nSent = 0;            // pictures or samples
    double dNext = 0;             // seconds: when what comes next begins
    bool bEnded = false;          // has nothing more to send
    FramePtr last;                // picture
    std::vector<std::byte> bytes; // waiting samples, or a tight picture
};

// Of pictures or samples; -1: not known.
int64_t Total(const Lane& lane)
{
    return !lane.length ? -1
           : lane.pInput->Gives().kind == AVMEDIA_TYPE_AUDIO
               ? lane.length->nSamples
               : static_cast<int64_t>(lane.length->times.size());
}

double Rate(const Lane& lane)
{
    return lane.pInput->Gives().kind == AVMEDIA_TYPE_AUDIO ? lane.pInput->Gives().audio.rate
                                                           : av_q2d(lane.rate);
}

// Whether the pictures follow each other evenly at this rate from 0 on, as exactly as the file can say.
bool IsEven(const std::vector<int64_t>& times, AVRational base, AVRational rate)
{
    const double dTick = av_q2d(base);
    const double dTolerance = std::min(1.001 * dTick, 0.25 / av_q2d(rate));
    for (std::size_t i = 0; i < times.size(); ++i) {
        if (std::abs(static_cast<double>(times[i]) * dTick - static_cast<double>(i) / av_q2d(rate)) >
            dTolerance) {
            return false;
        }
    }
    return true;
}

Lane Measured(const Options& options, Input& input, bool bDecode)
{
    Lane lane;
    lane.pInput = &input;
    lane.rate = input.Rate();
    if (!input.File().IsRepeatable()) {
        return lane;
    }
    lane.length = input.Measure(bDecode);
    const bool bVideo = input.Gives().kind == AVMEDIA_TYPE_VIDEO;
    if (bVideo && !bDecode &&
        (lane.length->times.empty() || lane.length->times.front() == AV_NOPTS_VALUE)) {
        lane.length = input.Measure(true);
    }
    const std::vector<int64_t>& times = lane.length->times;
    if (times.size() == 1 && options.output.rate.num > 0) {
        lane.rate = options.output.rate; // a still lasts as long as one picture
    }
    const AVRational base = input.Stream().time_base;
    const AVRational mean = input.Stream().avg_frame_rate;
    if (bVideo && times.size() > 1 && !IsEven(times, base, lane.rate)) {
        lane.bUneven = mean.num <= 0 || mean.den <= 0 || !IsEven(times, base, mean);
        lane.rate = lane.bUneven ? lane.rate : mean;
    }
    return lane;
}

telvane::VideoStream VideoOf(const Lane& lane)
{
    const AVFrame& first = lane.pInput->First();
    telvane::VideoStream stream;
    stream.picture = lane.pInput->Gives().picture;
    stream.rate = {lane.rate.num, lane.rate.den};
    if (lane.length && lane.bUneven) {
        const AVRational base = lane.pInput->Stream().time_base;
        stream.times = lane.length->times;
        stream.timeBase = {base.num, base.den};
    } else if (lane.length) {
        stream.length = static_cast<int64_t>(lane.length->times.size());
    }
    stream.colour = {first.color_range, first.color_primaries, first.color_trc, first.colorspace};
    stream.aspect = {first.sample_aspect_ratio.num, std::max(1, first.sample_aspect_ratio.den)};
    if (IsInterlaced(first)) {
        stream.fields = IsTopFirst(first) ? telvane::Fields::kTopFirst : telvane::Fields::kBottomFirst;
    }
    return stream;
}

void SendPicture(telvane::VideoMixer& mixer, std::size_t nInput, Lane& lane)
{
    const auto planes = Planes(*lane.last, lane.bytes);
    mixer.Send(nInput, planes[0], planes[1], planes[2], planes[3]);
    ++lane.nSent;
}

// The next picture goes in, or turns out not to exist.
void SendNext(telvane::VideoMixer& mixer, std::size_t nInput, Lane& lane)
{
    FramePtr frame = lane.pInput->Next();
    if (IsInterrupted()) {
        return;
    }
    const double dTick = av_q2d(lane.pInput->Stream().time_base);
    if (lane.length) {
        const std::vector<int64_t>& times = lane.length->times;
        const auto n = static_cast<std::size_t>(lane.nSent);
        if (!frame ? n != times.size()
                   : n == times.size() || std::abs(static_cast<double>(frame->pts - times[n])) * dTick >
                                              0.5 / av_q2d(lane.rate)) {
            throw Mismeasured{nInput};
        }
    }
    lane.bEnded = !frame;
    if (!frame) {
        return;
    }
    const double dTime = static_cast<double>(frame->pts) * dTick;
    // Without known times, evenly: the picture before is repeated, or this one comes too late.
    const int64_t nAt = lane.length ? lane.nSent : std::llround(dTime * av_q2d(lane.rate));
    while (lane.last && lane.nSent < nAt) {
        SendPicture(mixer, nInput, lane);
    }
    lane.last = std::move(frame);
    if (nAt >= lane.nSent) {
        SendPicture(mixer, nInput, lane);
    }
    lane.dNext = lane.length && lane.bUneven ? dTime + 1 / av_q2d(lane.rate)
                                             : static_cast<double>(lane.nSent) / av_q2d(lane.rate);
}

void SendNext(telvane::AudioMixer& mixer, std::size_t nInput, Lane& lane)
{
    const telvane::AudioStream& audio = lane.pInput->Gives().audio;
    const std::size_t nBlock = mixer.InputBytes(nInput);
    const auto nSample = static_cast<int64_t>(nBlock) / audio.samples;
    bool bMore = true;
    while (bMore && lane.bytes.size() < nBlock) {
        const FramePtr frame = lane.pInput->Next();
        bMore = frame != nullptr;
        if (frame) {
            const auto* p = reinterpret_cast<const std::byte*>(frame->data[0]);
            lane.bytes.insert(lane.bytes.end(), p, p + frame->nb_samples * nSample);
        }
    }
    if (IsInterrupted()) {
        return;
    }
    const auto nSamples = static_cast<int64_t>(std::min(nBlock, lane.bytes.size())) / nSample;
    if (!lane.length && nSamples > 0) {
        lane.bytes.resize(std::max(nBlock, lane.bytes.size())); // with silence
    }
    if (lane.length && (nSamples > lane.length->nSamples - lane.nSent ||
                        (nSamples < audio.samples && nSamples < lane.length->nSamples - lane.nSent))) {
        throw Mismeasured{nInput};
    }
    lane.bEnded = nSamples == 0;
    if (nSamples > 0) {
        const auto nBytes = lane.length ? nSamples * nSample : static_cast<int64_t>(nBlock);
        mixer.Send(nInput, std::span(lane.bytes).first(static_cast<std::size_t>(nBytes)));
        lane.bytes.erase(lane.bytes.begin(), lane.bytes.begin() + nBytes);
        lane.nSent += nSamples;
        lane.dNext = static_cast<double>(lane.nSent) / audio.rate;
    }
}

// What follows an input whose end cannot be told: its last picture, or silence. Returns until when.
double SendMore(telvane::VideoMixer& mixer, std::size_t nInput, Lane& lane)
{
    SendPicture(mixer, nInput, lane);
    return static_cast<double>(lane.nSent) / Rate(lane);
}
double SendMore(telvane::AudioMixer& mixer, std::size_t nInput, Lane& lane)
{
    lane.bytes.assign(mixer.InputBytes(nInput), std::byte{0});
    mixer.Send(nInput, lane.bytes);
    lane.nSent += lane.pInput->Gives().audio.samples;
    return static_cast<double>(lane.nSent) / Rate(lane);
}

class Job
{
  public:
    Job(const Options& options, AVMediaType kind)
        : m_Options(options), m_Kind(kind), m_Inputs(OpenInputs(options, kind))
    {
    }

    Exit Run()
    {
        const Text text = TextOf(m_Options, m_Inputs);
        Outcome outcome;
        if (m_Options.output.path.empty() || m_Kind == AVMEDIA_TYPE_AUDIO) {
            outcome = Preview(m_Inputs, text.labels, text.text);
        }
        if (m_Options.output.path.empty()) {
            return Explain(outcome);
        }
        Output output(m_Options.output, m_Kind, *m_Inputs[0]);
        outcome = Preview(m_Inputs, text.labels, Append(text.text, output.Restriction(outcome)));
        outcome.nDepth = DepthOf(*m_Inputs[0]);
        if (m_Options.bExplain) {
            return Explain(outcome);
        }
        std::vector<Lane> lanes = Measure();
        std::set<FileId> files;
        for (const Lane& lane : lanes) {
            files.insert(lane.pInput->Files().begin(), lane.pInput->Files().end());
            outcome.bUneven = outcome.bUneven || lane.bUneven;
        }
        output.Guard(files);
        WarnOfPipes(lanes);
        Input* pOthers = ChooseOthers(m_Options, m_Inputs, output);
        const std::size_t nOthers = pOthers != nullptr ? IndexOf(pOthers) : m_Inputs.size();
        const std::vector<bool> wanted = output.Open(outcome, pOthers, *m_Inputs[0]);
        const std::string whole = Append(text.text, Ending(outcome));
        Progress progress(m_Options.bQuiet, SecondsToDo());
        m_dMost = SecondsToDo() > 0 ? Most(SecondsToDo()) : kForever;
        m_pOutput = &output;
        m_pProgress = &progress;
        while (true) {
            try {
                ForgetLog();
                if (m_Kind == AVMEDIA_TYPE_VIDEO) {
                    std::vector<telvane::VideoInput> inputs;
                    for (std::size_t i = 0; i < lanes.size(); ++i) {
                        inputs.push_back({text.labels[i], VideoOf(lanes[i])});
                    }
                    telvane::VideoMixer mixer(inputs, whole, outcome.form.picture);
                    Start(nOthers, wanted);
                    Feed(mixer, lanes);
                } else {
                    std::vector<telvane::AudioInput> inputs;
                    for (std::size_t i = 0; i < lanes.size(); ++i) {
                        inputs.push_back({text.labels[i], m_Inputs[i]->Gives().audio});
                        if (lanes[i].length) {
                            inputs.back().stream.length = lanes[i].length->nSamples;
                        }
                    }
                    outcome.form.audio.samples = output.BlockSamples();
                    telvane::AudioMixer mixer(inputs, whole, outcome.form.audio);
                    Start(nOthers, wanted);
                    Feed(mixer, lanes);
                }
                break;
            } catch (const Mismeasured& wrong) {
                // Once more from the start, by what decoding gives; what is out already stays.
                if (m_Decoded.count(wrong.nInput) != 0) {
                    throw Failure(kInput, fmt::format("{} decodes differently each time",
                                                      m_Options.inputs[wrong.nInput].path));
                }
                m_Decoded.insert(wrong.nInput);
                m_nSkip = m_nReceived;
                m_nReceived = 0;
                m_Inputs.clear();
                m_Inputs = OpenInputs(m_Options, m_Kind);
                lanes = Measure();
            }
        }
        return Finish(m_Options, m_Inputs, output, Describe(m_Options, m_Inputs, outcome),
                      progress.Elapsed(), m_bCut || m_Options.output.dLength > 0);
    }

  private:
    Exit Explain(const Outcome& outcome) const
    {
        PrintExplanation(m_Options, Describe(m_Options, m_Inputs, outcome), outcome.dump);
        return kDone;
    }
    std::size_t IndexOf(const Input* pInput) const
    {
        std::size_t i = 0;
        while (m_Inputs[i].get() != pInput) {
            ++i;
        }
        return i;
    }
    double SecondsToDo() const
    {
        double dLongest = 0;
        for (const auto& input : m_Inputs) {
            dLongest = std::max(dLongest, input->File().Seconds());
        }
        return m_Options.output.dLength > 0 ? m_Options.output.dLength : dLongest;
    }
    std::vector<Lane> Measure()
    {
        std::vector<Lane> lanes;
        for (std::size_t i = 0; i < m_Inputs.size(); ++i) {
            lanes.push_back(Measured(m_Options, *m_Inputs[i], m_Decoded.count(i) != 0));
        }
        return lanes;
    }
    void WarnOfPipes(const std::vector<Lane>& lanes) const
    {
        for (const Lane& lane : lanes) {
            if (!lane.length) {
                Tell(m_Options, fmt::format("nobody knows how long {} is: what filters hold back or add at "
                                            "its end is lost",
                                            lane.pInput->Of().path));
            }
        }
    }
    void Start(std::size_t nOthers, const std::vector<bool>& wanted)
    {
        const int64_t nPassed = m_nPassed; // before, if this is the second time
        m_nPassed = 0;
        for (std::size_t i = 0; i < m_Inputs.size(); ++i) {
            m_Inputs[i]->Start(i == nOthers ? wanted : std::vector<bool>(),
                               [this, nPassed](PacketPtr packet) {
                                   if (++m_nPassed > nPassed) {
                                       m_pOutput->Pass(std::move(packet));
                                   }
                               });
        }
    }

    // Takes all that there is. dUntil: what comes later is not wanted any more.
    template <class Mixer>
    telvane::State Receive(Mixer& mixer, double dUntil = kForever)
    {
        if (!m_Pool) {
            m_Pool = Made<PoolPtr>(
                av_buffer_pool_init(mixer.OutputBytes() + AV_INPUT_BUFFER_PADDING_SIZE, nullptr));
        }
        while (!IsInterrupted()) {
            FramePtr frame = Wrapped(*m_Pool, PictureOf(mixer));
            const telvane::Received received =
                mixer.Receive({reinterpret_cast<std::byte*>(frame->buf[0]->data), mixer.OutputBytes()});
            if (!received) {
                return received.state;
            }
            const double dTime =
                received.time ? static_cast<double>(received.time->count()) / 1e6 : m_dTime;
            m_dTime = std::max(m_dTime, dTime);
            SetSamples(mixer, *frame, received.bytes, dUntil - dTime);
            if (dTime >= dUntil) {
                return telvane::State::kEnd;
            }
            if (++m_nReceived > m_nSkip && !m_pOutput->Put(std::move(frame), dTime)) {
                m_bFull = true;
                return telvane::State::kEnd;
            }
            if (m_dTime > m_dMost) {
                throw Failure(kUsage, "the description goes on without end: set one with --length");
            }
        }
        return telvane::State::kEnd;
    }
    static telvane::Picture PictureOf(const telvane::VideoMixer& mixer) { return mixer.Output(); }
    static telvane::Picture PictureOf(const telvane::AudioMixer&) { return {}; }
    static void SetSamples(const telvane::VideoMixer&, AVFrame&, std::size_t, double) {}
    static void SetSamples(const telvane::AudioMixer& mixer, AVFrame& frame, std::size_t nBytes,
                           double dMost)
    {
        const telvane::AudioStream& out = mixer.Output();
        const std::size_t nSamples =
            nBytes * static_cast<std::size_t>(out.samples) / std::max<std::size_t>(mixer.OutputBytes(), 1);
        frame.format = out.format;
        frame.nb_samples =
            static_cast<int>(std::min(static_cast<double>(nSamples), std::ceil(dMost * out.rate - 0.5)));
        frame.linesize[0] = static_cast<int>(nBytes);
    }

    template <class Mixer>
    void Feed(Mixer& mixer, std::vector<Lane>& lanes)
    {
        telvane::State state = telvane::State::kNotYet;
        Lane* pFruitful = nullptr; // what it gave brought something out: nobody waits for the others
        while (state != telvane::State::kEnd && !IsInterrupted()) {
            Lane* pLane = pFruitful;
            for (Lane& lane : lanes) {
                if (!lane.bEnded &&
                    (pLane == nullptr || (pLane != pFruitful && lane.dNext < pLane->dNext))) {
                    pLane = &lane;
                }
            }
            if (pLane == nullptr) {
                break;
            }
            const int64_t nBefore = m_nReceived;
            try {
                SendNext(mixer, static_cast<std::size_t>(pLane - lanes.data()), *pLane);
            } catch (const telvane::Error& error) {
                if (error.code().value() != AVFILTER_ERROR_VIDEO_SEND_FRAME &&
                    error.code().value() != AVFILTER_ERROR_AUDIO_SEND_FRAME) {
                    throw;
                }
                pLane->bEnded = true; // for the description, which takes no more of it
                pLane->pInput->Stop(kForever);
            }
            state = Receive(mixer);
            pFruitful = m_nReceived > nBefore && !pLane->bEnded ? pLane : nullptr;
            m_pProgress->At(pLane->dNext);
        }
        if (state != telvane::State::kEnd && !IsInterrupted()) {
            BringOut(mixer, lanes);
        }
        m_bCut = m_bFull;
        for (std::size_t i = 0; i < lanes.size(); ++i) {
            Lane& lane = lanes[i];
            if (!m_bFull && !lane.bEnded && lane.nSent == Total(lane)) {
                SendNext(mixer, i, lane); // finds the end, or that there is more
            }
            m_bCut = m_bCut || !lane.bEnded;
            if (!lane.bEnded) {
                lane.pInput->Stop(m_dTime);
            }
        }
    }

    // All has been sent. What cannot be told the end is pushed on, and cut to the inputs' length.
    template <class Mixer>
    void BringOut(Mixer& mixer, std::vector<Lane>& lanes)
    {
        double dEnd = 0;
        bool bKnown = true;
        for (const Lane& lane : lanes) {
            dEnd = std::max(dEnd, static_cast<double>(lane.nSent) / Rate(lane));
            bKnown = bKnown && lane.length;
        }
        m_dMost = Most(dEnd);
        telvane::State state = Receive(mixer, bKnown ? kForever : dEnd);
        constexpr double kPatience = 30; // seconds of media
        for (double d = 0; !bKnown && d < kPatience && state != telvane::State::kEnd;) {
            for (std::size_t i = 0; i < lanes.size(); ++i) {
                if (!lanes[i].length) {
                    d = std::max(d, SendMore(mixer, i, lanes[i]) - dEnd);
                    state = Receive(mixer, dEnd);
                }
            }
        }
    }

    // Nobody wants more of an input of so many seconds.
    static double Most(double dSeconds) { return 10 * dSeconds + 120; }

    const Options& m_Options;
    AVMediaType m_Kind;
    std::set<std::size_t> m_Decoded; // inputs whose packets did not tell
    Output* m_pOutput = nullptr;
    Progress* m_pProgress = nullptr;
    PoolPtr m_Pool;
    int64_t m_nReceived = 0;
    int64_t m_nSkip = 0; // of them are out already
    std::atomic<int64_t> m_nPassed = 0;
    double m_dTime = 0; // of the last thing that came out
    double m_dMost = kForever;
    bool m_bFull = false;
    bool m_bCut = false;
    Inputs m_Inputs; // their threads use the others
};

} // namespace

Exit RunFilter(const Options& options, AVMediaType kind)
{
    return Job(options, kind).Run();
}

} // namespace tool
