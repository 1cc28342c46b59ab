// A job of the library on one input, and the ways of doing it that are measured beside each other.
#pragma once

#include <cstddef>
#include <cstdint>
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
    explicit Buffer(std::size_t nSize)
        : m_nSize(nSize),
          m_pData(static_cast<std::uint8_t*>(std::aligned_alloc(64, (nSize + 191) / 64 * 64)))
    {
        if (!m_pData) {
            std::abort();
        }
    }
    unsigned char* Data() const { return m_pData.get(); }
    std::size_t Size() const { return m_nSize; }
    // What the C++ layer takes; with the spare bytes if so wished.
    std::span<std::byte> Bytes(std::size_t nSpare = 0) const
    {
        return std::as_writable_bytes(std::span(m_pData.get(), m_nSize + nSpare));
    }

  private:
    struct Free {
        void operator()(std::uint8_t* p) const { std::free(p); } // NOLINT(cppcoreguidelines-no-malloc)
    };
    std::size_t m_nSize;
    std::unique_ptr<std::uint8_t, Free> m_pData;
};

struct Path {
    std::string szName;
    // Does the job n times on end; false if one of them failed.
    std::function<bool(int)> Run;
    // The bytes of the last result. Not timed.
    std::function<std::vector<std::uint8_t>()> Result;
    // Whether the results must be the library's, byte for byte.
    bool bSameResult = true;
    // Jobs that must be done on end to keep the path busy.
    int nAtLeast = 1;
};

// The library's path comes first. All paths work on the same buffers of the caller.
struct Job {
    std::vector<Path> vec_Paths;
    std::shared_ptr<Buffer> pIn;
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

inline std::function<std::vector<std::uint8_t>()> BytesOf(const std::shared_ptr<Buffer>& pBuffer)
{
    return
        [pBuffer] { return std::vector<std::uint8_t>(pBuffer->Data(), pBuffer->Data() + pBuffer->Size()); };
}

struct Size {
    int nWidth;
    int nHeight;
};
std::string Text(const Size& size);
// An input's label, in the record and in the description.
std::string Label(int nInputId);

enum class Mode { kWhole, kPlanes };

// Stereo, 48,000 samples a second, 16 bits, packed.
Job AudioFilter(int nSamples);
Job AudioMix(int nSamples, int nInputs);

// yuv420p on both sides. The paths by name: library; steps; threads (steps with FFmpeg's default
// threads); expert (result in the caller's buffer); in_place (expert, the result stays in FFmpeg's frame).
Job VideoFilter(const Size& size, Mode mode, const std::string& szFilters);
// The second input has half the width and height and lies over the first.
Job VideoMix(const Size& size, Mode mode);

struct Conversion {
    int nSrcFormat;
    Size src;
    int nDstFormat;
    Size dst;
};
Job Scale(const Conversion& conversion);
std::size_t PictureSize(int nFormat, const Size& size);

// Ends the program if something is missing that it cannot go on without.
void Require(bool bCondition, const char* szWhat);

// Bytes without a pattern that a filter could profit from, the same on every call.
void FillNoise(Buffer& buffer);

} // namespace bench
