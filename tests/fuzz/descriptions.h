// Graph descriptions made of words that are safe in any order: filters that work in memory alone, and moderate
// numbers. FFmpeg's own parser is not what is looked at.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cctype>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace fuzz
{

// No filter that opens files, devices or plugins, or that has an option for one.
inline constexpr const char* kFilters =
    "anull volume aformat aresample amix amerge pan asetpts asetrate asetnsamples asplit aecho "
    "highpass lowpass equalizer bass treble acompressor alimiter dynaudnorm silenceremove "
    "silencedetect adelay afade atrim apad aloop areverse aphaser chorus flanger tremolo vibrato "
    "stereotools channelmap channelsplit join afftdn crystalizer extrastereo sine aevalsrc anullsrc "
    "anullsink acrossfade sidechaincompress astats volumedetect agate biquad bandpass dcshift asettb "
    "aselect anoisesrc null hflip vflip scale crop pad format noformat negate drawbox drawgrid overlay "
    "hstack vstack xstack blend fps setpts settb setsar setdar split transpose rotate boxblur gblur "
    "unsharp hue eq lutyuv lutrgb noise fade tile untile tmix tblend yadif bwdif select trim reverse "
    "loop shuffleframes shuffleplanes swapuv field interlace tinterlace separatefields weave il color "
    "testsrc smptebars nullsrc nullsink alphamerge alphaextract colorchannelmixer colorbalance deband "
    "dilation erosion sobel edgedetect convolution lagfun thumbnail framestep cropdetect idet pixelize "
    "scroll perspective vignette extractplanes mergeplanes premultiply zoompan hqdn3d xfade normalize "
    "colorspace swaprect stereo3d telecine geq chromashift fillborders";

// No "*", no "^", no function that loops: they make large numbers and long runs of small ones.
inline constexpr const char* kPieces =
    "[in] [out] [a] [b] [c] [ ] , ; = : | ' \\ @ in out a b c 0 1 2 3 16 64 100 0.5 -1 48000 44100 "
    "8000 stereo mono 5.1 s16 fltp flt u8 yuv420p rgb24 gray nv12 pal8 yuv444p10le inputs normalize "
    "duration sample_fmts channel_layouts sample_rates n p N T iw ih iw/2 ih/2 w h x y shortest "
    "eof_action repeat enable gte(t,1) between(n,1,3) mod(n,2) sws_flags=bilinear; async size d c0=c1 "
    "all_mode screen expr print_format NAN inf threads PTS-STARTPTS TB";

inline constexpr const char* kWhole =
    "anull volume=0.5,aformat=sample_fmts=s16 [in]anullsink;sine=samples_per_frame=480[out] "
    "aformat=sample_fmts=s16p:channel_layouts=5.1 asetnsamples=n=100 aresample=44100 null "
    "hflip,format=yuv420p "
    "scale=16:16 crop=3:3 format=yuv410p format=rgb24 setpts=N,fps=25 transpose,pad=64:64 "
    "[a]anull[out] [a][b]amix=inputs=2,aformat=sample_fmts=s16[out] [a][b][c]amix=inputs=3[out] "
    "[a]null[out] [a]negate[out] [a][b]overlay,format=yuv420p[out] [a][b]hstack[out] "
    "[a]vflip,format=nv12[out]";

// A description of these words, which are safe in any order. FFmpeg's own parser is not what is looked at.
inline std::string Description(FuzzedDataProvider& data)
{
    const auto pick = [&data](const char* szWords) {
        std::istringstream stream(szWords);
        const std::vector<std::string> words(std::istream_iterator<std::string>(stream), {});
        return words[data.ConsumeIntegralInRange<std::size_t>(0, words.size() - 1)];
    };
    if (data.ConsumeBool()) {
        return pick(kWhole);
    }
    std::string text;
    for (int n = data.ConsumeIntegralInRange(0, 24); n > 0; --n) {
        const std::string word = pick(data.ConsumeBool() ? kFilters : kPieces);
        // A digit or a multiplier ("k", "T") behind a number would make it a large one.
        if (text.empty() || std::isdigit(text.back()) == 0 || std::isalnum(word[0]) == 0) {
            text += word;
        }
    }
    return text;
}

} // namespace fuzz
