// Filters and mixers of sound.
#ifndef TELVANE_AUDIO_HPP
#define TELVANE_AUDIO_HPP

#include "telvane/graph.hpp"

namespace telvane
{

namespace detail
{

struct Audio {
    using Info = AVFILTER_AUDIO_INFO;
    using Stream = AudioStream;
    using Out = AudioStream;
    static constexpr auto kCreate = AVFilter_Audio_MIXInit;
    static constexpr auto kReceive = AVFilter_Audio_MIXRecv;
    static constexpr auto kDestroy = AVFilter_Audio_MIXDestroy;
    static constexpr int kInvalid = AVFILTER_ERROR_AUDIO_INVALID_PARAM;
    static constexpr int kNotFound = AVFILTER_ERROR_AUDIO_NOT_FOUND;
    static constexpr int kNoMemory = AVFILTER_ERROR_AUDIO_FRAME_BUFFER;
    static constexpr int kReceiveFailed = AVFILTER_ERROR_AUDIO_RECEIVE_FRAME;

    // Of one sample of all channels.
    static std::size_t SampleBytes(const AudioStream& stream)
    {
        constexpr std::array kBytes{1, 2, 4, 4, 8};
        Refuse(stream.format < AV_SAMPLE_FMT_U8 || stream.format > AV_SAMPLE_FMT_DBL, kInvalid,
               "the samples must be packed u8, s16, s32, flt or dbl");
        const int nBytes = kBytes.at(static_cast<std::size_t>(stream.format));
        Refuse(stream.rate < 1 || stream.channels < 1 || stream.samples < 1 ||
                   stream.channels > INT_MAX / nBytes / stream.samples,
               kInvalid, "no such rate, number of channels or block");
        return static_cast<std::size_t>(nBytes) * static_cast<std::size_t>(stream.channels);
    }
    static std::size_t InputBytes(const AudioStream& stream)
    {
        return SampleBytes(stream) * static_cast<std::size_t>(stream.samples);
    }
    static std::optional<std::int64_t> Length(const AudioStream& stream)
    {
        SampleBytes(stream);
        Refuse(stream.length && *stream.length < 0, kInvalid, "a length below 0");
        return stream.length;
    }
    static Info Record(const AudioStream& stream)
    {
        return {{}, stream.format, stream.rate, stream.samples, stream.channels, 0, 0};
    }
    static std::string Head(const AudioStream& stream, const std::string& /*label*/)
    {
        return "asetpts=N" + (stream.length ? ",atrim=end_sample=" + Text(*stream.length) : "");
    }
    static double Time(const AudioStream& stream, std::int64_t n)
    {
        return static_cast<double>(n) / stream.rate;
    }
    static int ToEnd(const AudioStream& /*stream*/) noexcept { return 1; }
    static void SendAnything(unsigned long long hHandle, std::size_t nInput)
    {
        unsigned char nothing = 0;
        Check(AVFilter_Audio_MIXSend(hHandle, static_cast<int>(nInput), &nothing, 0),
              "the end of an input");
    }
    static AudioStream Output(const std::vector<AudioInput>& inputs, const std::optional<AudioStream>& out)
    {
        Refuse(inputs.empty(), kInvalid, "no inputs");
        return out.value_or(inputs[0].stream);
    }

    struct Tail {
        explicit Tail(const AudioStream& stream) : out(stream), nBytes(InputBytes(stream)) {}
        std::string Filters(const Clock& clock) const
        {
            constexpr std::array kNames{"u8", "s16", "s32", "flt", "dbl"};
            return std::string("aformat=sample_fmts=") + kNames.at(static_cast<std::size_t>(out.format)) +
                   ":sample_rates=" + Text(out.rate) + ":channel_layouts=" + Text(out.channels) +
                   "c,asetnsamples=n=" + Text(out.samples) + ":p=0" + clock.Filters("a") +
                   clock.Mark(",apad=pad_len=1");
        }
        std::span<std::byte> Target(std::span<std::byte> buffer) const noexcept { return buffer; }
        std::size_t Finish(std::span<std::byte> /*buffer*/, std::size_t nSize) const noexcept
        {
            return nSize;
        }
        AudioStream out;
        std::size_t nBytes;
    };
};

} // namespace detail

/// Mixes the blocks of several inputs, numbered from 0, into blocks as "out" says, by default like the first
/// input's. The samples of an input follow one another from time 0.
/// Threads: one object, one caller at a time.
class AudioMixer : public detail::Graph<detail::Audio>
{
  public:
    /// description: from the inputs' names to [out]; a last output without a label is [out].
    /// Throws Error: INVALID_PARAM for streams and names that cannot be and for refused words; CREATE_FILTER,
    /// PARSE_GRAPH and CONFIG_GRAPH from FFmpeg, which leave tens of kilobytes allocated: do not try
    /// descriptions out in a loop.
    AudioMixer(const std::vector<AudioInput>& inputs, const std::string& description,
               const std::optional<AudioStream>& out = {}, Times times = Times::kGiven)
        : Graph(inputs, description, out, times)
    {
    }
    /// Sends a copy of one block: interleaved samples, InputBytes(nInput) or, if the stream's length leaves
    /// less, what is left. Throws Error: INVALID_PARAM for another size or more than the length; NOT_FOUND;
    /// FRAME_BUFFER and SEND_FRAME for lack of memory, after which the block can be sent again.
    void Send(std::size_t nInput, std::span<const std::byte> block)
    {
        const AudioStream& stream = StreamOf(nInput);
        const std::int64_t nSamples = std::min<std::int64_t>(stream.samples, Left(nInput));
        detail::CheckSize(block, static_cast<std::size_t>(nSamples) * detail::Audio::SampleBytes(stream),
                          false, AVFILTER_ERROR_AUDIO_INVALID_PARAM);
        detail::Check(AVFilter_Audio_MIXSend(Get(), static_cast<int>(nInput), detail::Raw(block),
                                             static_cast<int>(block.size())),
                      "Send");
        Took(nInput, nSamples);
    }
};

/// Filters one stream: a mix of the one input "in". The output is cut into blocks anew, so that a block sent
/// may give none, one or several. Threads: one object, one caller at a time.
class AudioFilter : public AudioMixer
{
  public:
    /// As for AudioMixer; a first input without a label is [in]: "volume=0.5" is enough.
    AudioFilter(const AudioStream& in, const std::string& description,
                const std::optional<AudioStream>& out = {}, Times times = Times::kGiven)
        : AudioMixer({{"in", in}}, description, out, times)
    {
    }
    /// As for AudioMixer, to the one input.
    void Send(std::span<const std::byte> block) { AudioMixer::Send(0, block); }
};

} // namespace telvane

#endif
