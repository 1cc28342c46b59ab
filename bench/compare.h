// Measuring the paths of a job beside each other, and what else the program measures.
#pragma once

#include "job.h"

#include <functional>
#include <string>
#include <vector>

namespace bench
{

// How much to measure: a smoke check or the figures for the documents.
struct Effort {
    bool bQuick;
    int nRounds;      // samples of each path
    int nInstances;   // times that the job is built anew, so that no path keeps a lucky place in memory
    double dSampleMs; // least length of one sample
};
Effort EffortFor(const Size& size);
Effort EffortForBlocks();
inline bool g_bQuick = false;

// Registers a benchmark that checks the paths' results against each other, then takes a sample of each
// path in turn, round after round. Counters, for each path P: t_P, the median time of a job; c_P, of
// processor time, all threads; and for each but the library's r_P, the median of the rounds' ratios
// library / P, with its quartiles lo_P and hi_P; d_P, the median of the differences library - P.
// Times are in nanoseconds.
void RegisterComparison(const std::string& szName, const Effort& effort, std::function<Job()> make);

double Median(std::vector<double> vec_Values);

void RegisterFilterTable();
void RegisterGrowth();
void RegisterQuality();

// The "ffmpeg" command, fed and read through two pipes by this process.
Path FfmpegOverPipes(const Size& size, const std::string& szFilters, const Job& job);
// libyuv and zimg, where they can do the conversion.
void AddRivals(Job& job, const Conversion& conversion);

} // namespace bench
