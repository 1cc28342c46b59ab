// What every part of the tool uses: failures with their exit codes, FFmpeg's log, signals, queues.
#pragma once

#include <fmt/format.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tool
{

enum Exit : int {
    kDone = 0,
    kOther = 1,         // no memory, an unexpected failure
    kUsage = 2,         // wrong arguments
    kInput = 3,         // an input cannot be opened, read or decoded
    kOutput = 4,        // the output cannot be written
    kGraph = 5,         // the description was refused, or failed while running
    kNothing = 6,       // the description kept everything to itself
    kDamaged = 7,       // the output is finished, but an input was damaged or cut
    kInterrupted = 130, // Ctrl-C, TERM, HUP: the output holds what was done until then, if anything
};

// Of labels, and of FFmpeg's names for filters.
constexpr const char* kNameLetters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";

class Failure : public std::runtime_error
{
  public:
    Failure(Exit exit, const std::string& what) : std::runtime_error(what), m_Exit(exit) {}
    Exit ExitCode() const { return m_Exit; }

  private:
    Exit m_Exit;
};

template <class... Values>
void FailIf(bool bFail, Exit exit, fmt::format_string<Values...> text, Values&&... values)
{
    if (bFail) {
        throw Failure(exit, fmt::format(text, std::forward<Values>(values)...));
    }
}

// Throws "what: FFmpeg's text for the number" if it is an error.
void Check(int n, Exit exit, const std::string& what);

// Does something when it goes out of scope.
template <class Function>
class Finally
{
  public:
    explicit Finally(Function function) : m_Function(std::move(function)) {}
    Finally(const Finally&) = delete;
    Finally& operator=(const Finally&) = delete;
    ~Finally() { m_Function(); }

  private:
    Function m_Function;
};

// FFmpeg's messages are kept back; with bVerbose they also go to standard error, once each.
void CatchLog(bool bVerbose);
// Forgets the messages about what was done before.
void ForgetLog();
// The first and the last error message since (the last says what failed, of some versions only the first
// says why), or else the last warning; without those that were shown.
std::vector<std::string> LogLines();
// Messages are kept but not shown: what happens until then will happen again.
void MuteLog(bool bMute);

void CatchSignals();
bool IsInterrupted();
// The file that goes away if a second signal ends the program at once; null: none.
inline std::atomic<const char*> g_szRemove = nullptr;

// Pictures are large, and blocks so small that waking the other thread for each costs more than they do.
constexpr std::size_t kMostPictures = 2;
constexpr std::size_t kMostBlocks = 128;

// From one thread to another, in batches; what is put in when nMost wait already waits itself.
template <class T>
class Queue
{
  public:
    Queue(std::size_t nMost, bool bInterruptible) : m_nMost(nMost), m_bInterruptible(bInterruptible) {}

    // False once nobody takes any more.
    bool Put(T value, bool bWait = true)
    {
        std::unique_lock lock(m_Mutex);
        m_Changed.wait(lock, [&] { return !bWait || m_bAbandoned || m_Values.size() < m_nMost; });
        if (!m_bAbandoned) {
            m_Values.push_back(std::move(value));
        }
        if (IsReady()) {
            m_Changed.notify_all();
        }
        return !m_bAbandoned;
    }
    // Nothing once it is empty and nobody puts in any more, or when the program is interrupted.
    std::optional<T> Take()
    {
        if (m_Taken.empty()) {
            std::unique_lock lock(m_Mutex);
            // What is slow to come is taken in smaller batches.
            while (!m_Changed.wait_for(lock, std::chrono::milliseconds(50), [&] { return IsReady(); }) &&
                   m_Values.empty()) {
                if (IsInterrupted() && m_bInterruptible) {
                    return std::nullopt;
                }
            }
            m_Taken.swap(m_Values);
            m_Changed.notify_all();
        }
        if (m_Taken.empty()) {
            return std::nullopt;
        }
        std::optional<T> value(std::move(m_Taken.front()));
        m_Taken.pop_front();
        return value;
    }
    void End() { Set(m_bEnded); }         // by the one who puts in
    void Abandon() { Set(m_bAbandoned); } // by the one who takes

  private:
    bool IsReady() const { return m_bEnded || m_Values.size() >= m_nMost / 2; }
    void Set(bool& b)
    {
        const std::scoped_lock lock(m_Mutex);
        b = true;
        if (m_bAbandoned) {
            m_Values.clear();
        }
        m_Changed.notify_all();
    }

    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::deque<T> m_Values;
    std::deque<T> m_Taken; // belongs to the one who takes
    std::size_t m_nMost;
    bool m_bEnded = false;
    bool m_bAbandoned = false;
    bool m_bInterruptible;
};

} // namespace tool
