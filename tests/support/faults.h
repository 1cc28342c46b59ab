// Overrides of FFmpeg functions, and of the handle generator, for the library's own calls: they count
// and log the calls, and make chosen ones fail. Calls that FFmpeg makes of itself pass through.
#pragma once

#include <string>
#include <vector>

namespace faults
{

// Lets the nth call (1 is the next one) of this function fail, once.
void Fail(const std::string& szFunction, int nth = 1);

// Lets each call fail with this probability until Reset, from a generator that starts at the seed.
void FailAtRandom(double nProbability, unsigned nSeed);

// Makes the handle generator return this value, once.
void NextHandle(unsigned long long hHandle);

// Forgets all of it, the log too.
void Reset();

// The library's calls since Reset, by name, in order.
std::vector<std::string> Log();

// The number of calls that were made to fail since Reset.
int Failed();

} // namespace faults
