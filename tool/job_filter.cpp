#include "jobs.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <span>

namespace tool
{

namespace
{

bool IsUsual(const AVChannelLayout& layout)
{
    AVChannelLayout usual{};
    av_channel_layout_default(&usual, layout.nb_channels);
    return av_channel_layout_compare(&layout, &usual) == 0;
}

// A filter that calls the channels by the places of another layout and leaves the samples as they are.
std::string Relabel(const AVChannelLayout& layout)
{
    std::string map = "0";
    for (int i = 1; i < layout.nb_channels; ++i) {
        map += fmt::format("|{}", i);
    }
    return fmt::format("channelmap=map={}:channel_layout={}", map, LayoutName(layout));
}

// What stands between the library's input and its label.
std::string Head(const Options& options, const Input& input)
{
    const double dLength = options.output.dLength;
    if (input.Gives().kind == AVMEDIA_TYPE_AUDIO) {
        const AVChannelLayout& layout = input.Gives().layout;
        const std::string pad = dLength > 0 ? fmt::format("apad=whole_dur={}", dLength) : "";
        return IsUsual(layout) ? pad : Relabel(layout) + (pad.empty() ? "" : "," + pad);
    }
    // The file's, because filters round to it.
    const AVRational base = input.Stream().time_base;
    const std::string turn = TurnOf(input.Stream());
    return fmt::format("settb={}/{}{}{}", base.num, base.den, turn.empty() ? "" : ",", turn) +
           (dLength > 0 ? fmt::format(",tpad=stop_mode=clone:stop_duration={}", dLength) : "") +
           // waveform and its like want to see one format right in front of them
           fmt::format(",format={}", av_get_pix_fmt_name(input.Gives().picture.format));
}

// Bits of its samples in the file; 0: not known.
int DepthOf(const Input& input)
{
    const AVCodecParameters& parameters = *input.Stream().codecpar;
    if (parameters.codec_type == AVMEDIA_TYPE_AUDIO) {
        return parameters.bits_per_raw_sample;
    }
    const AVPixFmtDescriptor* pPixels = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(parameters.format));
    return pPixels != nullptr ? pPixels->comp[0].depth : 0;
}

// The graph that is run: the description with what the tool adds.
std::string TextOf(const Options& options, const Inputs& inputs)
{
    std::string text;
    for (const auto& input : inputs) {
        const std::string& name = input->Of().name;
        const std::string head = Head(options, *input);
        text += head.empty() ? "" : fmt::format("[{}{}]{}[{}];", kSource, name, head, name);
    }
    const bool bOne = inputs.size() == 1 && inputs[0]->Of().name == "in";
    return text + (bOne ? telvane::detail::FromIn(options.description) : options.description);
}

// The filters that leave just this; the layer's own leave the format.
std::string Ending(const Outcome& outcome)
{
    if (outcome.form.kind == AVMEDIA_TYPE_VIDEO) {
        return fmt::format("format={}", av_get_pix_fmt_name(outcome.form.picture.format));
    }
    AVChannelLayout usual{};
    av_channel_layout_default(&usual, outcome.form.audio.channels);
    return "aformat=channel_layouts=" + LayoutName(outcome.form.layout) +
           (IsUsual(outcome.form.layout) ? "" : "," + Relabel(usual));
}

// The number of the one whose other streams are copied, or of inputs if there is none.
std::size_t ChooseOthers(const Options& options, const Inputs& inputs, const Output& output)
{
    const std::string& pass = options.output.pass;
    for (std::size_t i = 0; i < inputs.size() && output.TakesOthers(); ++i) {
        const bool bHas = inputs[i]->File().Format().nb_streams > 1;
        if (pass.empty() ? bHas : pass == inputs[i]->Of().name) {
            return i;
        }
    }
    FailIf(!pass.empty() && output.TakesOthers(), kUsage, "--pass {}: there is no such input", pass);
    return inputs.size();
}

// An input turned out to be of another length than its packets told, or its pictures to stand elsewhere.
struct Mismeasured {
};

// An input on its way into the library.
struct Lane {
    Input* pInput = nullptr;
    std::optional<Length> length; // nothing: not known beforehand
    AVRational rate{25, 1};       // of pictures or samples
    bool bUneven = false;
    int64_t nSent = 0;            // pictures or samples
    double dNext = 0;             // seconds: when what comes next begins
    bool bEnded = false;          // has nothing more to send
    FramePtr last;                // picture
    std::vector<std::byte> bytes; // waiting samples, or a tight picture
};

double SentUntil(const Lane& lane) // seconds, if evenly
{
    return static_cast<double>(lane.nSent) / av_q2d(lane.rate);
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

Lane Measured(Input& input, bool bDecode)
{
    Lane lane;
    lane.pInput = &input;
    const bool bVideo = input.Gives().kind == AVMEDIA_TYPE_VIDEO;
    lane.rate = bVideo ? input.Rate() : AVRational{input.Gives().audio.rate, 1};
    if (!input.File().IsRepeatable()) {
        return lane;
    }
    lane.length = input.Measure(bDecode);
    const std::vector<int64_t>& times = lane.length->times;
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
    if (lane.length) {
        const AVRational base = lane.pInput->Stream().time_base;
        stream.length = lane.length->n;
        stream.times = lane.bUneven ? lane.length->times : stream.times;
        stream.timeBase = {base.num, base.den};
        stream.toldRate = {lane.rate.num, lane.rate.den};
    }
    stream.colour = {first.color_range, first.color_primaries, first.color_trc, first.colorspace};
    stream.aspect = {first.sample_aspect_ratio.num, std::max(1, first.sample_aspect_ratio.den)};
    stream.fields = FieldsOf(first);
    return stream;
}

void SendPicture(telvane::VideoMixer& mixer, std::size_t nInput, Lane& lane)
{
    const AVFrame& frame = *lane.last;
    const telvane::Picture picture{static_cast<AVPixelFormat>(frame.format), frame.width, frame.height};
    const telvane::Planes sizes = telvane::PlaneBytes(picture);
    std::array<std::span<const std::byte>, 4> planes;
    bool bTight = true;
    for (std::size_t i = 0; i < planes.size(); ++i) {
        const int nRow = av_image_get_linesize(picture.format, frame.width, static_cast<int>(i));
        planes[i] = {reinterpret_cast<const std::byte*>(frame.data[i]), sizes[i]};
        bTight = bTight && (sizes[i] == 0 || frame.linesize[i] == nRow);
    }
    if (bTight) {
        mixer.Send(nInput, planes[0], planes[1], planes[2], planes[3]);
    } else {
        lane.bytes.resize(mixer.InputBytes(nInput));
        Check(av_image_copy_to_buffer(reinterpret_cast<uint8_t*>(lane.bytes.data()),
                                      static_cast<int>(lane.bytes.size()), frame.data, frame.linesize,
                                      picture.format, picture.width, picture.height, 1),
              kOther, "a picture");
        mixer.Send(nInput, lane.bytes);
    }
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
            throw Mismeasured{};
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
    lane.dNext = lane.bUneven ? dTime + 1 / av_q2d(lane.rate) : SentUntil(lane);
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
    if (lane.length && (nSamples > lane.length->n - lane.nSent ||
                        (nSamples < audio.samples && nSamples < lane.length->n - lane.nSent))) {
        throw Mismeasured{};
    }
    lane.bEnded = nSamples == 0 || (!lane.length && !bMore);
    if (nSamples > 0) {
        const auto nBytes = lane.length ? nSamples * nSample : static_cast<int64_t>(nBlock);
        mixer.Send(nInput, std::span(lane.bytes).first(static_cast<std::size_t>(nBytes)));
        lane.bytes.erase(lane.bytes.begin(), lane.bytes.begin() + nBytes);
        lane.nSent += nSamples;
        lane.dNext = SentUntil(lane);
    }
}

// What follows an input whose end cannot be told: its last picture, or silence.
void SendMore(telvane::VideoMixer& mixer, std::size_t nInput, Lane& lane)
{
    SendPicture(mixer, nInput, lane);
}
void SendMore(telvane::AudioMixer& mixer, std::size_t nInput, Lane& lane)
{
    lane.bytes.assign(mixer.InputBytes(nInput), std::byte{0});
    mixer.Send(nInput, lane.bytes);
    lane.nSent += lane.pInput->Gives().audio.samples;
}

void SetForm(const telvane::VideoMixer& mixer, AVFrame& frame, double /*dMost*/)
{
    const telvane::Picture& picture = mixer.Output();
    frame.format = picture.format;
    frame.width = picture.width;
    frame.height = picture.height;
    av_image_fill_arrays(frame.data, frame.linesize, frame.buf[0]->data, picture.format, picture.width,
                         picture.height, 1);
}
// linesize: the bytes that were written; dMost: seconds of them that are wanted.
void SetForm(const telvane::AudioMixer& mixer, AVFrame& frame, double dMost)
{
    const telvane::AudioStream& audio = mixer.Output();
    const int nSample = static_cast<int>(mixer.OutputBytes()) / audio.samples;
    frame.format = audio.format;
    const int nSamples = frame.linesize[0] / nSample;
    frame.nb_samples =
        static_cast<int>(std::min(static_cast<double>(nSamples), std::ceil(dMost * audio.rate - 0.5)));
}

class Job
{
  public:
    Job(const Options& options, AVMediaType kind) : m_Options(options), m_Kind(kind), m_Inputs(OpenInputs())
    {
    }

    Exit Run()
    {
        m_Text = TextOf(m_Options, m_Inputs);
        if (m_Options.output.path.empty() || m_Kind == AVMEDIA_TYPE_AUDIO) {
            m_Outcome = Preview(m_Inputs, m_Text);
        }
        if (m_Options.output.path.empty()) {
            return Explain(m_Inputs, m_Outcome);
        }
        Output output(m_Options.output, m_Kind, *m_Inputs[0]);
        m_Outcome = Preview(m_Inputs, Append(m_Text, output.Restriction(m_Outcome)));
        m_Outcome.nDepth = DepthOf(*m_Inputs[0]);
        m_Text = Append(m_Text, Ending(m_Outcome) + output.MakeEven(m_Outcome.form.picture));
        if (m_Options.bExplain) {
            return Explain(m_Inputs, m_Outcome);
        }
        std::vector<Lane> lanes = Measure();
        double dLongest = 0;
        for (const Lane& lane : lanes) {
            const Input& input = *lane.pInput;
            m_Outcome.bUneven = m_Outcome.bUneven || lane.bUneven;
            dLongest = std::max(dLongest, input.File().Seconds());
            if (!lane.length) {
                Tell(m_Options, fmt::format("nobody knows how long {} is: what filters hold back or add at "
                                            "its end is lost",
                                            input.Of().path));
            }
        }
        m_nOthers = ChooseOthers(m_Options, m_Inputs, output);
        m_Wanted = output.Open(m_Outcome, m_nOthers < m_Inputs.size() ? m_Inputs[m_nOthers].get() : nullptr,
                               *m_Inputs[0]);
        m_Outcome.form.audio.samples = output.BlockSamples();
        const double dToDo = m_Options.output.dLength > 0 ? m_Options.output.dLength : dLongest;
        Progress progress(m_Options.bQuiet, dToDo);
        m_dSent = dToDo;
        m_pOutput = &output;
        m_pProgress = &progress;
        while (!Mixed(lanes)) {
            lanes = Measure();
        }
        return Finish(m_Options, m_Inputs, output, m_Outcome);
    }

  private:
    Inputs OpenInputs() const
    {
        Inputs inputs;
        for (const Source& source : m_Options.inputs) {
            inputs.push_back(std::make_unique<Input>(source, m_Kind));
        }
        return inputs;
    }
    std::vector<Lane> Measure()
    {
        std::vector<Lane> lanes;
        for (const auto& input : m_Inputs) {
            lanes.push_back(Measured(*input, m_bDecode));
        }
        return lanes;
    }

    // False if it must be done once more from the start, by what decoding gives; what is out already stays.
    bool Mixed(std::vector<Lane>& lanes)
    {
        ForgetLog();
        try {
            if (m_Kind == AVMEDIA_TYPE_VIDEO) {
                std::vector<telvane::VideoInput> inputs;
                for (std::size_t i = 0; i < lanes.size(); ++i) {
                    inputs.push_back({SourceLabel(m_Text, m_Options.inputs[i].name), VideoOf(lanes[i])});
                }
                telvane::VideoMixer mixer(inputs, m_Text, m_Outcome.form.picture);
                Feed(mixer, lanes);
            } else {
                std::vector<telvane::AudioInput> inputs;
                for (std::size_t i = 0; i < lanes.size(); ++i) {
                    inputs.push_back(
                        {SourceLabel(m_Text, m_Options.inputs[i].name), m_Inputs[i]->Gives().audio});
                    if (lanes[i].length) {
                        inputs.back().stream.length = lanes[i].length->n;
                    }
                }
                telvane::AudioMixer mixer(inputs, m_Text, m_Outcome.form.audio);
                Feed(mixer, lanes);
            }
        } catch (const Mismeasured&) {
            FailIf(std::exchange(m_bDecode, true), kInput, "an input decodes differently each time");
            m_nSkip = std::exchange(m_nReceived, 0);
            m_Inputs.clear();
            m_Inputs = OpenInputs();
            return false;
        }
        return true;
    }

    void Start()
    {
        const int64_t nPassed = m_nPassed.exchange(0); // before, if this is the second time
        double dUntil = kForever;
        if (m_Options.output.dLength > 0) {
            dUntil = m_Options.output.dLength;
        }
        for (std::size_t i = 0; i < m_Inputs.size(); ++i) {
            m_Inputs[i]->Start(i == m_nOthers ? m_Wanted : std::vector<bool>(), dUntil,
                               [this, nPassed](PacketPtr packet) {
                                   return ++m_nPassed <= nPassed || m_pOutput->Pass(std::move(packet));
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
        double dFirst = kForever; // of this call, in which nothing new is sent
        for (int n = 0; !IsInterrupted(); ++n) {
            FramePtr frame = NewFrame();
            frame->buf[0] = NotNull(av_buffer_pool_get(m_Pool.get()));
            frame->data[0] = frame->buf[0]->data;
            const telvane::Received received =
                mixer.Receive({reinterpret_cast<std::byte*>(frame->data[0]), mixer.OutputBytes()});
            if (!received) {
                return received.state;
            }
            const double dTime =
                received.time ? static_cast<double>(received.time->count()) / 1e6 : m_dTime;
            m_dTime = std::max(m_dTime, dTime);
            frame->linesize[0] = static_cast<int>(received.bytes);
            SetForm(mixer, *frame, dUntil - dTime);
            m_bFull = dTime < dUntil && ++m_nReceived > m_nSkip && !m_pOutput->Put(std::move(frame), dTime);
            if (m_bFull || dTime >= dUntil) {
                return telvane::State::kEnd;
            }
            dFirst = std::min(dFirst, dTime);
            const double dMost = 10 * m_dSent + 120;
            FailIf(dTime - dFirst > dMost || n > 100 * dMost, kUsage,
                   "the description goes on without end: set one with --length");
        }
        return telvane::State::kEnd;
    }

    template <class Mixer>
    void Feed(Mixer& mixer, std::vector<Lane>& lanes)
    {
        Start();
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
                pLane->pInput->Stop();
            }
            m_dSent = std::max(m_dSent, pLane->dNext);
            if (std::all_of(lanes.begin(), lanes.end(), [](const Lane& lane) { return lane.bEnded; })) {
                break; // what comes now may have to be cut
            }
            state = Receive(mixer);
            pFruitful = m_nReceived > nBefore && !pLane->bEnded ? pLane : nullptr;
            m_pProgress->At(pLane->dNext);
        }
        if (state != telvane::State::kEnd && !IsInterrupted()) {
            BringOut(mixer, lanes);
        }
        for (std::size_t i = 0; i < lanes.size(); ++i) {
            Lane& lane = lanes[i];
            if (!m_bFull && !lane.bEnded && lane.length && lane.nSent == lane.length->n) {
                SendNext(mixer, i, lane); // finds the end, or that there is more
            }
            if (!lane.bEnded) {
                lane.pInput->Stop();
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
            dEnd = std::max(dEnd, SentUntil(lane));
            bKnown = bKnown && lane.length;
        }
        m_dSent = dEnd;
        telvane::State state = Receive(mixer, bKnown ? kForever : dEnd);
        constexpr double kPatience = 30; // seconds of media
        for (double d = 0; !bKnown && d < kPatience && state != telvane::State::kEnd;) {
            for (std::size_t i = 0; i < lanes.size(); ++i) {
                if (!lanes[i].length) {
                    SendMore(mixer, i, lanes[i]);
                    d = std::max(d, SentUntil(lanes[i]) - dEnd);
                    state = Receive(mixer, dEnd);
                }
            }
        }
    }

    const Options& m_Options;
    AVMediaType m_Kind;
    std::string m_Text;
    Outcome m_Outcome;
    std::size_t m_nOthers = 0; // the input whose other streams are copied
    std::vector<bool> m_Wanted;
    bool m_bDecode = false; // the packets did not tell the inputs' lengths
    Output* m_pOutput = nullptr;
    Progress* m_pProgress = nullptr;
    PoolPtr m_Pool;
    int64_t m_nReceived = 0;
    int64_t m_nSkip = 0; // of them are out already
    std::atomic<int64_t> m_nPassed = 0;
    double m_dTime = 0; // of the last thing that came out
    double m_dSent = 0; // seconds
    bool m_bFull = false;
    Inputs m_Inputs; // their threads use the others
};

} // namespace

Exit RunFilter(const Options& options, AVMediaType kind)
{
    return Job(options, kind).Run();
}

} // namespace tool
