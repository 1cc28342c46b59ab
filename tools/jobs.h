// The sub-commands.
#pragma once

#include "media.h"

namespace tool
{

enum class AtEnd { kHold, kBlack, kSilence, kStop };

struct Options {
    std::vector<Input::Source> inputs;
    std::string description;
    OutputWish output; // path and format
    AtEnd atEnd = AtEnd::kHold;
    double dLength = 0;    // seconds of output; 0: as long as the description makes it
    AVRational rate{0, 1}; // pictures per second; 0: the fastest input's
    std::string pass;      // whose other stream is copied; empty: the first that has one; or "none"
    double dAt = 0;        // for one PNG: the time of the picture
    std::string size;      // scale: "WxH"
    AVPixelFormat pixelFormat = AV_PIX_FMT_NONE;
    AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED; // what the description made of the colours
    AVColorRange range = AVCOL_RANGE_UNSPECIFIED;
    bool bExplain = false;
    bool bJson = false;
    bool bQuiet = false;
};

Exit RunAudio(const Options& options);
Exit RunVideo(const Options& options);
Exit RunScale(const Options& options);
// What a file holds; with descriptions, what they turn it into.
Exit RunProbe(const Options& options, const std::string& audio, const std::string& video);

} // namespace tool
