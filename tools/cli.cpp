// telvane-avfilter: filters, mixes and scales media files with the library.
#include "jobs_common.h"

#include "support.h"

extern "C" {
#include <libavutil/parseutils.h>
#include <libavutil/pixdesc.h>
}

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <new>
#include <string>
#include <string_view>
#include <vector>

namespace
{

using namespace tool;

constexpr double kLongest = 1e7; // seconds: four months

constexpr const char* kFooter =
    "Exit codes: 0 done, 1 unexpected failure, 2 wrong arguments, 3 an input cannot be read, 4 the output\n"
    "cannot be written, 5 the description was refused, 6 the description gives nothing, 130 interrupted\n"
    "(the output holds what was done until then).\n";

struct Arguments {
    Options options;
    std::string input;
    std::vector<std::string> named;
    std::string from;
    std::string rate;
    std::string atEnd;
    std::string pixelFormat;
    std::string matrix;
    std::string range;
    std::string probeAudio;
    std::string probeVideo;
    bool bVerbose = false;
};

int Report(const Arguments& arguments, Exit exit, const std::string& what, unsigned long long nCode)
{
    const std::vector<std::string> lines = LogLines();
    if (arguments.options.bJson) {
        Json json{{"exit", static_cast<int>(exit)}, {"step", CurrentStep()}, {"error", what}};
        if (nCode != 0) {
            json["code"] = fmt::format("0x{:X}", nCode);
        }
        if (!lines.empty()) {
            json["ffmpeg"] = lines;
        }
        fmt::print(stderr, "{}\n", InJson(json));
    } else {
        fmt::print(stderr, "telvane-avfilter: {}: {}\n", CurrentStep(), what);
        for (const std::string& line : lines) {
            fmt::print(stderr, "  FFmpeg: {}\n", line);
        }
    }
    return exit;
}

Input::Source ParseInput(const std::string& text, const std::string& from)
{
    const std::size_t nEqual = text.find('=');
    const std::string name = text.substr(0, nEqual);
    const bool bName = !name.empty() && name.size() <= 40 && name != "out" &&
                       std::all_of(name.begin(), name.end(),
                                   [](unsigned char c) { return std::isalnum(c) != 0 || c == '_'; });
    if (nEqual == std::string::npos || !bName) {
        throw Failure(
            kUsage,
            fmt::format("--in {}: write NAME=FILE, the name in letters, digits and _, not out", text));
    }
    return {name, text.substr(nEqual + 1), from};
}

void Prepare(Arguments& arguments, const std::string& command)
{
    Options& options = arguments.options;
    BeginStep("reading the arguments");
    for (const std::string& text : arguments.named) {
        options.inputs.push_back(ParseInput(text, arguments.from));
    }
    if (options.inputs.empty()) {
        options.inputs.push_back({"in", arguments.input, arguments.from});
    }
    for (std::size_t i = 0; i < options.inputs.size(); ++i) {
        for (std::size_t j = 0; j < i; ++j) {
            if (options.inputs[i].name == options.inputs[j].name) {
                throw Failure(kUsage, fmt::format("two inputs are named {}", options.inputs[i].name));
            }
        }
    }
    if (command != "probe" && !options.bExplain) {
        if (options.output.path.empty()) {
            throw Failure(kUsage, "an OUTPUT is needed");
        }
        static_cast<void>(Output::FormatOf(options.output.path, options.output.format));
    }
    const bool bAudio = command == "audio" || command == "mix-audio";
    options.atEnd = bAudio ? AtEnd::kSilence : AtEnd::kHold;
    if (!arguments.atEnd.empty()) {
        static const std::map<std::string, AtEnd> kWays{{"hold", AtEnd::kHold},
                                                        {"black", AtEnd::kBlack},
                                                        {"silence", AtEnd::kSilence},
                                                        {"stop", AtEnd::kStop}};
        options.atEnd = kWays.at(arguments.atEnd);
    }
    if (!arguments.rate.empty() && av_parse_video_rate(&options.rate, arguments.rate.c_str()) < 0) {
        throw Failure(kUsage, fmt::format("--rate {}: no rate", arguments.rate));
    }
    if (!arguments.pixelFormat.empty()) {
        options.pixelFormat = av_get_pix_fmt(arguments.pixelFormat.c_str());
        if (telvane::PlaneBytes({options.pixelFormat, 2, 2})[0] == 0) {
            throw Failure(kUsage, fmt::format("--pixel-format {}: not one that the scaler gives",
                                              arguments.pixelFormat));
        }
    }
    static const std::map<std::string, AVColorSpace> kMatrices{{"", AVCOL_SPC_UNSPECIFIED},
                                                               {"bt601", AVCOL_SPC_SMPTE170M},
                                                               {"bt709", AVCOL_SPC_BT709},
                                                               {"bt2020", AVCOL_SPC_BT2020_NCL}};
    options.matrix = kMatrices.at(arguments.matrix);
    options.range = arguments.range.empty()   ? AVCOL_RANGE_UNSPECIFIED
                    : arguments.range == "tv" ? AVCOL_RANGE_MPEG
                                              : AVCOL_RANGE_JPEG;
}

void AddCommon(CLI::App& command, Arguments& arguments)
{
    Options& options = arguments.options;
    command.add_option("--from", arguments.from,
                       "FFmpeg's format of the inputs, with its options: "
                       "rawvideo:video_size=640x360:pixel_format=yuv420p:framerate=25");
    command.add_flag("--json", options.bJson, "Report as JSON, failures too");
    command.add_flag("-v,--verbose", arguments.bVerbose, "Show FFmpeg's messages");
}

void AddOutput(CLI::App& command, Arguments& arguments)
{
    Options& options = arguments.options;
    command.add_option(
        "OUTPUT", options.output.path,
        "wav, flac, mp4, mkv, y4m or png (one picture, or many: out-%04d.png); - is standard output");
    command.add_option("--to", options.output.format, "The format, where the name does not tell")
        ->check(CLI::IsMember({"wav", "flac", "mp4", "mkv", "y4m", "png", "raw"}));
    command.add_option("--length", options.dLength, "Seconds of output; default: what the inputs give")
        ->check(CLI::Range(1e-6, kLongest));
    command.add_option("--pass", options.pass,
                       "The input whose other stream (the sound of video, the pictures of audio) is copied "
                       "to mp4 and mkv, or none; default: the first that has one");
    command.add_flag("--explain", options.bExplain,
                     "Show the graph as FFmpeg configured it, and run nothing");
    command.add_flag("-q,--quiet", options.bQuiet, "No progress and no report");
}

void AddVideo(CLI::App& command, Arguments& arguments)
{
    command.add_option("--rate", arguments.rate, "Pictures per second; default: the fastest input's");
    command.add_option("--at", arguments.options.dAt, "For one png: which second's picture")
        ->check(CLI::Range(0.0, kLongest));
}

int Run(int argc, char** argv)
{
    CLI::App app("Filters, mixes and scales media files with FFmpeg's filter descriptions.",
                 "telvane-avfilter");
    app.footer(kFooter);
    app.set_version_flag("--version",
                         fmt::format("telvane-avfilter {}.{}.{}", TELVANE_AVFILTER_VERSION_MAJOR,
                                     TELVANE_AVFILTER_VERSION_MINOR, TELVANE_AVFILTER_VERSION_PATCH));
    app.require_subcommand(1);
    Arguments arguments;
    Options& options = arguments.options;

    const auto add = [&](const char* szName, const char* szText) {
        CLI::App& command = *app.add_subcommand(szName, szText);
        AddCommon(command, arguments);
        return &command;
    };
    const auto addDescription = [&](CLI::App& command) {
        command.add_option("DESCRIPTION", options.description, "An FFmpeg filtergraph text")->required();
    };
    const auto addColours = [&](CLI::App& command) {
        command.add_option("--matrix", arguments.matrix, "What the description turned the colours into")
            ->check(CLI::IsMember({"bt601", "bt709", "bt2020"}));
        command.add_option("--range", arguments.range, "The same for the range")
            ->check(CLI::IsMember({"tv", "pc"}));
    };
    const auto addInput = [&](CLI::App& command) {
        command.add_option("INPUT", arguments.input, "A file, or - for standard input")->required();
    };
    const auto addInputs = [&](CLI::App& command, const std::vector<std::string>& ways) {
        command.add_option("--in", arguments.named, "NAME=FILE; the name is the label in the description")
            ->required()
            ->allow_extra_args(false);
        command
            .add_option("--at-end", arguments.atEnd, "How an input that ends goes on; default: " + ways[0])
            ->check(CLI::IsMember(ways));
    };

    CLI::App* pAudio = add("audio", "Filter the sound of a file");
    addDescription(*pAudio);
    addInput(*pAudio);
    AddOutput(*pAudio, arguments);

    CLI::App* pMixAudio = add("mix-audio", "Mix the sound of several files");
    addDescription(*pMixAudio);
    addInputs(*pMixAudio, {"silence", "stop"});
    AddOutput(*pMixAudio, arguments);

    CLI::App* pVideo = add("video", "Filter the pictures of a file");
    addDescription(*pVideo);
    addInput(*pVideo);
    AddOutput(*pVideo, arguments);
    AddVideo(*pVideo, arguments);
    addColours(*pVideo);

    CLI::App* pMixVideo = add("mix-video", "Mix the pictures of several files");
    addDescription(*pMixVideo);
    addInputs(*pMixVideo, {"hold", "black", "stop"});
    AddOutput(*pMixVideo, arguments);
    AddVideo(*pMixVideo, arguments);
    addColours(*pMixVideo);

    CLI::App* pScale = add("scale", "Scale the pictures of a file");
    pScale->add_option("SIZE", options.size, "640x360; 640x or x360 keep the shape")->required();
    addInput(*pScale);
    AddOutput(*pScale, arguments);
    AddVideo(*pScale, arguments);
    pScale->add_option("--pixel-format", arguments.pixelFormat,
                       "What the scaler gives; default: the input's");

    CLI::App* pProbe = add("probe", "Show what a file holds, and what descriptions turn it into");
    addInput(*pProbe);
    pProbe->add_option("--audio", arguments.probeAudio, "A description for its sound");
    pProbe->add_option("--video", arguments.probeVideo, "A description for its pictures");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() != 0 &&
            std::find(argv, argv + argc, std::string_view("--json")) != argv + argc) {
            BeginStep("reading the arguments");
            options.bJson = true;
            return Report(arguments, kUsage, error.what(), 0);
        }
        return app.exit(error) == 0 ? kDone : kUsage;
    }
    const CLI::App* pChosen = app.get_subcommands().front();
    CatchLog(arguments.bVerbose);
    CatchInterrupt();
    try {
        Prepare(arguments, pChosen->get_name());
        return pChosen == pAudio || pChosen == pMixAudio   ? RunAudio(options)
               : pChosen == pVideo || pChosen == pMixVideo ? RunVideo(options)
               : pChosen == pScale                         ? RunScale(options)
                                   : RunProbe(options, arguments.probeAudio, arguments.probeVideo);
    } catch (const Failure& failure) {
        if (IsInterrupted()) {
            return Report(arguments, kInterrupted, "interrupted before there was anything to keep", 0);
        }
        return Report(arguments, failure.ExitCode(), failure.what(), 0);
    } catch (const telvane::Error& error) {
        // Without the text that the layer names: the tool's own clocks stand in it.
        return Report(
            arguments, kGraph,
            fmt::format("{} (0x{:X})", error.code().message(), static_cast<unsigned>(error.code().value())),
            static_cast<unsigned>(error.code().value()));
    } catch (const std::bad_alloc&) {
        return Report(arguments, kOther, "no memory", 0);
    } catch (const std::exception& error) {
        return Report(arguments, kOther, error.what(), 0);
    }
}

} // namespace

int main(int argc, char** argv)
{
    try {
        const int nExit = Run(argc, argv);
        if (std::fflush(stdout) != 0 && nExit == tool::kDone) {
            static_cast<void>(std::fputs("telvane-avfilter: the report cannot be written\n", stderr));
            return tool::kOutput;
        }
        return nExit;
    } catch (const std::exception& error) {
        static_cast<void>(std::fprintf(stderr, "telvane-avfilter: %s\n", error.what()));
        return tool::kOther;
    }
}
