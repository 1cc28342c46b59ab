// The scaler.
#ifndef TELVANE_SCALER_HPP
#define TELVANE_SCALER_HPP

#include "telvane/error.hpp"
#include "telvane/formats.hpp"

namespace telvane
{

/// Converts pictures between sizes and pixel formats, bilinearly. To set it up anew, assign another.
/// Threads: one object, one caller at a time.
class VideoScaler
{
  public:
    /// Throws Error: INVALID_PARAM for formats that the layer does not know and sizes that cannot be;
    /// PARSE_GRAPH for conversions that FFmpeg's scaler refuses.
    VideoScaler(const Picture& from, const Picture& to)
        : m_nIn(PictureBytes(from)), m_nOut(PictureBytes(to))
    {
        detail::Refuse(m_nIn == 0 || m_nOut == 0, AVFILTER_ERROR_VIDEO_INVALID_PARAM,
                       "a pixel format that the layer does not know, or no such size");
        unsigned long long hHandle = 0;
        detail::Check(AVFilter_VideoScale_Init(&hHandle), "VideoScaler");
        m_Handle = decltype(m_Handle)(hHandle);
        detail::Check(AVFilter_VideoScale_Set(hHandle, from.format, from.width, from.height, to.format,
                                              to.width, to.height),
                      "VideoScaler");
    }
    /// True after moving from the object: its sizes are then 0, and Scale throws NOT_FOUND.
    bool IsEmpty() const noexcept { return m_Handle.IsEmpty(); }
    /// What Scale takes.
    std::size_t InputBytes() const noexcept { return IsEmpty() ? 0 : m_nIn; }
    /// What Scale writes.
    std::size_t OutputBytes() const noexcept { return IsEmpty() ? 0 : m_nOut; }

    /// Converts one tight picture of InputBytes() into the first OutputBytes() of "out". The two buffers may
    /// overlap. Throws Error: INVALID_PARAM for a wrong size, SCALE if FFmpeg's scaler fails.
    void Scale(std::span<const std::byte> in, std::span<std::byte> out)
    {
        const unsigned long long hHandle = m_Handle.Get(AVFILTER_ERROR_VIDEO_NOT_FOUND);
        detail::CheckSize(in, m_nIn, false, AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        detail::CheckSize(out, m_nOut, true, AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        auto nSize = static_cast<int>(m_nOut);
        detail::Check(AVFilter_VideoScale_Fmt(hHandle, reinterpret_cast<const char*>(in.data()),
                                              detail::Raw(out), &nSize),
                      "Scale");
    }

  private:
    detail::Handle<AVFilter_VideoScale_Destory> m_Handle;
    std::size_t m_nIn;
    std::size_t m_nOut;
};

} // namespace telvane

#endif
