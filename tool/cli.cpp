// telvane-avfilter: filters, mixes and scales media files with the library.
#include "jobs.h"

extern "C" {
#include <libavutil/parseutils.h>
}

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <malloc.h>
#include <new>
#include <numeric>
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

struct Arguments {
    Options options;
    std::string input;
    std::vector<std::string> named;
    std::string from;
    std::vector<std::string> streams;
    std::string rate;
    std::string pixelFormat;
    std::string probeAudio;
    std::string probeVideo;
    bool bVerbose = false;
};

int Report(const Arguments& arguments, Exit exit, const std::string& what, unsigned nCode = 0)
{
    std::vector<std::string> lines = LogLines();
    lines.erase(
        std::remove_if(lines.begin(), lines.end(),
                       [&](const std::string& line) { return what.find(line) != std::string::npos; }),
        lines.end());
    if (arguments.options.bJson) {
        Json json{{"exit", static_cast<int>(exit)}, {"error", what}};
        if (nCode != 0) {
            json["code"] = fmt::format("0x{:X}", nCode);
        }
        if (!lines.empty()) {
            json["ffmpeg"] = lines;
        }
        fmt::print(stderr, "{}\n", InJson(json));
    } else {
        fmt::print(stderr, "telvane-avfilter: {}\n", what);
        for (const std::string& line : lines) {
            fmt::print(stderr, "  FFmpeg: {}\n", line);
        }
    }
    return exit;
}

Source ParseInput(const std::string& text, const std::string& from)
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
    return {name, text.substr(nEqual + 1), from, ""};
}

// --stream SPECIFIER, or NAME=SPECIFIER where there are several inputs.
void ChooseStream(Options& options, const std::string& text)
{
    const std::size_t nEqual = text.find('=');
    for (Source& source : options.inputs) {
        if (nEqual == std::string::npos ? options.inputs.size() == 1
                                        : source.name == text.substr(0, nEqual)) {
            source.stream = text.substr(nEqual == std::string::npos ? 0 : nEqual + 1);
            return;
        }
    }
    throw Failure(kUsage, fmt::format("--stream {}: write NAME=STREAM, the name of an input", text));
}

void Prepare(Arguments& arguments, const std::string& command)
{
    Options& options = arguments.options;
    for (const std::string& text : arguments.named) {
        options.inputs.push_back(ParseInput(text, arguments.from));
    }
    if (options.inputs.empty()) {
        options.inputs.push_back({"in", arguments.input, arguments.from, ""});
    }
    for (std::size_t i = 0; i < options.inputs.size(); ++i) {
        for (std::size_t j = 0; j < i; ++j) {
            if (options.inputs[i].name == options.inputs[j].name) {
                throw Failure(kUsage, fmt::format("two inputs are named {}", options.inputs[i].name));
            }
        }
    }
    for (const std::string& text : arguments.streams) {
        ChooseStream(options, text);
    }
    if (command != "probe" && !options.bExplain && options.output.path.empty()) {
        throw Failure(kUsage, "an OUTPUT is needed");
    }
    options.output.bPass = options.pass != "none";
    if (!arguments.rate.empty() && av_parse_video_rate(&options.output.rate, arguments.rate.c_str()) < 0) {
        throw Failure(kUsage, fmt::format("--rate {}: no rate", arguments.rate));
    }
    if (!arguments.pixelFormat.empty()) {
        options.pixelFormat = av_get_pix_fmt(arguments.pixelFormat.c_str());
        if (telvane::FindFormat(options.pixelFormat) == nullptr) {
            throw Failure(kUsage, fmt::format("--pixel-format {}: not one that the scaler gives",
                                              arguments.pixelFormat));
        }
    }
}

// Takes "-crf 18" and the like out of the arguments: all that begin with one dash and are longer than "-v".
std::vector<std::string> TakeCodecOptions(int argc, char** argv, std::vector<CodecOption>& options)
{
    std::vector<std::string> rest;
    for (int i = 1; i < argc; ++i) {
        const std::string text = argv[i];
        if (text.size() < 3 || text[0] != '-' || std::isalpha(static_cast<unsigned char>(text[1])) == 0) {
            rest.push_back(text);
            continue;
        }
        if (i + 1 == argc) {
            throw Failure(kUsage, fmt::format("{}: a value is missing", text));
        }
        const std::size_t nColon = std::min(text.find(':'), text.size());
        const std::string kind = text.substr(std::min(nColon + 1, text.size()), 1);
        options.push_back({text.substr(1, nColon - 1), kind, argv[++i]});
    }
    return rest;
}

void AddCommon(CLI::App& command, Arguments& arguments)
{
    command.add_option("--from", arguments.from, "FFmpeg's format of the inputs, where they do not tell");
    command
        .add_option("--stream", arguments.streams, "Which stream: 2, a:1, m:language:deu (mixes: NAME=...)")
        ->allow_extra_args(false);
    command.add_flag("--json", arguments.options.bJson, "Report as JSON, failures too");
    command.add_flag("-v,--verbose", arguments.bVerbose, "Show FFmpeg's messages");
}

void AddOutput(CLI::App& command, Arguments& arguments)
{
    OutputWish& output = arguments.options.output;
    command.add_option("OUTPUT", output.path, "A file; many pictures: out-%04d.png; - is standard output");
    command.add_option("--to", output.format,
                       "Its format, where the name does not tell: mkv, wav, raw ...");
    command.add_option("--length", output.dLength, "Seconds of output; default: what the inputs give")
        ->check(CLI::Range(1e-6, kLongest));
    command.add_option("--pass", arguments.options.pass,
                       "The input whose other streams are copied, or none; default: the first");
    command.add_flag("-y,--force", output.bForce, "Replace an output that exists");
    command.add_flag("--explain", arguments.options.bExplain, "Show the graph, and run nothing");
    command.add_flag("-q,--quiet", arguments.options.bQuiet, "No progress and no report");
}

void AddVideo(CLI::App& command, Arguments& arguments)
{
    command.add_option("--rate", arguments.rate, "Pictures per second; default: as they come");
    command.add_option("--at", arguments.options.output.dAt, "For one picture: of which second")
        ->check(CLI::Range(0.0, kLongest));
}

// How many letters must change to make one of the other.
std::size_t Distance(std::string_view a, std::string_view b)
{
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), 0U);
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t nCorner = row[0]++;
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t nAbove = row[j + 1];
            row[j + 1] = std::min({nAbove + 1, row[j] + 1, nCorner + (a[i] == b[j] ? 0 : 1)});
            nCorner = nAbove;
        }
    }
    return row.back();
}

void CheckCommand(const CLI::App& app, const std::vector<std::string>& words)
{
    std::string names;
    std::string nearest;
    const std::string written = words.empty() ? "" : words[0];
    for (const CLI::App* pCommand : app.get_subcommands({})) {
        const std::string name = pCommand->get_name();
        names += (names.empty() ? "" : ", ") + name;
        nearest = nearest.empty() || Distance(written, name) < Distance(written, nearest) ? name : nearest;
        if (name == written) {
            return;
        }
    }
    if (written.empty() || !written.starts_with('-')) {
        const bool bNear = Distance(written, nearest) <= 3 && !written.empty();
        throw Failure(kUsage, fmt::format("{}; the commands are {}",
                                          written.empty() ? "say what to do"
                                          : bNear ? fmt::format("there is no command \"{}\", but {}",
                                                                written, nearest)
                                                  : fmt::format("there is no command \"{}\"", written),
                                          names));
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
    app.require_subcommand(1);
    Arguments arguments;
    Options& options = arguments.options;

    const auto add = [&](const char* szName, const char* szText, const std::string& example) {
        CLI::App& command = *app.add_subcommand(szName, szText);
        command.footer("Example: telvane-avfilter " + example +
                       "\nMore: telvane-avfilter --help, and the cookbook.");
        AddCommon(command, arguments);
        return &command;
    };
    const auto addDescription = [&](CLI::App& command) {
        command.add_option("DESCRIPTION", options.description, "An FFmpeg filtergraph text")->required();
    };
    const auto addInput = [&](CLI::App& command) {
        command.add_option("INPUT", arguments.input, "A file, or - for standard input")->required();
    };
    const auto addInputs = [&](CLI::App& command) {
        command.add_option("--in", arguments.named, "NAME=FILE; the name is the label in the description")
            ->required()
            ->allow_extra_args(false);
    };

    CLI::App* pAudio = add("audio", "Filter the sound of a file", "audio loudnorm=I=-23 talk.mp4 even.mp4");
    addDescription(*pAudio);
    addInput(*pAudio);
    AddOutput(*pAudio, arguments);

    CLI::App* pMixAudio = add("mix-audio", "Mix the sound of several files",
                              "mix-audio '[a][b]amix' --in a=one.wav --in b=two.wav both.flac");
    addDescription(*pMixAudio);
    addInputs(*pMixAudio);
    AddOutput(*pMixAudio, arguments);

    CLI::App* pVideo =
        add("video", "Filter the pictures of a file", "video hflip clip.mp4 mirrored.mp4 -crf 20");
    addDescription(*pVideo);
    addInput(*pVideo);
    AddOutput(*pVideo, arguments);
    AddVideo(*pVideo, arguments);

    CLI::App* pMixVideo =
        add("mix-video", "Mix the pictures of several files",
            "mix-video '[cam][logo]overlay=8:8' --in cam=cam.mp4 --in logo=logo.png out.mp4");
    addDescription(*pMixVideo);
    addInputs(*pMixVideo);
    AddOutput(*pMixVideo, arguments);
    AddVideo(*pMixVideo, arguments);

    CLI::App* pScale = add("scale", "Scale the pictures of a file", "scale 640x clip.mp4 small.mp4");
    pScale->add_option("SIZE", options.size, "640x360; 640x or x360 keep the shape")->required();
    addInput(*pScale);
    AddOutput(*pScale, arguments);
    AddVideo(*pScale, arguments);
    pScale->add_option("--pixel-format", arguments.pixelFormat,
                       "What the scaler gives; default: the input's");

    CLI::App* pProbe = add("probe", "Show what a file holds, and what descriptions turn it into",
                           "probe --video scale=640:-2 clip.mp4");
    addInput(*pProbe);
    pProbe->add_option("--audio", arguments.probeAudio, "A description for its sound");
    pProbe->add_option("--video", arguments.probeVideo, "A description for its pictures");

    try {
        options.bJson = std::find(argv, argv + argc, std::string_view("--json")) != argv + argc;
        std::vector<std::string> words = TakeCodecOptions(argc, argv, options.output.options);
        CheckCommand(app, words);
        std::reverse(words.begin(), words.end()); // CLI11 takes them from the back
        try {
            app.parse(words);
        } catch (const CLI::ParseError& error) {
            if (error.get_exit_code() == 0) {
                return app.exit(error);
            }
            throw Failure(kUsage, error.what());
        }
        const CLI::App* pChosen = app.get_subcommands().front();
        CatchLog(arguments.bVerbose);
        CatchSignals();
        Prepare(arguments, pChosen->get_name());
        return pChosen == pAudio || pChosen == pMixAudio   ? RunFilter(options, AVMEDIA_TYPE_AUDIO)
               : pChosen == pVideo || pChosen == pMixVideo ? RunFilter(options, AVMEDIA_TYPE_VIDEO)
               : pChosen == pScale                         ? RunScale(options)
                                   : RunProbe(options, arguments.probeAudio, arguments.probeVideo);
    } catch (const Failure& failure) {
        if (IsInterrupted()) {
            return Report(arguments, kInterrupted, "interrupted before there was anything to keep");
        }
        return Report(arguments, failure.ExitCode(), failure.what());
    } catch (const telvane::Error& error) {
        return Report(arguments, kGraph, error.what(), static_cast<unsigned>(error.code().value()));
    } catch (const std::bad_alloc&) {
        return Report(arguments, kOther, "no memory");
    } catch (const std::exception& error) {
        return Report(arguments, kOther, error.what());
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
