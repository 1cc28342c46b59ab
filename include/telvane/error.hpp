// Errors of the C++ layer, and the handles that every class owns.
#ifndef TELVANE_ERROR_HPP
#define TELVANE_ERROR_HPP

#include "Telvane_AVFilter.h"

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>

namespace telvane
{

/// Explains the codes of the C interface.
class ErrorCategory final : public std::error_category
{
  public:
    /// "telvane"
    const char* name() const noexcept override { return "telvane"; }
    /// The code's name, what it means and what to do.
    std::string message(int nCode) const override
    {
#define TELVANE_EXPLAIN(code, text)                                                                        \
    case AVFILTER_ERROR_##code:                                                                            \
        return "AVFILTER_ERROR_" #code ": " text
        // clang-format off
        switch (nCode) {
        TELVANE_EXPLAIN(AUDIO_INVALID_PARAM, "an argument does not fit; correct the call");
        TELVANE_EXPLAIN(AUDIO_ALLOC, "no memory for the graph");
        TELVANE_EXPLAIN(AUDIO_CREATE_FILTER, "FFmpeg refused a stream; check format, rate and channels");
        TELVANE_EXPLAIN(AUDIO_PARSE_GRAPH, "the description is wrong; FFmpeg's log names the place");
        TELVANE_EXPLAIN(AUDIO_CONFIG_GRAPH, "the graph does not fit together; link every label once");
        TELVANE_EXPLAIN(AUDIO_NOT_FOUND, "no such object or input");
        TELVANE_EXPLAIN(AUDIO_FRAME_BUFFER, "no memory for a block");
        TELVANE_EXPLAIN(AUDIO_SEND_FRAME, "the graph did not take the block; it may have ended");
        TELVANE_EXPLAIN(AUDIO_RECEIVE_FRAME, "no block came out; send more");
        TELVANE_EXPLAIN(VIDEO_INVALID_PARAM, "an argument does not fit; correct the call");
        TELVANE_EXPLAIN(VIDEO_ALLOC, "no memory for the graph or a picture");
        TELVANE_EXPLAIN(VIDEO_CREATE_SOURCE, "FFmpeg refused a stream; check size, format and rate");
        TELVANE_EXPLAIN(VIDEO_CREATE_SINK, "FFmpeg could not make the output; check its installation");
        TELVANE_EXPLAIN(VIDEO_PARSE_GRAPH, "the description is wrong, see FFmpeg's log; or an unknown scaling");
        TELVANE_EXPLAIN(VIDEO_CONFIG_GRAPH, "the graph does not fit together; link every label once");
        TELVANE_EXPLAIN(VIDEO_NOT_FOUND, "no such object or input");
        TELVANE_EXPLAIN(VIDEO_SEND_FRAME, "the graph did not take the picture; it may have ended");
        TELVANE_EXPLAIN(VIDEO_RECEIVE_FRAME, "no picture came out; send more");
        TELVANE_EXPLAIN(VIDEO_BUFFER_TOO_SMALL, "the scaled picture needs a larger buffer");
        TELVANE_EXPLAIN(VIDEO_SCALE, "the scaler failed, or has no memory for its pictures");
        default: return "unknown code " + std::to_string(nCode);
        }
        // clang-format on
#undef TELVANE_EXPLAIN
    }
};

/// The one category of the errors of this layer. Threads: free.
inline const ErrorCategory& Category() noexcept
{
    static const ErrorCategory category;
    return category;
}

/// What every call throws: code() is an AVFILTER_ERROR_* value, what() says in words what is wrong.
class Error : public std::system_error
{
  public:
    /// nCode: an AVFILTER_ERROR_* value; what: what was being done, put before the explanation.
    Error(int nCode, const std::string& what) : std::system_error(nCode, Category(), what) {}
};

/// The bytes of a vector, array or span of plain values, for the calls of the layer: writable if the values
/// are. They are not kept: do not store the bytes of a temporary.
template <class Values>
auto Bytes(Values&& values) noexcept
{
    const std::span view(values);
    using Value = typename decltype(view)::element_type;
    static_assert(std::is_trivially_copyable_v<Value>);
    if constexpr (std::is_const_v<Value>) {
        return std::as_bytes(view);
    } else {
        return std::as_writable_bytes(view);
    }
}

namespace detail
{

inline void Refuse(bool bRefuse, int nCode, std::string_view why)
{
    if (bRefuse) {
        throw Error(nCode, std::string(why));
    }
}

// Takes what a C function returned.
inline void Check(bool bDone, std::string_view what)
{
    Refuse(!bDone, static_cast<int>(AVFilter_GetLastError(nullptr)), what);
}

// For the C functions, whose pointers are to non-const bytes also where they only read.
inline unsigned char* Raw(std::span<const std::byte> bytes) noexcept
{
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): see above
    return const_cast<unsigned char*>(reinterpret_cast<const unsigned char*>(bytes.data()));
}

// Inputs must fit exactly, outputs may be larger. A plane of no bytes may be null.
inline void CheckSize(std::span<const std::byte> bytes, std::size_t nNeeded, bool bOrMore, int nCode)
{
    if ((bytes.data() == nullptr && nNeeded > 0) || bytes.size() < nNeeded ||
        (bytes.size() > nNeeded && !bOrMore)) {
        throw Error(nCode, "a buffer of " + std::to_string(bytes.size()) + " bytes, not " +
                               std::to_string(nNeeded));
    }
}

template <auto Destroy>
class Handle
{
  public:
    explicit Handle(unsigned long long n = 0) noexcept : m_n(n) {}
    Handle(Handle&& other) noexcept : m_n(std::exchange(other.m_n, 0)) {}
    Handle& operator=(Handle&& other) noexcept
    {
        const Handle old(std::exchange(m_n, 0)); // before the other is taken: moving to itself empties it
        m_n = std::exchange(other.m_n, 0);
        return *this;
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle()
    {
        if (m_n != 0) {
            Destroy(m_n);
        }
    }
    bool IsEmpty() const noexcept { return m_n == 0; }
    unsigned long long Get(int nNotFound) const
    {
        Refuse(m_n == 0, nNotFound, "an object that was moved from");
        return m_n;
    }

  private:
    unsigned long long m_n;
};

} // namespace detail

} // namespace telvane

#endif
