// FFmpeg's headers, owners for what they allocate, and the one place for differences between its versions.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/display.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libswresample/swresample.h>
}

#include "Telvane_AVFilter.hpp"

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace tool
{

template <auto Free>
struct Freer {
    template <class T>
    void operator()(T* p) const
    {
        Free(&p);
    }
};
using FormatPtr = std::unique_ptr<AVFormatContext, Freer<avformat_close_input>>;
using CodecPtr = std::unique_ptr<AVCodecContext, Freer<avcodec_free_context>>;
using PacketPtr = std::unique_ptr<AVPacket, Freer<av_packet_free>>;
using FramePtr = std::unique_ptr<AVFrame, Freer<av_frame_free>>;
using GraphPtr = std::unique_ptr<AVFilterGraph, Freer<avfilter_graph_free>>;
using PoolPtr = std::unique_ptr<AVBufferPool, Freer<av_buffer_pool_uninit>>;
using SwrPtr = std::unique_ptr<SwrContext, Freer<swr_free>>;

template <class T>
T* NotNull(T* p)
{
    return p != nullptr ? p : throw std::bad_alloc();
}
template <class Ptr>
Ptr Made(typename Ptr::pointer p)
{
    return Ptr(NotNull(p));
}
inline FramePtr NewFrame()
{
    return Made<FramePtr>(av_frame_alloc());
}

// Options by name, of which FFmpeg's functions leave those that they do not know.
class Dictionary
{
  public:
    Dictionary() = default;
    Dictionary(const Dictionary&) = delete;
    Dictionary& operator=(const Dictionary&) = delete;
    ~Dictionary() { av_dict_free(&m_p); }
    AVDictionary** At() { return &m_p; }
    void Set(const std::string& name, const std::string& value, int nFlags = 0)
    {
        av_dict_set(&m_p, name.c_str(), value.c_str(), nFlags);
    }
    const char* Get(const char* szName) const
    {
        const AVDictionaryEntry* pEntry = av_dict_get(m_p, szName, nullptr, 0);
        return pEntry != nullptr ? pEntry->value : nullptr;
    }
    // Its value, or ""; it is gone then.
    std::string Take(const char* szName)
    {
        const char* szValue = Get(szName);
        std::string value = szValue != nullptr ? szValue : "";
        av_dict_set(&m_p, szName, nullptr, 0);
        return value;
    }
    std::string First() const // name
    {
        const AVDictionaryEntry* pEntry = av_dict_get(m_p, "", nullptr, AV_DICT_IGNORE_SUFFIX);
        return pEntry != nullptr ? pEntry->key : "";
    }

  private:
    AVDictionary* m_p = nullptr;
};

// How long a picture is shown, in the units of its pts; 0: not known. 6.0 renamed it.
inline int64_t ShownFor(const AVFrame& frame)
{
#if LIBAVUTIL_VERSION_MAJOR >= 58
    return frame.duration;
#else
    return frame.pkt_duration;
#endif
}

// 6.1 made flags of them.
inline telvane::Fields FieldsOf(const AVFrame& frame)
{
#if LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(58, 7, 100)
    const bool bInterlaced = (frame.flags & AV_FRAME_FLAG_INTERLACED) != 0;
    const bool bTopFirst = (frame.flags & AV_FRAME_FLAG_TOP_FIELD_FIRST) != 0;
#else
    const bool bInterlaced = frame.interlaced_frame != 0;
    const bool bTopFirst = frame.top_field_first != 0;
#endif
    return !bInterlaced ? telvane::Fields::kUnknown
           : bTopFirst  ? telvane::Fields::kTopFirst
                        : telvane::Fields::kBottomFirst;
}

// What a stream carries besides its packets moved to the codec's parameters in 6.1, which are copied whole.
inline const int32_t* DisplayMatrix(const AVStream& stream)
{
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(60, 30, 100)
    const AVPacketSideData* pData = av_packet_side_data_get(
        stream.codecpar->coded_side_data, stream.codecpar->nb_coded_side_data, AV_PKT_DATA_DISPLAYMATRIX);
    return pData != nullptr ? reinterpret_cast<const int32_t*>(pData->data) : nullptr;
#else
    return reinterpret_cast<const int32_t*>(
        av_stream_get_side_data(&stream, AV_PKT_DATA_DISPLAYMATRIX, nullptr));
#endif
}
inline void CopySideData([[maybe_unused]] const AVStream& from, [[maybe_unused]] AVStream& to)
{
#if LIBAVCODEC_VERSION_INT < AV_VERSION_INT(60, 30, 100)
    for (int i = 0; i < from.nb_side_data; ++i) {
        const AVPacketSideData& data = from.side_data[i];
        if (uint8_t* p = av_stream_new_side_data(&to, data.type, data.size)) {
            std::memcpy(p, data.data, data.size);
        }
    }
#endif
}

// What an encoder takes; nothing: anything. 7.1 put a function in place of the lists.
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(61, 13, 100)
inline const void* ListOf(const AVCodec& codec, AVCodecConfig config)
{
    const void* pList = nullptr;
    avcodec_get_supported_config(nullptr, &codec, config, 0, &pList, nullptr);
    return pList;
}
#define TOOL_LIST(codec, config, member) ListOf(codec, config)
#else
#define TOOL_LIST(codec, config, member) (codec).member
#endif
template <class T>
std::vector<T> Listed(const void* pList, const T& end)
{
    std::vector<T> list;
    for (const T* p = static_cast<const T*>(pList); p != nullptr && std::memcmp(p, &end, sizeof(T)) != 0;
         ++p) {
        list.push_back(*p);
    }
    return list;
}
inline auto PixelFormats(const AVCodec& codec)
{
    return Listed(TOOL_LIST(codec, AV_CODEC_CONFIG_PIX_FORMAT, pix_fmts), AV_PIX_FMT_NONE);
}
inline auto SampleFormats(const AVCodec& codec)
{
    return Listed(TOOL_LIST(codec, AV_CODEC_CONFIG_SAMPLE_FORMAT, sample_fmts), AV_SAMPLE_FMT_NONE);
}
inline auto SampleRates(const AVCodec& codec)
{
    return Listed(TOOL_LIST(codec, AV_CODEC_CONFIG_SAMPLE_RATE, supported_samplerates), 0);
}
inline auto Layouts(const AVCodec& codec)
{
    return Listed(TOOL_LIST(codec, AV_CODEC_CONFIG_CHANNEL_LAYOUT, ch_layouts), AVChannelLayout{});
}

} // namespace tool
