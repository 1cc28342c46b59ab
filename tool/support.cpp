#include "support.h"

extern "C" {
#include <libavutil/error.h>
#include <libavutil/log.h>
}

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <unistd.h>

namespace tool
{

namespace
{

struct Log {
    std::mutex mutex; // decoders write from threads of their own
    bool bVerbose = false;
    bool bMuted = false;
    std::string part;                // of a line that is not whole yet
    std::vector<std::string> errors; // the first and the last that were not shown
    std::string warning;
};

Log& TheLog()
{
    static Log log;
    return log;
}

volatile std::sig_atomic_t g_nInterrupted = 0;

// What users wrote as "fps" is "Parsed_fps_4" in FFmpeg's messages.
std::string WithTheirNames(std::string text)
{
    constexpr std::string_view kBefore = "Parsed_";
    for (std::size_t n = text.find(kBefore); n != std::string::npos; n = text.find(kBefore, n)) {
        text.erase(n, kBefore.size());
        const std::size_t nEnd = std::min(text.find_first_not_of(kNameLetters, n), text.size());
        const std::size_t nBar = std::clamp(text.rfind('_', nEnd), n, nEnd);
        text.erase(nBar, nEnd - nBar);
    }
    return text;
}

void OnLog(void* pContext, int nLevel, const char* szFormat, va_list args)
{
    Log& log = TheLog();
    if (nLevel > (log.bVerbose ? AV_LOG_INFO : AV_LOG_WARNING)) {
        return;
    }
    const std::scoped_lock lock(log.mutex);
    std::array<char, 1024> text{};
    int nPrefix = 0;
    av_log_format_line2(pContext, nLevel, szFormat, args, text.data(), text.size(), &nPrefix);
    if (pContext != nullptr && log.part.empty()) {
        log.part = fmt::format("{}: ", (*static_cast<AVClass**>(pContext))->item_name(pContext));
    }
    log.part += text.data();
    if (log.part.empty() || log.part.back() != '\n') {
        return;
    }
    std::string line = WithTheirNames(std::exchange(log.part, {}));
    line.resize(line.find_last_not_of(" \n") + 1);
    if (log.bVerbose && !log.bMuted) {
        fmt::print(stderr, "{}\n", line);
    } else if (nLevel == AV_LOG_WARNING) {
        log.warning = line;
    } else if (nLevel < AV_LOG_WARNING && !line.empty()) {
        log.errors.resize(std::min<std::size_t>(log.errors.size(), 1));
        log.errors.push_back(line);
    }
}

void OnSignal(int nSignal)
{
    if (g_nInterrupted != 0) { // impatience
        if (const char* szRemove = g_szRemove) {
            unlink(szRemove);
        }
        _exit(128 + nSignal);
    }
    g_nInterrupted = 1;
}

} // namespace

void Check(int n, Exit exit, const std::string& what)
{
    if (n < 0) {
        std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
        throw Failure(exit, fmt::format("{}: {}", what, av_make_error_string(text.data(), text.size(), n)));
    }
}

void CatchLog(bool bVerbose)
{
    TheLog().bVerbose = bVerbose;
    av_log_set_callback(OnLog);
}

void ForgetLog()
{
    Log& log = TheLog();
    const std::scoped_lock lock(log.mutex);
    log.part.clear();
    log.errors.clear();
    log.warning.clear();
}

std::vector<std::string> LogLines()
{
    Log& log = TheLog();
    const std::scoped_lock lock(log.mutex);
    return log.errors.empty() && !log.warning.empty() ? std::vector{log.warning} : log.errors;
}

void MuteLog(bool bMute)
{
    const std::scoped_lock lock(TheLog().mutex);
    TheLog().bMuted = bMute;
}

void CatchSignals()
{
    struct sigaction action {
    };
    action.sa_handler = OnSignal; // without SA_RESTART: a read that waits for a pipe must return
    for (const int nSignal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        sigaction(nSignal, &action, nullptr);
    }
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    // A reader that goes away or a file that gets too large is a failed write, not a silent death with a
    // temporary file left behind.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
}

bool IsInterrupted()
{
    return g_nInterrupted != 0;
}

} // namespace tool
