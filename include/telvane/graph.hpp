// What filters and mixers have in common: the description around the user's, the inputs' lengths, the times
// and the end of what comes out. Nothing here is for users of the layer.
#ifndef TELVANE_GRAPH_HPP
#define TELVANE_GRAPH_HPP

#include "telvane/error.hpp"
#include "telvane/streams.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstdint>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace telvane::detail
{

// All labels of the layer's own begin like this one.
inline constexpr const char* kReserved = "telvane_";
inline constexpr const char* kSinkLabel = "telvane_out";

template <class Number>
std::string Text(Number n)
{
    return std::to_string(n);
}

// The time of each picture or block that leaves the graph. FFmpeg's metadata filter prints it into a file of
// memory while the picture passes; a filter behind it adds one more picture at the end of the stream, which
// has no time there and so marks the end.
class Clock
{
  public:
    explicit Clock(Times times) : m_n(times == Times::kGiven ? memfd_create("telvane", MFD_CLOEXEC) : -1) {}
    Clock(Clock&& other) noexcept
        : m_n(std::exchange(other.m_n, -1)), m_nRead(other.m_nRead), m_nProcess(other.m_nProcess)
    {
    }
    Clock& operator=(Clock&& other) noexcept
    {
        std::swap(m_n, other.m_n);
        std::swap(m_nRead, other.m_nRead);
        std::swap(m_nProcess, other.m_nProcess);
        return *this;
    }
    Clock(const Clock&) = delete;
    Clock& operator=(const Clock&) = delete;
    ~Clock()
    {
        if (m_n >= 0) {
            close(m_n);
        }
    }
    bool IsOpen() const noexcept { return m_n >= 0; }
    // A child process would share the place in the file with its parent.
    bool IsForked() const noexcept { return IsOpen() && getpid() != m_nProcess; }

    // To be appended to a chain; the letter is "a" for audio.
    std::string Filters(const std::string& letter) const
    {
        if (!IsOpen()) {
            return {};
        }
        const std::string metadata = "," + letter + "metadata=mode=";
        return "," + letter + "settb=1/1000000" + metadata + "add:key=telvane_:value=1" + metadata +
               "print:key=telvane_:direct=1:file='pipe\\:" + Text(m_n) + "'";
    }
    // What adds the mark, behind everything else: it does not know all pixel formats.
    std::string Mark(const char* szFilter) const { return IsOpen() ? szFilter : ""; }

    // Called for each thing that came out: false if it is the mark of the end.
    bool Next(std::optional<std::chrono::microseconds>& time)
    {
        // "frame:12   pts:480000  pts_time:0.48\ntelvane_=1\n"
        std::array<char, 256> text{};
        const ssize_t nText = pread(m_n, text.data(), text.size(), m_nRead);
        const std::string_view view(text.data(), nText > 0 ? static_cast<std::size_t>(nText) : 0);
        const std::size_t nPts = view.find("pts:");
        const std::size_t nEnd = view.find('\n', std::min(view.find('\n'), view.size() - 1) + 1);
        if (nPts == std::string_view::npos || nEnd == std::string_view::npos) {
            return false;
        }
        std::int64_t nTime = 0;
        // A time that is none may have become one longer than a life ago, when its base was converted.
        if (std::from_chars(view.data() + nPts + 4, view.data() + nEnd, nTime).ec == std::errc() &&
            nTime > -4'000'000'000'000'000) {
            time = std::chrono::microseconds(nTime);
        }
        m_nRead += static_cast<off_t>(nEnd) + 1;
        // The file must not grow for ever: what has been read goes, once nothing else is in it.
        if (m_nRead > 4096 && lseek(m_n, 0, SEEK_CUR) == m_nRead && ftruncate(m_n, 0) == 0) {
            lseek(m_n, 0, SEEK_SET);
            m_nRead = 0;
        }
        return true;
    }

  private:
    int m_n;
    off_t m_nRead = 0;
    pid_t m_nProcess = getpid();
};

// Refuses what could get at the layer's own part of the graph, and what waits for an end that never comes.
inline void CheckDescription(const std::string& text, bool bCanEnd, int nInvalid)
{
    std::string plain; // FFmpeg drops quotes and backslashes from names
    for (const char c : text) {
        Refuse(c == '\0', nInvalid, "the description contains a zero byte");
        if (c != '\\' && c != '\'') {
            plain += c;
        }
    }
    Refuse(plain.find_first_not_of(" \n\t\r") == std::string::npos, nInvalid, "the description is empty");
    for (const char* szWord : {kReserved, "sendcmd", "zmq"}) {
        Refuse(plain.find(szWord) != std::string::npos, nInvalid,
               std::string(szWord) + " is not for descriptions");
    }
    for (const char* szFilter : {"reverse", "palettegen"}) {
        Refuse(!bCanEnd && plain.find(szFilter) != std::string::npos, nInvalid,
               std::string(szFilter) + " waits for the end of the stream: say how long the input is");
    }
}

// What follows must not be swallowed by a quote that the text leaves open, or by a backslash at its end. The
// last output without a label is [out].
inline std::string ToOut(std::string text)
{
    bool bQuoted = false;
    bool bEscaped = false;
    for (const char c : text) {
        bQuoted = bQuoted != (c == '\'' && !bEscaped);
        bEscaped = c == '\\' && !bQuoted && !bEscaped;
    }
    text += bQuoted ? "'" : bEscaped ? "\\" : "";
    text.resize(text.find_last_not_of(" \n\t\r") + 1);
    if (text.ends_with(';')) {
        text.pop_back();
    }
    // A text may also end in a filter without output, behind a chain that leads to [out].
    const bool bLabelled = text.ends_with(']') || (!bQuoted && text.find("[out]") != std::string::npos);
    return bLabelled ? text : text + "[out]";
}

// The first input of a filter's description without a label is [in].
inline std::string FromIn(const std::string& text)
{
    const std::size_t nFirst = text.find_first_not_of(" \n\t\r");
    const bool bLabelled =
        nFirst == std::string::npos || text[nFirst] == '[' || text.find("[in]") != std::string::npos;
    return bLabelled ? text : "[in]" + text;
}

// A graph; Kind says where audio and video differ.
template <class Kind>
class Graph
{
  public:
    using Stream = typename Kind::Stream;
    using Out = typename Kind::Out;

    /// True after moving from the object: its sizes are then 0, and its calls throw NOT_FOUND.
    bool IsEmpty() const noexcept { return m_Handle.IsEmpty(); }

    /// What Send takes, in bytes; the last block of a stream of known length may be shorter.
    std::size_t InputBytes(std::size_t nInput = 0) const
    {
        return IsEmpty() ? 0 : Kind::InputBytes(StreamOf(nInput));
    }
    /// The size of Receive's buffer. Only the last block of a stream can be shorter.
    std::size_t OutputBytes() const noexcept { return IsEmpty() ? 0 : m_Tail.nBytes; }
    /// The format and size of what Receive gives.
    const Out& Output() const noexcept { return m_Tail.out; }

    /// Takes one picture or block, if there is one.
    ///
    /// out: at least OutputBytes(). Filled from the start if the answer is State::kOutput, else undefined.
    /// State::kNotYet is no error: send more. State::kEnd comes when the description has ended, as it does
    /// when its inputs have and whenever it ends by itself ("trim"); it then comes for ever.
    /// Throws Error: INVALID_PARAM for a buffer that is too small; ALLOC or FRAME_BUFFER for lack of memory,
    /// which can be tried again; RECEIVE_FRAME if all inputs have ended and a filter failed. A failure of a
    /// filter before that cannot be told from State::kNotYet.
    [[nodiscard]] Received Receive(std::span<std::byte> out)
    {
        const unsigned long long hHandle = Get();
        CheckSize(out, m_Tail.nBytes, true, Kind::kInvalid);
        if (m_bEnd) {
            return {State::kEnd};
        }
        Received received;
        int nSize = 0;
        do {
            if (Kind::kReceive(hHandle, Raw(m_Tail.Target(out)), &nSize)) {
                m_bEnd = m_Clock.IsOpen() && !m_Clock.Next(received.time);
                received.state = m_bEnd ? State::kEnd : State::kOutput;
                received.bytes = m_bEnd ? 0 : m_Tail.Finish(out, static_cast<std::size_t>(nSize));
                return received;
            }
            // The only other failure that is left here; all other codes are those of other threads.
            Check(AVFilter_GetLastError(nullptr) != Kind::kNoMemory, "Receive");
        } while (EndInputs(hHandle));
        m_bEnd = std::ranges::all_of(m_Inputs, [](const Entry& input) { return input.nToEnd == 0; });
        Refuse(m_bEnd && m_Clock.IsOpen(), Kind::kReceiveFailed,
               "all inputs have ended, but a filter failed or waits");
        received.state = m_bEnd ? State::kEnd : State::kNotYet;
        return received;
    }

  protected:
    Graph(const std::vector<Input<Stream>>& inputs, const std::string& description,
          const std::optional<Out>& out, Times times)
        : m_Clock(times), m_Tail(Kind::Output(inputs, out))
    {
        Refuse(times == Times::kGiven && !m_Clock.IsOpen(), Kind::kNoMemory,
               "no file descriptor for the times (memfd_create)");
        bool bCanEnd = false;
        std::string whole;
        std::vector<typename Kind::Info> infos(inputs.size());
        std::vector<typename Kind::Info*> pointers(inputs.size());
        std::string labels;
        for (std::size_t i = 0; i < inputs.size(); ++i) {
            const Stream& stream = inputs[i].stream;
            const std::optional<std::int64_t> nLength =
                Kind::Length(stream); // throws if there is no such stream
            bCanEnd = bCanEnd || nLength;
            CheckName(inputs[i].name);
            std::string label = kReserved + Text(i);
            const std::string head = Kind::Head(stream, label);
            if (head.empty() && inputs[i].name.size() < sizeof(infos[i].szName)) {
                label = inputs[i].name;
            } else {
                whole.append("[").append(label).append("]").append(head.empty() ? "null" : head);
                whole.append("[").append(inputs[i].name).append("];");
            }
            infos[i] = Kind::Record(stream);
            infos[i].nInputId = static_cast<int>(i);
            label.copy(infos[i].szName, label.size());
            pointers[i] = &infos[i];
            labels += "[" + inputs[i].name + "] ";
            m_Inputs.push_back({stream, nLength.value_or(kEndless), Kind::ToEnd(stream)});
        }
        CheckDescription(description, bCanEnd, Kind::kInvalid);
        // The layer's end stands behind: where FFmpeg puts conversions depends on the order.
        whole += ToOut(inputs.size() == 1 && inputs[0].name == "in" ? FromIn(description) : description) +
                 ";[out]" + m_Tail.Filters(m_Clock) + "[" + kSinkLabel + "]";
        unsigned long long hHandle = 0;
        typename Kind::Info** ppInfo = pointers.data();
        const std::string what = description + "\nlabels here: " + labels + "[out]"; // before: it may throw
        Check(Kind::kCreate(&hHandle, &ppInfo, static_cast<int>(infos.size()), kSinkLabel, whole.c_str()),
              what);
        m_Handle = decltype(m_Handle)(hHandle);
        for (std::size_t i = 0; i < m_Inputs.size(); ++i) {
            if (m_Inputs[i].IsAllSent()) { // nothing at all: FFmpeg's filters see that before they begin
                Kind::SendAnything(hHandle, i);
                m_Inputs[i].nToEnd = 0;
            }
        }
    }

    unsigned long long Get() const
    {
        Refuse(m_Clock.IsForked(), Kind::kInvalid, "an object made before the fork");
        return m_Handle.Get(Kind::kNotFound);
    }
    const Stream& StreamOf(std::size_t nInput) const
    {
        Refuse(IsEmpty() || nInput >= m_Inputs.size(), Kind::kNotFound,
               IsEmpty() ? "an object that was moved from" : "there is no such input");
        return m_Inputs[nInput].stream;
    }
    // The pictures or samples that may still be sent.
    std::int64_t Left(std::size_t nInput) const
    {
        StreamOf(nInput);
        const std::int64_t nLeft = m_Inputs[nInput].nLength - m_Inputs[nInput].nSent;
        Refuse(nLeft <= 0, Kind::kInvalid, "more than the stream's length");
        return nLeft;
    }
    void Took(std::size_t nInput, std::int64_t n) noexcept { m_Inputs[nInput].nSent += n; }

  private:
    static constexpr std::int64_t kEndless = INT64_MAX;
    struct Entry {
        Stream stream;
        std::int64_t nLength;
        int nToEnd; // what must still be sent after the last picture or block
        std::int64_t nSent = 0;
        bool IsAllSent() const noexcept { return nSent == nLength; }
        double Time() const { return Kind::Time(stream, nSent); }
    };

    // What comes after an input's last picture or block tells the filters at its head that it has ended. Some
    // filters that make pairs forget what the others have sent when one input ends. So it waits until all
    // that came before it has been worked off, and until the others have come as far. False: nothing to tell.
    bool EndInputs(unsigned long long hHandle)
    {
        bool bAny = false;
        for (std::size_t i = 0; i < m_Inputs.size(); ++i) {
            Entry& input = m_Inputs[i];
            const auto isBehind = [&](const Entry& other) {
                return !other.IsAllSent() && other.Time() <= input.Time();
            };
            if (input.IsAllSent() && input.nToEnd > 0 &&
                (input.nToEnd > 1 || std::ranges::none_of(m_Inputs, isBehind))) {
                Kind::SendAnything(hHandle, i);
                --input.nToEnd;
                bAny = true;
            }
        }
        return bAny;
    }

    static void CheckName(const std::string& name)
    {
        Refuse(name.empty() ||
                   name.find_first_of(std::string("[]'\\;, \n\t\r\0", 11)) != std::string::npos ||
                   name.find(kReserved) != std::string::npos,
               Kind::kInvalid, "\"" + name + "\" cannot be the name of an input");
        Refuse(name == "out", Kind::kInvalid, "an input cannot have the output's name");
    }

    Clock m_Clock; // outlives the graph, which writes to its file
    Handle<Kind::kDestroy> m_Handle;
    std::vector<Entry> m_Inputs;
    typename Kind::Tail m_Tail;
    bool m_bEnd = false;
};

} // namespace telvane::detail

#endif
