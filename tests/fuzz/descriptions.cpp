#include "descriptions.h"

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iterator>
#include <set>
#include <sstream>
#include <string_view>
#include <vector>

namespace fuzz
{

namespace
{

// Filters that work in memory alone. Every filter that is not listed is kept out, and so is a listed one
// that has an option for a file, a model or a plugin.
constexpr const char* kFilterNames =
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

// Pieces of descriptions.
constexpr const char* kPieceTexts =
    "[in] [out] [a] [b] [c] [ ] , ; = : | ' \\ @ in out a b c 0 1 2 3 16 64 100 0.5 -1 48000 44100 "
    "8000 stereo mono 5.1 s16 fltp flt u8 yuv420p rgb24 gray nv12 pal8 yuv444p10le inputs normalize "
    "duration sample_fmts channel_layouts sample_rates n p N T iw ih iw/2 ih/2 w h x y shortest "
    "eof_action repeat enable gte(t,1) between(n,1,3) mod(n,2) sws_flags=bilinear; async size d c0=c1 "
    "all_mode screen expr print_format NAN inf threads PTS-STARTPTS TB [in]hflip,format=yuv420p[out] "
    "[in]volume=0.5,aformat=sample_fmts=s16[out] [a][b]amix=inputs=2,aformat=sample_fmts=s16[out] "
    "[a][b]overlay,format=yuv420p[out] [a][b]hstack[out] [a]anull[out] [a]null[out]";

// Functions that loop for as long as the text says, and operators that make large numbers of small ones.
constexpr std::string_view kKeptOut[] = {"while", "root", "taylor", "*", "^", "xga", "uhd", "//"};

constexpr std::string_view kLongNumbers[] = {"48000", "44100", "8000", "16000", "96000", "22050", "0000"};

std::vector<std::string> Split(const char* szWords)
{
    std::istringstream stream(szWords);
    return {std::istream_iterator<std::string>(stream), {}};
}

const std::vector<std::string>& Filters()
{
    static const std::vector<std::string> names = Split(kFilterNames);
    return names;
}

bool OpensFiles(const AVFilter& filter)
{
    const AVOption* pOption = nullptr;
    while (filter.priv_class != nullptr &&
           (pOption = av_opt_next(&filter.priv_class, pOption)) != nullptr) {
        for (const char* szPart : {"file", "path", "plugin", "model", "url"}) {
            if (pOption->type == AV_OPT_TYPE_STRING && std::strstr(pOption->name, szPart) != nullptr) {
                return true;
            }
        }
    }
    return false;
}

std::set<std::string, std::less<>> ForbiddenFilters()
{
    std::set<std::string, std::less<>> names;
    void* pState = nullptr;
    while (const AVFilter* pFilter = av_filter_iterate(&pState)) {
        if (std::find(Filters().begin(), Filters().end(), pFilter->name) == Filters().end() ||
            OpensFiles(*pFilter)) {
            names.insert(pFilter->name);
        }
    }
    return names;
}

bool IsWordCharacter(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

// A number beyond 999 that is no usual rate, one with a multiplier behind it (2k, 1e9), or hexadecimal.
bool IsLargeNumber(std::string_view number, char cNext)
{
    if (cNext != '\0' &&
        (std::strchr("eEhkKMGTPZY", cNext) != nullptr || (number == "0" && cNext == 'x'))) {
        return true;
    }
    return number.size() > 3 &&
           std::find(std::begin(kLongNumbers), std::end(kLongNumbers), number) == std::end(kLongNumbers);
}

} // namespace

std::string Word(unsigned nNumber)
{
    static const std::vector<std::string> words = [] {
        std::vector<std::string> all = Split(kPieceTexts);
        all.insert(all.end(), Filters().begin(), Filters().end());
        return all;
    }();
    return words[nNumber % words.size()];
}

bool IsAllowed(const std::string& text)
{
    static const std::set<std::string, std::less<>> forbidden = ForbiddenFilters();
    // FFmpeg drops quotes and backslashes when it reads a name.
    std::string plain;
    std::copy_if(text.begin(), text.end(), std::back_inserter(plain),
                 [](char c) { return c != '\\' && c != '\''; });
    for (const std::string_view part : kKeptOut) {
        if (plain.find(part) != std::string::npos) {
            return false;
        }
    }
    for (std::size_t i = 0; i < plain.size();) {
        std::size_t nEnd = i;
        while (nEnd < plain.size() && IsWordCharacter(plain[nEnd])) {
            ++nEnd;
        }
        const std::string_view word = std::string_view(plain).substr(i, nEnd - i);
        if (forbidden.find(word) != forbidden.end()) {
            return false;
        }
        for (std::size_t k = 0; k < word.size();) {
            std::size_t nDigits = 0;
            while (k + nDigits < word.size() &&
                   std::isdigit(static_cast<unsigned char>(word[k + nDigits])) != 0) {
                ++nDigits;
            }
            if (nDigits > 0 && IsLargeNumber(word.substr(k, nDigits),
                                             k + nDigits < word.size() ? word[k + nDigits] : '\0')) {
                return false;
            }
            k += std::max<std::size_t>(nDigits, 1);
        }
        i = std::max(nEnd, i + 1);
    }
    return true;
}

} // namespace fuzz
