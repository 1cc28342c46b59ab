// What a description makes of its inputs, by a graph that FFmpeg configures beside the library's: it tells
// formats, sizes and rates before anything runs. The results always come from the library.
#pragma once

#include "input.h"

#include <string>
#include <vector>

namespace tool
{

// A source of a graph: the label in the text, and what FFmpeg's buffer is told.
struct End {
    std::string label;
    std::string arguments;
};
// aspect: of a pixel; base: of times.
End SourceOf(const std::string& label, const Form& form, AVRational base, AVRational rate,
             const AVFrame& first);

// Sources, the text, and a sink behind its label "out"; configured. The filters of sources and sink, in
// this order, go to ends.
GraphPtr BuildGraph(AVMediaType kind, const std::vector<End>& sources, const std::string& text,
                    std::vector<AVFilterContext*>& ends);

// Before the label of an input, where the tool's own filters stand in front of it.
inline constexpr std::string_view kSource = "source@";
// Of the input of this name in the text.
std::string SourceLabel(const std::string& text, const std::string& name);

// What comes out.
struct Outcome {
    Form form; // a block's size is not known
    AVRational rate{0, 1};
    AVRational timeBase{1, 1};
    FramePtr seen;        // tells colours, fields and aspect
    bool bUneven = false; // the inputs' pictures do not follow each other evenly
    int nDepth = 0;       // bits of a sample, as far as they mean something
};

// The inputs' first pictures are sent through, for what only pictures tell.
using Inputs = std::vector<std::unique_ptr<Input>>;
Outcome Preview(const Inputs& inputs, const std::string& text);

// The text with more filters behind its output.
std::string Append(const std::string& text, const std::string& filters);

} // namespace tool
