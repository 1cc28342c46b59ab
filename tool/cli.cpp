// telvane-avfilter: filters, mixes and scales media files with the library.
#include "jobs.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cstdio>
#include <malloc.h>
#include <new>
#include <string>
#include <string_view>
#include <vector>

namespace
{

using namespace tool;

constexpr double kLongest = 1e7; // seconds: four months

constexpr const char* kFooter =
    "Encoders and containers take options as the ffmpeg command names them: -c:v libx265, -crf 23,\n"
    "-b:a 128k, -pix_fmt yuv420p, -movflags +faststart ...\n\n"
    "Exit codes: 0 done, 1 unexpected failure, 2 wrong arguments, 3 an input cannot be read, 4 the output\n"
    "cannot be written, 5 the description was refused, 6 the description gives nothing, 7 done, but an\n"
    "input was damaged or cut, 130 interrupted (the output holds what was done until then).\n\n"
    "More examples: `man telvane-avfilter`, and the cookbook in the documentation.\n";

struct Command {
    std::string_view name;
    const char* szText;
    const char* szExample;
    AVMediaType kind; // of what is filtered, if anything is
};
constexpr Command kCommands[] = {
    {"audio", "Filter the sound of a file", "loudnorm=I=-23 talk.mp4 even.mp4", AVMEDIA_TYPE_AUDIO},
    {"mix-audio", "Mix the sound of several files", "'[a][b]amix' --in a=one.wav --in b=two.wav both.flac",
     AVMEDIA_TYPE_AUDIO},
    {"video", "Filter the pictures of a file", "hflip clip.mp4 mirrored.mp4 -crf 20", AVMEDIA_TYPE_VIDEO},
    {"mix-video", "Mix the pictures of several files",
     "'[cam][logo]overlay=8:8' --in cam=cam.mp4 --in logo=logo.png out.mp4", AVMEDIA_TYPE_VIDEO},
    {"scale", "Scale the pictures of a file", "640x clip.mp4 small.mp4", AVMEDIA_TYPE_VIDEO},
    {"probe", "Show what a file holds", "clip.mp4", AVMEDIA_TYPE_UNKNOWN}};

struct Arguments {
    Options options;
    std::string input;
    std::vector<std::string> named;
    std::string from;
    std::vector<std::string> streams;
    std::string size;
    bool bVerbose = false;
};

int Report(Exit exit, const std::string& what)
{
    fmt::print(stderr, "telvane-avfilter: {}\n", what);
    for (const std::string& line : LogLines()) {
        if (what.find(line) == std::string::npos) {
            fmt::print(stderr, "  FFmpeg: {}\n", line);
        }
    }
    return exit;
}

// "640x360", "640x" or "x360": a side that is missing follows the other one.
std::string ScaleFilter(const std::string& size)
{
    const std::size_t nCross = std::min(size.find('x'), size.size());
    const std::string width = size.substr(0, nCross);
    const std::string height = size.substr(std::min(nCross + 1, size.size()));
    FailIf(nCross == size.size() || size == "x" ||
               (width + height).find_first_not_of("0123456789") != std::string::npos,
           kUsage, "\"{}\" is no size: 640x360, 640x or x360", size);
    return fmt::format("scale={}:{}:flags=bilinear", width.empty() ? "-1" : width,
                       height.empty() ? "-1" : height);
}

void Prepare(Arguments& arguments, const Command& command)
{
    Options& options = arguments.options;
    for (const std::string& text : arguments.named) {
        const std::size_t nEqual = text.find('=');
        const std::string name = text.substr(0, nEqual);
        FailIf(nEqual == std::string::npos || name.empty() || name.size() > 40 || name == "out" ||
                   name.find_first_not_of(kNameLetters) != std::string::npos,
               kUsage, "--in {}: write NAME=FILE, the name in letters, digits and _, not out", text);
        for (const Source& other : options.inputs) {
            FailIf(other.name == name, kUsage, "two inputs are named {}", name);
        }
        options.inputs.push_back({name, text.substr(nEqual + 1), arguments.from, ""});
    }
    if (options.inputs.empty()) {
        options.inputs.push_back({"in", arguments.input, arguments.from, ""});
    }
    for (const std::string& text : arguments.streams) { // NAME=SPECIFIER where there are several inputs
        const std::size_t nName = options.inputs.size() > 1 ? text.find('=') + 1 : 0;
        const auto found =
            std::find_if(options.inputs.begin(), options.inputs.end(), [&](const Source& source) {
                return nName == 0 || source.name + "=" == text.substr(0, nName);
            });
        FailIf(found == options.inputs.end() || (nName == 0 && options.inputs.size() > 1), kUsage,
               "--stream {}: write NAME=STREAM, the name of an input", text);
        found->stream = text.substr(nName);
    }
    OutputWish& output = options.output;
    output.path = output.path == "/dev/stdout" ? "-" : output.path;
    if (command.name == "scale") {
        options.description = ScaleFilter(arguments.size);
    }
}

// Takes "-crf 18" and the like out of the arguments: all that begin with one dash and are longer than "-v".
std::vector<std::string> TakeCodecOptions(int argc, char** argv, OutputWish& output)
{
    std::vector<std::string> rest;
    for (int i = 1; i < argc; ++i) {
        const std::string text = argv[i];
        if (text.size() < 3 || text[0] != '-' || std::isalpha(static_cast<unsigned char>(text[1])) == 0) {
            rest.push_back(text);
        } else if (i + 1 < argc) {
            output.options.emplace_back(text.substr(1), argv[++i]);
        } else {
            throw Failure(kUsage, fmt::format("{}: a value is missing", text));
        }
    }
    return rest;
}

void AddCommand(CLI::App& app, const Command& command, Arguments& arguments)
{
    Options& options = arguments.options;
    OutputWish& output = options.output;
    CLI::App& to = *app.add_subcommand(std::string(command.name), command.szText);
    to.footer(
        fmt::format("Example: telvane-avfilter {} {}\nMore: telvane-avfilter --help, and the cookbook.",
                    command.name, command.szExample));
    if (command.name == "scale") {
        to.add_option("SIZE", arguments.size, "640x360; 640x or x360 keep the shape")->required();
    } else if (command.name != "probe") {
        to.add_option("DESCRIPTION", options.description, "An FFmpeg filtergraph text")->required();
    }
    if (command.name.starts_with("mix-")) {
        to.add_option("--in", arguments.named, "NAME=FILE; the name is the label in the description")
            ->required()
            ->allow_extra_args(false);
    } else {
        to.add_option("INPUT", arguments.input, "A file, or - for standard input")->required();
    }
    to.add_option("--from", arguments.from, "FFmpeg's format of the inputs, where they do not tell");
    to.add_option("--stream", arguments.streams, "Which stream: 2, a:1, m:language:deu (mixes: NAME=...)")
        ->allow_extra_args(false);
    to.add_flag("-v,--verbose", arguments.bVerbose, "Show FFmpeg's messages");
    if (command.name == "probe") {
        return;
    }
    to.add_option("OUTPUT", output.path, "A file; many pictures: out-%04d.png; - is standard output")
        ->required();
    to.add_option("--to", output.format, "Its format, where the name does not tell: mkv, wav, raw ...");
    to.add_option("--length", output.dLength, "Seconds of output; default: what the inputs give")
        ->check(CLI::Range(1e-6, kLongest));
    to.add_option("--pass", output.pass,
                  "none: no other streams, tags and chapters beside what is filtered")
        ->check(CLI::IsMember({"none"}));
    to.add_flag("-y,--force", output.bForce, "Replace an output that exists");
    to.add_flag("-q,--quiet", options.bQuiet, "No progress and no report");
    if (command.kind == AVMEDIA_TYPE_VIDEO) {
        to.add_option("--at", output.dAt, "For one picture: of which second")
            ->check(CLI::Range(0.0, kLongest));
    }
}

int Run(int argc, char** argv)
{
    CLI::App app("Filters, mixes and scales media files with FFmpeg's filter descriptions.",
                 "telvane-avfilter");
    app.footer(kFooter);
    app.set_version_flag("--version",
                         fmt::format("telvane-avfilter {}.{}.{}", TELVANE_AVFILTER_VERSION_MAJOR,
                                     TELVANE_AVFILTER_VERSION_MINOR, TELVANE_AVFILTER_VERSION_PATCH));
    Arguments arguments;
    Options& options = arguments.options;
    std::vector<std::string_view> names;
    for (const Command& command : kCommands) {
        AddCommand(app, command, arguments);
        names.push_back(command.name);
    }
    try {
        std::vector<std::string> words = TakeCodecOptions(argc, argv, options.output);
        const std::string first = words.empty() ? "" : words[0];
        const auto* pChosen = std::find_if(std::begin(kCommands), std::end(kCommands),
                                           [&](const Command& command) { return command.name == first; });
        if (pChosen == std::end(kCommands) && !first.starts_with('-')) {
            throw Failure(kUsage, fmt::format("there is no command \"{}\"; say first what to do: {}", first,
                                              fmt::join(names, ", ")));
        }
        std::reverse(words.begin(), words.end()); // CLI11 takes them from the back
        try {
            app.require_subcommand(1)->parse(words);
        } catch (const CLI::ParseError& error) {
            if (error.get_exit_code() == 0) {
                return app.exit(error);
            }
            throw Failure(kUsage, error.what());
        }
        CatchLog(arguments.bVerbose);
        CatchSignals();
        Prepare(arguments, *pChosen);
        return pChosen->name == "probe" ? RunProbe(options.inputs[0]) : RunFilter(options, pChosen->kind);
    } catch (const Failure& failure) {
        if (IsInterrupted()) {
            return Report(kInterrupted, "interrupted before there was anything to keep");
        }
        return Report(failure.ExitCode(), failure.what());
    } catch (const telvane::Error& error) {
        return Report(kGraph, error.what());
    } catch (const std::bad_alloc&) {
        return Report(kOther, "no memory");
    } catch (const std::exception& error) {
        return Report(kOther, error.what());
    }
}

} // namespace

int main(int argc, char** argv)
{
    try {
        // A picture is megabytes large: without this, glibc would give each back to the kernel when it is
        // freed and take it from there again for the next, page by page.
        constexpr int kKeep = 1 << 30; // bytes
        mallopt(M_MMAP_THRESHOLD, kKeep);
        mallopt(M_TRIM_THRESHOLD, kKeep);
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
