// The sub-commands.
#pragma once

#include "output.h"

namespace tool
{

struct Options {
    std::vector<Source> inputs;
    std::string description;
    OutputWish output;
    bool bQuiet = false;
};

Exit RunFilter(const Options& options, AVMediaType kind);
// What a file holds.
Exit RunProbe(const Source& source);

} // namespace tool
