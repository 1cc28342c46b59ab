// Description texts: the words that programs make them of, and which are kept out.
#pragma once

#include <string>

namespace fuzz
{

// A word by its number, any number.
std::string Word(unsigned nNumber);

// Whether a text may go to FFmpeg: filters of the list in descriptions.cpp, moderate numbers.
bool IsAllowed(const std::string& text);

} // namespace fuzz
