// The sub-commands.
#pragma once

#include "output.h"

#include <nlohmann/json.hpp>

namespace tool
{

struct Options {
    std::vector<Source> inputs;
    std::string description;
    OutputWish output;
    std::string pass; // whose other streams are copied; empty: the first that has any; or "none"
    std::string size; // scale: "WxH"
    AVPixelFormat pixelFormat = AV_PIX_FMT_NONE;
    bool bExplain = false;
    bool bJson = false;
    bool bQuiet = false;
};

Exit RunFilter(const Options& options, AVMediaType kind);
Exit RunScale(const Options& options);
// What a file holds; with descriptions, what they turn it into.
Exit RunProbe(const Options& options, const std::string& audio, const std::string& video);

// ---- What they have in common -------------------------------------------------------------------

using Inputs = std::vector<std::unique_ptr<Input>>;
using Json = nlohmann::ordered_json;

Inputs OpenInputs(const Options& options, AVMediaType kind);
// The graph that is run: the description with what the tool adds, and the labels of the inputs in it.
struct Text {
    std::vector<std::string> labels;
    std::string text;
};
Text TextOf(const Options& options, const Inputs& inputs);
// The filters that leave just this.
std::string Ending(const Outcome& outcome);
int DepthOf(const Input& input);             // bits of its samples in the file; 0: not known
bool IsUsual(const AVChannelLayout& layout); // of its number of channels
// The one whose other streams are copied, or null.
Input* ChooseOthers(const Options& options, const Inputs& inputs, const Output& output);

// A buffer of the pool as a frame.
FramePtr Wrapped(AVBufferPool& pool, const telvane::Picture& picture);

// The tight picture.
void Pack(const AVFrame& frame, std::vector<std::byte>& bytes);
// The picture's planes, packed into the buffer only where they are not tight already.
std::array<std::span<const std::byte>, 4> Planes(const AVFrame& frame, std::vector<std::byte>& buffer);

Json Describe(const Options& options, const Inputs& inputs, const Outcome& outcome);
void PrintExplanation(const Options& options, Json json, const std::string& dump);
// Ends the output and tells what has become of it.
// bCut: other streams end where the output does.
Exit Finish(const Options& options, const Inputs& inputs, Output& output, Json json, double dElapsed,
            bool bCut);

std::string RateText(AVRational rate);
// Names of files need not be UTF-8: what is not is replaced.
std::string InJson(const Json& json);
// A stream's JSON as a reader wants it.
std::string InWords(const Json& stream);
// "1 picture", "2 pictures".
std::string Count(int64_t n, const char* szOne);
// A line for the user on standard error.
void Tell(const Options& options, const std::string& text);

} // namespace tool
