// One job done in several ways, measured beside each other.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace bench
{

// A caller's buffer: starts at a cache line, with spare bytes behind it for FFmpeg's vector code.
class Buffer
{
  public:
    static constexpr std::size_t kSpare = 64;

    explicit Buffer(std::size_t nSize);
    unsigned char* Data() const { return m_pData.get(); }
    std::size_t Size() const { return m_nSize; }
    std::span<std::byte> Bytes(std::size_t nSpare = 0) const
    {
        return std::as_writable_bytes(std::span(m_pData.get(), m_nSize + nSpare));
    }

  private:
    struct Free {
        void operator()(unsigned char* p) const { std::free(p); } // NOLINT(cppcoreguidelines-no-malloc)
    };
    std::size_t m_nSize;
    std::unique_ptr<unsigned char, Free> m_pData;
};

// One way of doing the job.
struct Path {
    std::string szName;
    // Does the job n times on end; false if one of them failed.
    std::function<bool(int)> Run;
    // Whether the result must be the first path's, byte for byte.
    bool bSameResult = true;
    // Jobs that must be done on end to keep the path busy.
    int nAtLeast = 1;
};

// All ways work on the same buffers of the caller.
struct Job {
    std::vector<Path> vec_Paths;
    std::shared_ptr<Buffer> pOut;
};

// The loop stands inside the path, so that a call through std::function is paid once for n jobs.
template <class Once>
std::function<bool(int)> Repeat(Once once)
{
    return [once](int n) {
        bool bOk = true;
        while (n-- > 0) {
            bOk = once() && bOk;
        }
        return bOk;
    };
}

// Times in nanoseconds per job. The ratio is the first path's time over this one's, taken within each round: the
// median of the rounds and their quartiles.
struct Figures {
    std::string szName;
    double dTime = 0;
    double dRatio = 0;
    double dLow = 0;
    double dHigh = 0;
};

inline bool g_bQuick = false;

// Checks the paths' results against the first one's, then takes a sample of each in turn, round after round,
// for so many seconds. Ends the program if a path fails or gives another result.
std::vector<Figures> Compare(const std::string& szName, double dSeconds, const std::function<Job()>& make);

double Median(std::vector<double> vec_Values);
// Nanoseconds of one call.
double Time(const std::function<void()>& call);
// "1.25 ms"
std::string Duration(double dNanoseconds);
std::string Number(const char* szFormat, double dValue);

// A table in Markdown on standard output.
void Row(const std::vector<std::string>& vec_Cells);
void Head(const std::vector<std::string>& vec_Cells);

} // namespace bench
