// What every part of the tool uses: failures with their exit codes, FFmpeg's log, progress, Ctrl-C.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

namespace tool
{

enum Exit : int {
    kDone = 0,
    kOther = 1,   // no memory, an unexpected failure
    kUsage = 2,   // wrong arguments
    kInput = 3,   // an input cannot be opened, read or decoded
    kOutput = 4,  // the output cannot be written
    kGraph = 5,   // the description was refused, or failed while running
    kNothing = 6, // the description kept everything to itself
    kInterrupted =
        130, // Ctrl-C, TERM, HUP: the output holds what was done until then, if there was anything
};

// A failure in the step that BeginStep named last.
class Failure : public std::runtime_error
{
  public:
    Failure(Exit exit, const std::string& what) : std::runtime_error(what), m_Exit(exit) {}
    Exit ExitCode() const { return m_Exit; }

  private:
    Exit m_Exit;
};

// "what: FFmpeg's text for the number"; returns n if it is no error.
int Check(int n, Exit exit, const std::string& what);

// Names what is being done, and forgets FFmpeg's messages about what was done before.
void BeginStep(std::string step);
const std::string& CurrentStep();

// FFmpeg's messages are kept back; with bVerbose they also go to standard error.
void CatchLog(bool bVerbose);
// The first and the last error message of FFmpeg's in this step (the last says what failed, of some
// versions only the first says why), or else its last warning.
std::vector<std::string> LogLines();

void CatchInterrupt();
bool IsInterrupted();

// One line on standard error while it is a terminal; otherwise nothing.
class Progress
{
  public:
    Progress(bool bQuiet, double dTotal); // seconds of media; 0: unknown
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();
    void At(double dSeconds);
    double Elapsed() const;

  private:
    using Clock = std::chrono::steady_clock;
    bool m_bShown;
    double m_dTotal;
    Clock::time_point m_Start = Clock::now();
    Clock::time_point m_Next = m_Start;
};

} // namespace tool
