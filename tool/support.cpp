#include "support.h"

extern "C" {
#include <libavutil/error.h>
#include <libavutil/log.h>
}

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace tool
{

namespace
{

struct Line {
    std::string text;
    bool bShown = false;
};

struct Log {
    std::mutex mutex; // decoders write from threads of their own
    bool bVerbose = false;
    std::string part;         // of a line that is not whole yet
    std::vector<Line> errors; // the first and the last
    Line warning;
};

Log& TheLog()
{
    static Log log;
    return log;
}

std::atomic<int> g_nMuted = 0;
volatile std::sig_atomic_t g_nInterrupted = 0;
// Read by the handler: it must be whole whenever a signal comes, so the length is set last.
std::array<char, 4096> g_Remove{};
volatile std::sig_atomic_t g_nRemove = 0;

// "fps: " for what FFmpeg calls Parsed_fps_4.
std::string NameOf(void* pContext)
{
    const AVClass* pClass = pContext != nullptr ? *static_cast<AVClass**>(pContext) : nullptr;
    return pClass != nullptr ? std::string(pClass->item_name(pContext)) + ": " : "";
}

// What users wrote as "fps" is "Parsed_fps_4" in FFmpeg's messages.
void UseTheirNames(std::string& text)
{
    constexpr std::string_view kBefore = "Parsed_";
    constexpr std::string_view kDigits = "0123456789";
    for (std::size_t n = text.find(kBefore); n != std::string::npos; n = text.find(kBefore, n + 1)) {
        text.erase(n, kBefore.size());
        const auto isWord = [](unsigned char c) { return std::isalnum(c) != 0 || c == '_'; };
        const auto nEnd = static_cast<std::size_t>(
            std::find_if_not(text.begin() + static_cast<std::ptrdiff_t>(n), text.end(), isWord) -
            text.begin());
        const std::size_t nBar = nEnd > n ? text.find_last_not_of(kDigits, nEnd - 1) : std::string::npos;
        if (nBar != std::string::npos && nBar > n && text[nBar] == '_') {
            text.erase(nBar, nEnd - nBar);
        }
    }
}

void OnLog(void* pContext, int nLevel, const char* szFormat, va_list args)
{
    Log& log = TheLog();
    if (nLevel > AV_LOG_WARNING && !(log.bVerbose && nLevel <= AV_LOG_INFO)) {
        return;
    }
    const std::scoped_lock lock(log.mutex);
    std::array<char, 1024> text{};
    int nPrefix = 0;
    av_log_format_line2(pContext, nLevel, szFormat, args, text.data(), static_cast<int>(text.size()),
                        &nPrefix);
    log.part += log.part.empty() ? NameOf(pContext) + text.data() : text.data();
    if (log.part.back() != '\n') {
        return;
    }
    Line line{std::exchange(log.part, {})};
    UseTheirNames(line.text);
    line.text.resize(line.text.find_last_not_of(" \n") + 1);
    line.bShown = log.bVerbose && g_nMuted == 0;
    if (line.bShown) {
        fmt::print(stderr, "{}\n", line.text);
    }
    if (nLevel > AV_LOG_WARNING || line.text.empty()) {
        return;
    }
    if (nLevel > AV_LOG_ERROR) {
        log.warning = std::move(line);
    } else if (log.errors.size() < 2) {
        log.errors.push_back(std::move(line));
    } else {
        log.errors.back() = std::move(line);
    }
}

void OnSignal(int nSignal)
{
    if (g_nInterrupted != 0) { // impatience
        if (g_nRemove != 0) {
            unlink(g_Remove.data());
        }
        _exit(128 + nSignal);
    }
    g_nInterrupted = 1;
}

void Handle(int nSignal, void (*pHandler)(int))
{
    struct sigaction action {
    };
    action.sa_handler = pHandler; // without SA_RESTART: a read that waits for a pipe must return
    sigaction(nSignal, &action, nullptr);
}

} // namespace

int Check(int n, Exit exit, const std::string& what)
{
    if (n >= 0) {
        return n;
    }
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(n, text.data(), text.size());
    throw Failure(exit, fmt::format("{}: {}", what, text.data()));
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
    log.warning = {};
}

std::vector<std::string> LogLines()
{
    Log& log = TheLog();
    const std::scoped_lock lock(log.mutex);
    std::vector<std::string> lines;
    for (const Line& line : log.errors.empty() ? std::vector{log.warning} : log.errors) {
        if (!line.bShown && !line.text.empty()) {
            lines.push_back(line.text);
        }
    }
    return lines;
}

Muted::Muted()
{
    ++g_nMuted;
}

Muted::~Muted()
{
    --g_nMuted;
}

void CatchSignals()
{
    for (const int nSignal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        Handle(nSignal, OnSignal);
    }
    Handle(SIGUSR1, [](int) {});
    // A reader that goes away or a file that gets too large is a failed write, not a silent death with a
    // temporary file left behind.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
}

bool IsInterrupted()
{
    return g_nInterrupted != 0;
}

void RemoveOnSignal(const std::string& path)
{
    g_nRemove = 0;
    if (!path.empty() && path.size() < g_Remove.size()) {
        std::memcpy(g_Remove.data(), path.c_str(), path.size() + 1);
        g_nRemove = 1;
    }
}

void Wake(pthread_t thread)
{
    pthread_kill(thread, SIGUSR1);
}

Progress::Progress(bool bQuiet, double dTotal)
    : m_bShown(!bQuiet && isatty(STDERR_FILENO) == 1), m_dTotal(dTotal)
{
}

Progress::~Progress()
{
    if (m_bShown) {
        static_cast<void>(std::fputs("\r\x1b[K", stderr));
    }
}

double Progress::Elapsed() const
{
    return std::chrono::duration<double>(Clock::now() - m_Start).count();
}

void Progress::At(double dSeconds)
{
    if (!m_bShown || Clock::now() < m_Next) {
        return;
    }
    m_Next = Clock::now() + std::chrono::milliseconds(200);
    const double dSpeed = dSeconds / std::max(Elapsed(), 1e-3);
    std::string line = fmt::format("\r{:.1f} s", dSeconds);
    if (m_dTotal > 0) {
        line += fmt::format(" of {:.1f}", m_dTotal);
    }
    line += fmt::format(", {:.1f} times as fast as it plays", dSpeed);
    if (m_dTotal > dSeconds && dSpeed > 0) {
        line += fmt::format(", {:.0f} s left", (m_dTotal - dSeconds) / dSpeed);
    }
    static_cast<void>(std::fputs((line + "\x1b[K").c_str(), stderr));
}

} // namespace tool
