// The tool's own copy of a graph, configured by FFmpeg itself: it tells what comes out, before and after
// running. The results always come from the library.
#pragma once

#include "media.h"

extern "C" {
#include <libavfilter/avfilter.h>
}

#include <initializer_list>
#include <string_view>

namespace tool
{

class OwnGraph
{
  public:
    // One layout, aspect and so on for each input; the names are the description's labels.
    OwnGraph(const std::vector<telvane::AudioInput>& inputs, const std::vector<AVChannelLayout>& layouts,
             const std::string& description);
    OwnGraph(const std::vector<telvane::VideoInput>& inputs, const std::vector<AVRational>& aspects,
             AVRational rate, const std::string& description);

    // What comes out. An audio block's size is not known beforehand.
    telvane::AudioStream Audio() const;
    AVChannelLayout Layout() const;
    telvane::Size Picture() const;
    AVRational Rate() const;
    AVRational Aspect() const;
    std::string Dump() const;
    bool Uses(std::initializer_list<std::string_view> filters) const;
    // Whether pictures may come out at other times than they went in.
    bool ChangesTimes() const;

    // A run beside the library's, which cannot be told that a stream ends: FFmpeg's count of what comes out.
    // False where the description takes no more of this input; the library refuses it as well.
    bool Send(std::size_t nInput, std::span<const std::byte> bytes, int nSamples = 0);
    bool Takes(std::size_t nInput) const { return !m_bEnded && !m_Closed[nInput]; }
    void End();
    bool HasEnded() const { return m_bEnded; } // by itself or by End
    // The times of the pictures that came out, oldest first, in units of 1 / Rate(). The library gives
    // the same pictures without times.
    std::deque<int64_t>& Times() { return m_Times; }
    // Samples or pictures; nothing if they go on without end.
    std::optional<int64_t> Count() const { return m_bEndless ? std::nullopt : std::optional(m_nCount); }

  private:
    struct Source {
        std::string name;
        std::string filter;
        std::string arguments;
    };
    void Build(const std::vector<Source>& sources, const char* szSink, const std::string& description);
    void Drain();

    std::unique_ptr<AVFilterGraph, Freer<avfilter_graph_free>> m_Graph;
    std::vector<AVFilterContext*> m_Sources;
    AVFilterContext* m_pSink = nullptr;
    std::vector<telvane::AudioInput> m_Audio;
    std::vector<AVChannelLayout> m_Layouts;
    std::vector<telvane::VideoInput> m_Video;
    AVRational m_Rate{0, 1}; // of the pictures that go in
    std::vector<int64_t> m_Sent;
    std::vector<bool> m_Closed;
    std::deque<int64_t> m_Times;
    FramePtr m_Out;
    int64_t m_nCount = 0;
    bool m_bEnded = false;
    bool m_bEndless = false;
};

// A description without the label of its output, so that filters can be added. Nothing if it ends in
// another label.
std::optional<std::string> WithoutOut(const std::string& description);

} // namespace tool
