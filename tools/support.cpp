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
#include <mutex>
#include <unistd.h>
#include <utility>

namespace tool
{

namespace
{

struct Log {
    std::mutex mutex; // decoders write from threads of their own
    bool bVerbose = false;
    std::string part;                // of a line that is not whole yet
    std::vector<std::string> errors; // the first and the last
    std::string warning;
    int nPrefix = 1;
};

Log& TheLog()
{
    static Log log;
    return log;
}

std::string& TheStep()
{
    static std::string step = "starting";
    return step;
}

volatile std::sig_atomic_t g_nInterrupted = 0;

void OnLog(void* pContext, int nLevel, const char* szFormat, va_list args)
{
    Log& log = TheLog();
    if (nLevel > AV_LOG_WARNING && !(log.bVerbose && nLevel <= AV_LOG_INFO)) {
        return;
    }
    const std::scoped_lock lock(log.mutex);
    std::array<char, 1024> text{};
    av_log_format_line2(pContext, nLevel, szFormat, args, text.data(), static_cast<int>(text.size()),
                        &log.nPrefix);
    if (log.bVerbose) {
        fmt::print(stderr, "{}", text.data());
    }
    if (nLevel > AV_LOG_WARNING) {
        return;
    }
    log.part += text.data();
    if (log.part.back() != '\n') {
        return;
    }
    std::string line = std::exchange(log.part, {});
    line.resize(line.find_last_not_of(" \n") + 1);
    if (line.empty()) {
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

void OnSignal(int)
{
    g_nInterrupted = 1;
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

void BeginStep(std::string step)
{
    Log& log = TheLog();
    const std::scoped_lock lock(log.mutex);
    log.part.clear();
    log.errors.clear();
    log.warning.clear();
    TheStep() = std::move(step);
}

const std::string& CurrentStep()
{
    return TheStep();
}

void CatchLog(bool bVerbose)
{
    TheLog().bVerbose = bVerbose;
    av_log_set_callback(OnLog);
}

std::vector<std::string> LogLines()
{
    Log& log = TheLog();
    const std::scoped_lock lock(log.mutex);
    return log.errors.empty() && !log.warning.empty() ? std::vector{log.warning} : log.errors;
}

void CatchInterrupt()
{
    struct sigaction action {
    };
    action.sa_handler = OnSignal;
    // Without SA_RESTART, because a read that waits for a pipe must return; the second signal ends the
    // program at once.
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
    // A reader that goes away or a file that gets too large is a failed write, not a silent death with a
    // temporary file left behind.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
}

bool IsInterrupted()
{
    return g_nInterrupted != 0;
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
