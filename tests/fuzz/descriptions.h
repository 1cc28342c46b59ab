// Graph descriptions made of words that are safe in any order: filters that work in memory alone, and moderate
// numbers. FFmpeg's own parser is not what is looked at.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace fuzz
{

// For each way to change the number, size, form, times or end of what passes. No filter that opens files, devices or
// plugins, or that has an option for one.
inline constexpr const char* kFilters =
    "anull volume aformat aresample amix amerge pan asetpts asetrate asetnsamples asplit adelay "
    "atrim apad aloop areverse channelsplit join silenceremove dynaudnorm asettb sine anullsrc "
    "anullsink acrossfade null hflip scale crop pad format noformat overlay hstack xstack fps setpts "
    "settb setsar split transpose rotate lutrgb fade tile untile tmix yadif select trim reverse loop "
    "separatefields weave telecine testsrc nullsrc nullsink alphamerge extractplanes mergeplanes "
    "thumbnail framestep zoompan hqdn3d xfade";

inline constexpr const char* kWhole =
    "anull volume=0.5,aformat=sample_fmts=s16 [in]anullsink;sine=samples_per_frame=480[out] "
    "aformat=sample_fmts=s16p:channel_layouts=5.1 asetnsamples=n=100 aresample=44100 null "
    "hflip,format=yuv420p scale=16:16 crop=3:3 format=yuv410p format=rgb24 setpts=N,fps=25 "
    "transpose,pad=64:64 [a]anull[out] [a][b]amix=inputs=2,aformat=sample_fmts=s16[out] "
    "[a][b][c]amix=inputs=3[out] [a]null[out] [a]negate[out] [a][b]overlay,format=yuv420p[out] "
    "[a][b]hstack[out] [a]vflip,format=nv12[out]";

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
    std::string text = data.PickValueInArray({"", "[in]", "[a]", "[a][b]"});
    for (int n = data.ConsumeIntegralInRange(0, 8); n > 0; --n) {
        text += pick(kFilters) +
                data.PickValueInArray({",", "[x];[x]", "[x][y];[x][y]", "=", "=16:", "[out]", ";", ""});
    }
    return text;
}

} // namespace fuzz
