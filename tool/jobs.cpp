#include "jobs.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <span>
#include <unistd.h>

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
        const std::string pad = dLength < kForever ? fmt::format("apad=whole_dur={}", dLength) : "";
        return IsUsual(layout) ? pad : Relabel(layout) + (pad.empty() ? "" : "," + pad);
    }
    // The file's, because filters round to it.
    const AVRational base = input.Stream().time_base;
    return fmt::format("settb={}/{}{}", base.num, base.den, TurnOf(input.Stream())) +
           (dLength < kForever ? fmt::format(",tpad=stop_mode=clone:stop_duration={}", dLength) : "") +
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

// The filters that leave just this; the layer's own leave format and rate, and the layout if it is the usual one and
// was there before. Each filter more is felt in small blocks.
std::string Ending(const Outcome& outcome, const AVChannelLayout& before)
{
    if (outcome.form.kind == AVMEDIA_TYPE_VIDEO) {
        return fmt::format("format={}", av_get_pix_fmt_name(outcome.form.picture.format));
    }
    const AVChannelLayout& layout = outcome.form.layout;
    AVChannelLayout usual{};
    av_channel_layout_default(&usual, layout.nb_channels);
    const std::string text = "aformat=channel_layouts=" + LayoutName(layout);
    return !IsUsual(layout)                                   ? text + "," + Relabel(usual)
           : av_channel_layout_compare(&layout, &before) != 0 ? text
                                                              : "";
}

std::string Describe(const Outcome& outcome)
{
    const Form& form = outcome.form;
    if (form.kind == AVMEDIA_TYPE_VIDEO) {
        return fmt::format("width {}, height {}, format {}, rate {}{}", form.picture.width,
                           form.picture.height, av_get_pix_fmt_name(form.picture.format), outcome.rate.num,
                           outcome.rate.den == 1 ? "" : fmt::format("/{}", outcome.rate.den));
    }
    return fmt::format("rate {}, channels {}, format {}, layout {}", form.audio.rate, form.audio.channels,
                       av_get_sample_fmt_name(form.audio.format), LayoutName(form.layout));
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

telvane::AudioStream AudioOf(const Lane& lane)
{
    telvane::AudioStream stream = lane.pInput->Gives().audio;
    if (lane.length) {
        stream.length = lane.length->n;
    }
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
    if (lane.length && (nSamples > lane.length->n - lane.nSent ||
                        (nSamples < audio.samples && nSamples < lane.length->n - lane.nSent))) {
        throw Mismeasured{};
    }
    // After an end that cannot be told, thirty seconds of it bring out what filters hold.
    const bool bSilence = lane.bEnded;
    lane.bEnded = nSamples == 0 || (!lane.length && !bMore);
    const std::size_t nBytes = lane.length ? static_cast<std::size_t>(nSamples * nSample) : nBlock;
    for (int64_t n = bSilence ? int64_t{30} * audio.rate : nSamples - 1; n >= 0; n -= audio.samples) {
        lane.bytes.resize(std::max(nBytes, lane.bytes.size()));
        mixer.Send(nInput, std::span(lane.bytes).first(nBytes));
        lane.bytes.erase(lane.bytes.begin(), lane.bytes.begin() + static_cast<std::ptrdiff_t>(nBytes));
    }
    lane.nSent += nSamples;
    lane.dNext = SentUntil(lane);
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
        if (m_Kind == AVMEDIA_TYPE_AUDIO) {
            m_Outcome = Preview(m_Inputs, m_Text);
        }
        Output output(m_Options.output, m_Kind, *m_Inputs[0]);
        const AVChannelLayout before = m_Outcome.form.layout;
        m_Outcome = Preview(m_Inputs, Append(m_Text, output.Restriction(m_Outcome)));
        m_Outcome.nDepth = DepthOf(*m_Inputs[0]);
        m_Text = Append(m_Text, Ending(m_Outcome, before) + output.MakeEven(m_Outcome.form.picture));
        std::vector<Lane> lanes = Measure();
        double dLongest = 0;
        for (const Lane& lane : lanes) {
            const Input& input = *lane.pInput;
            m_Outcome.bUneven = m_Outcome.bUneven || lane.bUneven;
            dLongest = std::max(dLongest, input.File().Seconds());
            if (!lane.length) {
                Tell(input.Of().path +
                     ": nobody knows how long it is: what filters hold back or add at its end is lost");
            }
        }
        while (m_nOthers < m_Inputs.size() && !output.TakesOthers(*m_Inputs[m_nOthers])) {
            ++m_nOthers;
        }
        m_Wanted = output.Open(m_Outcome, m_nOthers < m_Inputs.size() ? m_Inputs[m_nOthers].get() : nullptr,
                               *m_Inputs[0]);
        m_Outcome.form.audio.samples = output.BlockSamples();
        m_dToDo = m_Options.output.dLength < kForever ? m_Options.output.dLength : dLongest;
        m_dSent = m_dToDo;
        m_pOutput = &output;
        {
            const Finally cleared([this] { std::fputs(m_bShown ? "\r\x1b[K" : "", stderr); });
            while (!Mixed(lanes)) {
                lanes = Measure();
            }
        }
        return Finish(output);
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
                Mix<telvane::VideoMixer>(lanes, VideoOf, m_Outcome.form.picture);
            } else {
                Mix<telvane::AudioMixer>(lanes, AudioOf, m_Outcome.form.audio);
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
            const auto& out = mixer.Output();
            frame->format = out.format;
            if constexpr (requires { out.width; }) {
                frame->width = out.width;
                frame->height = out.height;
                av_image_fill_arrays(frame->data, frame->linesize, frame->data[0], out.format, out.width,
                                     out.height, 1);
            } else {
                const double dSamples = static_cast<double>(received.bytes) * out.samples /
                                        static_cast<double>(mixer.OutputBytes());
                const double dWanted = std::ceil((dUntil - dTime) * out.rate - 0.5);
                frame->nb_samples = static_cast<int>(std::min(dSamples, dWanted));
            }
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
    void Mix(std::vector<Lane>& lanes, auto streamOf, const auto& out)
    {
        std::vector<telvane::Input<decltype(streamOf(lanes[0]))>> inputs;
        inputs.reserve(lanes.size());
        for (const Lane& lane : lanes) {
            inputs.push_back({SourceLabel(m_Text, lane.pInput->Of().name), streamOf(lane)});
        }
        Mixer mixer(inputs, m_Text, out);
        const auto send = [&](Lane& lane) {
            try {
                SendNext(mixer, static_cast<std::size_t>(&lane - lanes.data()), lane);
            } catch (const telvane::Error& error) {
                if (error.code().value() != AVFILTER_ERROR_VIDEO_SEND_FRAME &&
                    error.code().value() != AVFILTER_ERROR_AUDIO_SEND_FRAME) {
                    throw;
                }
                lane.bEnded = true; // for the description, which takes no more of it
                lane.length.emplace();
                lane.pInput->Stop();
            }
        };
        const int64_t nPassed = m_nPassed.exchange(0); // before, if this is the second time
        for (std::size_t i = 0; i < m_Inputs.size(); ++i) {
            m_Inputs[i]->Start(i == m_nOthers ? m_Wanted : std::vector<bool>(), m_Options.output.dLength,
                               [this, nPassed](PacketPtr packet) {
                                   return ++m_nPassed <= nPassed || m_pOutput->Pass(std::move(packet));
                               });
        }
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
            send(*pLane);
            m_dSent = std::max(m_dSent, pLane->dNext);
            if (std::all_of(lanes.begin(), lanes.end(), [](const Lane& lane) { return lane.bEnded; })) {
                break; // what comes now may have to be cut
            }
            state = Receive(mixer);
            pFruitful = m_nReceived > nBefore && !pLane->bEnded ? pLane : nullptr;
            ShowProgress(pLane->dNext);
        }
        if (state != telvane::State::kEnd && !IsInterrupted()) {
            double dEnd = 0;
            bool bKnown = true;
            for (Lane& lane : lanes) {
                dEnd = std::max(dEnd, lane.dNext);
                if (!lane.length) {
                    bKnown = false;
                    send(lane); // silence
                }
            }
            Receive(mixer, bKnown ? kForever : dEnd);
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

    // A line on standard error while it is a terminal.
    void ShowProgress(double dSeconds)
    {
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - m_Start;
        if (m_bShown && elapsed.count() >= m_dShown + 0.2) {
            m_dShown = elapsed.count();
            const double dSpeed = std::max(dSeconds, 1e-3) / std::max(m_dShown, 1e-3);
            fmt::print(stderr, "\r{:.1f} s, {:.1f} times as fast as it plays{}\x1b[K", dSeconds, dSpeed,
                       m_dToDo > dSeconds ? fmt::format(", {:.0f} s left", (m_dToDo - dSeconds) / dSpeed)
                                          : "");
        }
    }

    // A line for the user on standard error.
    void Tell(const std::string& text) const
    {
        if (!m_Options.bQuiet) {
            fmt::print(stderr, "telvane-avfilter: {}\n", text);
        }
    }

    // Ends the output and tells what has become of it.
    Exit Finish(Output& output)
    {
        const bool bInterrupted = IsInterrupted();
        for (const auto& input : m_Inputs) {
            input->Join();
        }
        output.Finish();
        FailIf(output.Count() == 0, kNothing,
               "the description gave nothing, or nothing at the time asked for");
        for (const std::string& note : output.Notes()) {
            Tell(note);
        }
        bool bDamaged = false;
        for (const auto& input : m_Inputs) {
            if (input->Damaged() > 0) {
                bDamaged = true;
                Tell(input->Of().path + " is damaged or cut: what could be decoded was used");
            }
        }
        if (!m_Options.bQuiet) { // a pipe carries the result alone
            const bool bVideo = m_Kind == AVMEDIA_TYPE_VIDEO;
            fmt::print(output.IsPipe() ? stderr : stdout, "{}: {} {}{}, {:.3f} s, {}{}\n",
                       m_Options.output.path, output.Count(), bVideo ? "picture" : "sample",
                       output.Count() == 1 ? "" : "s", output.Seconds(), Describe(m_Outcome),
                       bInterrupted ? ", interrupted" : "");
        }
        return bInterrupted ? kInterrupted : bDamaged ? kDamaged : kDone;
    }

    const Options& m_Options;
    AVMediaType m_Kind;
    std::string m_Text;
    Outcome m_Outcome;
    std::size_t m_nOthers = 0; // the input whose other streams are copied
    std::vector<bool> m_Wanted;
    bool m_bDecode = false; // the packets did not tell the inputs' lengths
    Output* m_pOutput = nullptr;
    bool m_bShown = !m_Options.bQuiet && isatty(STDERR_FILENO) == 1; // how far it is
    std::chrono::steady_clock::time_point m_Start = std::chrono::steady_clock::now();
    double m_dShown = -1; // seconds after the start
    double m_dToDo = 0;   // seconds of media; 0: not known
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

Exit RunProbe(const Source& source)
{
    const Demuxer file(source);
    av_log_set_callback([](void*, int nLevel, const char* szFormat, va_list args) {
        static_cast<void>(nLevel <= AV_LOG_INFO ? std::vprintf(szFormat, args) : 0);
    });
    av_dump_format(&file.Format(), 0, source.path.c_str(), 0);
    for (const auto& [kind, szCommand] :
         {std::pair(AVMEDIA_TYPE_VIDEO, "video"), std::pair(AVMEDIA_TYPE_AUDIO, "audio")}) {
        if (const AVStream* pStream = file.Choose(kind)) {
            fmt::print("{} takes stream {} unless --stream says otherwise\n", szCommand, pStream->index);
        }
    }
    return kDone;
}

} // namespace tool
