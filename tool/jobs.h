// The sub-commands, and what they report.
#pragma once

#include "output.h"

namespace tool
{

struct Options {
    std::vector<Source> inputs;
    std::string description;
    OutputWish output;
    bool bExplain = false;
    bool bQuiet = false;
};

Exit RunFilter(const Options& options, AVMediaType kind);
// What a file holds.
Exit RunProbe(const Options& options);

// ---- Reports ------------------------------------------------------------------------------------

using Inputs = std::vector<std::unique_ptr<Input>>;

Exit Explain(const Inputs& inputs, const Outcome& outcome);
// Ends the output and tells what has become of it.
Exit Finish(const Options& options, const Inputs& inputs, Output& output, const Outcome& outcome);
// A line for the user on standard error.
void Tell(const Options& options, const std::string& text);

} // namespace tool
