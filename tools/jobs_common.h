// What the sub-commands have in common.
#pragma once

#include "graph.h"
#include "jobs.h"

#include <nlohmann/json.hpp>

namespace tool
{

using Json = nlohmann::ordered_json;

std::string RateText(AVRational rate);
// Names of files need not be UTF-8: what is not is replaced.
std::string InJson(const Json& json);
// A stream's JSON as a reader wants it.
std::string InWords(const Json& stream);
// "1 picture", "2 pictures".
std::string Count(int64_t n, const char* szOne);
void Report(const Options& options, const Json& json, const std::string& text);
void WarnOfDamage(const std::vector<std::unique_ptr<Input>>& inputs);

// In the library's graph an input passes a clock of the tool's, behind which it has its own name.
std::string SourceLabel(const std::string& name);
// The description, which with a single input may leave out its label.
std::string TextOf(const Options& options);
std::vector<std::unique_ptr<Input>> OpenInputs(const Options& options, AVMediaType kind);
// The input whose other stream is copied to the output, if any.
Input* ChoosePassed(const Options& options, const std::vector<std::unique_ptr<Input>>& inputs,
                    AVMediaType kind);
// Copies what is left of the other stream: to its own end, or where the job was cut short, to that time.
void FinishPassed(const Options& options, Input& passing, Output& output, double dSeconds, bool bOver);
// For the progress: the length that was asked for, or the longest input's; 0 if that is not known.
double SecondsToDo(const Options& options, const std::vector<std::unique_ptr<Input>>& inputs);

constexpr double kForever = 1e18; // seconds
// When the copied stream ends at the latest.
double Until(const Options& options);
OutputWish WishOf(const Options& options, const Input* pPassing);

// The inputs of a job, with a source for each, and the one whose other stream is copied, if any.
template <class Source>
struct Opened {
    Opened(const Options& options, AVMediaType kind, AVMediaType other)
        : inputs(OpenInputs(options, kind)), pPassing(ChoosePassed(options, inputs, other))
    {
        sources.reserve(inputs.size());
        for (const auto& input : inputs) {
            sources.emplace_back(*input);
        }
    }
    std::vector<std::unique_ptr<Input>> inputs;
    Input* pPassing;
    std::vector<Source> sources;
};

// A description that makes more and more of what it has got needs an end that somebody sets.
void RefuseEndless(const Options& options, const OwnGraph& graph);
void PrintExplanation(const Options& options, Json json, const OwnGraph& graph);

// What the description turns the first input into.
Json ForeseeAudio(const Options& options);
Json ForeseeVideo(const Options& options);

} // namespace tool
