// Pixel formats and pictures: the one place that knows their layouts.
#ifndef TELVANE_FORMATS_HPP
#define TELVANE_FORMATS_HPP

extern "C" {
#include <libavutil/pixfmt.h>
}

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <string_view>

namespace telvane
{

/// A pixel format that the layer knows: pictures in it can be sent, received and scaled. Deeper samples than
/// 8 bits lie in two bytes, the low one first.
struct PixelFormat {
    AVPixelFormat format; ///< FFmpeg's number
    const char* name;     ///< FFmpeg's
    /// The components in the order in which they lie in memory, plane after plane: "y|uv", "rgba". An x is a
    /// byte without meaning. In "yuyv" two pixels share a group.
    std::string_view planes;
    int shiftX = 0;  ///< log2 of the columns that share a sample of u and of v
    int shiftY = 0;  ///< log2 of the rows that do
    int bits = 8;    ///< of a sample
    int lowBits = 0; ///< unused bits below each sample
    /// The planar format of the same samples, for formats whose planes FFmpeg cannot take apart.
    const char* planar = "";
};

// clang-format off
inline constexpr PixelFormat kPixelFormats[] = {
    {AV_PIX_FMT_YUV420P, "yuv420p", "y|u|v", 1, 1}, {AV_PIX_FMT_YUV422P, "yuv422p", "y|u|v", 1, 0},
    {AV_PIX_FMT_YUV444P, "yuv444p", "y|u|v"}, {AV_PIX_FMT_YUV440P, "yuv440p", "y|u|v", 0, 1},
    {AV_PIX_FMT_YUV411P, "yuv411p", "y|u|v", 2, 0}, {AV_PIX_FMT_YUV410P, "yuv410p", "y|u|v", 2, 2},
    {AV_PIX_FMT_YUVJ420P, "yuvj420p", "y|u|v", 1, 1}, {AV_PIX_FMT_YUVJ422P, "yuvj422p", "y|u|v", 1, 0},
    {AV_PIX_FMT_YUVJ444P, "yuvj444p", "y|u|v"}, {AV_PIX_FMT_YUVJ440P, "yuvj440p", "y|u|v", 0, 1},
    {AV_PIX_FMT_YUVJ411P, "yuvj411p", "y|u|v", 2, 0},
    {AV_PIX_FMT_NV12, "nv12", "y|uv", 1, 1, 8, 0, "yuv420p"},
    {AV_PIX_FMT_NV21, "nv21", "y|vu", 1, 1, 8, 0, "yuv420p"},
    {AV_PIX_FMT_NV24, "nv24", "y|uv", 0, 0, 8, 0, "yuv444p"},
    {AV_PIX_FMT_NV42, "nv42", "y|vu", 0, 0, 8, 0, "yuv444p"},
    {AV_PIX_FMT_YUYV422, "yuyv422", "yuyv", 1, 0, 8, 0, "yuv422p"},
    {AV_PIX_FMT_UYVY422, "uyvy422", "uyvy", 1, 0, 8, 0, "yuv422p"},
    {AV_PIX_FMT_YVYU422, "yvyu422", "yvyu", 1, 0, 8, 0, "yuv422p"}, {AV_PIX_FMT_GRAY8, "gray", "y"},
    {AV_PIX_FMT_YA8, "ya8", "ya", 0, 0, 8, 0, "yuva444p"}, {AV_PIX_FMT_GBRP, "gbrp", "g|b|r"},
    {AV_PIX_FMT_RGB24, "rgb24", "rgb"}, {AV_PIX_FMT_BGR24, "bgr24", "bgr"},
    {AV_PIX_FMT_RGBA, "rgba", "rgba"}, {AV_PIX_FMT_BGRA, "bgra", "bgra"}, {AV_PIX_FMT_ARGB, "argb", "argb"},
    {AV_PIX_FMT_ABGR, "abgr", "abgr"}, {AV_PIX_FMT_RGB0, "rgb0", "rgbx"}, {AV_PIX_FMT_BGR0, "bgr0", "bgrx"},
    {AV_PIX_FMT_0RGB, "0rgb", "xrgb"}, {AV_PIX_FMT_0BGR, "0bgr", "xbgr"},
    {AV_PIX_FMT_YUVA420P, "yuva420p", "y|u|v|a", 1, 1}, {AV_PIX_FMT_YUVA422P, "yuva422p", "y|u|v|a", 1, 0},
    {AV_PIX_FMT_YUVA444P, "yuva444p", "y|u|v|a"}, {AV_PIX_FMT_GBRAP, "gbrap", "g|b|r|a"},
    {AV_PIX_FMT_GRAY9LE, "gray9le", "y", 0, 0, 9}, {AV_PIX_FMT_GRAY10LE, "gray10le", "y", 0, 0, 10},
    {AV_PIX_FMT_GRAY12LE, "gray12le", "y", 0, 0, 12}, {AV_PIX_FMT_GRAY14LE, "gray14le", "y", 0, 0, 14},
    {AV_PIX_FMT_GRAY16LE, "gray16le", "y", 0, 0, 16},
    {AV_PIX_FMT_YA16LE, "ya16le", "ya", 0, 0, 16, 0, "yuva444p16le"},
    {AV_PIX_FMT_YUV420P9LE, "yuv420p9le", "y|u|v", 1, 1, 9},
    {AV_PIX_FMT_YUV422P9LE, "yuv422p9le", "y|u|v", 1, 0, 9},
    {AV_PIX_FMT_YUV444P9LE, "yuv444p9le", "y|u|v", 0, 0, 9},
    {AV_PIX_FMT_YUV420P10LE, "yuv420p10le", "y|u|v", 1, 1, 10},
    {AV_PIX_FMT_YUV422P10LE, "yuv422p10le", "y|u|v", 1, 0, 10},
    {AV_PIX_FMT_YUV444P10LE, "yuv444p10le", "y|u|v", 0, 0, 10},
    {AV_PIX_FMT_YUV420P12LE, "yuv420p12le", "y|u|v", 1, 1, 12},
    {AV_PIX_FMT_YUV422P12LE, "yuv422p12le", "y|u|v", 1, 0, 12},
    {AV_PIX_FMT_YUV444P12LE, "yuv444p12le", "y|u|v", 0, 0, 12},
    {AV_PIX_FMT_YUV420P14LE, "yuv420p14le", "y|u|v", 1, 1, 14},
    {AV_PIX_FMT_YUV422P14LE, "yuv422p14le", "y|u|v", 1, 0, 14},
    {AV_PIX_FMT_YUV444P14LE, "yuv444p14le", "y|u|v", 0, 0, 14},
    {AV_PIX_FMT_YUV420P16LE, "yuv420p16le", "y|u|v", 1, 1, 16},
    {AV_PIX_FMT_YUV422P16LE, "yuv422p16le", "y|u|v", 1, 0, 16},
    {AV_PIX_FMT_YUV444P16LE, "yuv444p16le", "y|u|v", 0, 0, 16},
    {AV_PIX_FMT_YUV440P10LE, "yuv440p10le", "y|u|v", 0, 1, 10},
    {AV_PIX_FMT_YUV440P12LE, "yuv440p12le", "y|u|v", 0, 1, 12},
    {AV_PIX_FMT_P010LE, "p010le", "y|uv", 1, 1, 10, 6, "yuv420p10le"},
    {AV_PIX_FMT_GBRP9LE, "gbrp9le", "g|b|r", 0, 0, 9}, {AV_PIX_FMT_GBRP10LE, "gbrp10le", "g|b|r", 0, 0, 10},
    {AV_PIX_FMT_GBRP12LE, "gbrp12le", "g|b|r", 0, 0, 12},
    {AV_PIX_FMT_GBRP14LE, "gbrp14le", "g|b|r", 0, 0, 14},
    {AV_PIX_FMT_GBRP16LE, "gbrp16le", "g|b|r", 0, 0, 16},
    {AV_PIX_FMT_GBRAP10LE, "gbrap10le", "g|b|r|a", 0, 0, 10},
    {AV_PIX_FMT_GBRAP12LE, "gbrap12le", "g|b|r|a", 0, 0, 12},
    {AV_PIX_FMT_GBRAP16LE, "gbrap16le", "g|b|r|a", 0, 0, 16},
    {AV_PIX_FMT_YUVA420P10LE, "yuva420p10le", "y|u|v|a", 1, 1, 10},
    {AV_PIX_FMT_YUVA422P10LE, "yuva422p10le", "y|u|v|a", 1, 0, 10},
    {AV_PIX_FMT_YUVA444P10LE, "yuva444p10le", "y|u|v|a", 0, 0, 10},
    {AV_PIX_FMT_YUVA420P16LE, "yuva420p16le", "y|u|v|a", 1, 1, 16},
    {AV_PIX_FMT_YUVA422P16LE, "yuva422p16le", "y|u|v|a", 1, 0, 16},
    {AV_PIX_FMT_YUVA444P16LE, "yuva444p16le", "y|u|v|a", 0, 0, 16},
    {AV_PIX_FMT_RGB48LE, "rgb48le", "rgb", 0, 0, 16}, {AV_PIX_FMT_BGR48LE, "bgr48le", "bgr", 0, 0, 16},
    {AV_PIX_FMT_RGBA64LE, "rgba64le", "rgba", 0, 0, 16},
    {AV_PIX_FMT_BGRA64LE, "bgra64le", "bgra", 0, 0, 16},
};
// clang-format on

/// The entry of a format, or nullptr.
constexpr const PixelFormat* FindFormat(AVPixelFormat format) noexcept
{
    for (const PixelFormat& entry : kPixelFormats) {
        if (entry.format == format) {
            return &entry;
        }
    }
    return nullptr;
}

/// A tight picture: plane after plane, rows without padding, each plane as many rows and columns of whole
/// groups as it takes to hold all pixels.
struct Picture {
    AVPixelFormat format = AV_PIX_FMT_YUV420P; ///< one that FindFormat knows
    int width = 0;                             ///< pixels
    int height = 0;                            ///< pixels
};

namespace detail
{

// One plane of a tight picture.
struct Plane {
    std::string_view group;   // the components of one column
    std::size_t nColumns = 0; // groups in a row
    std::size_t nRows = 0;
    std::size_t nGroupBytes = 0;
    constexpr std::size_t Bytes() const noexcept { return nColumns * nRows * nGroupBytes; }
};

constexpr bool Has(std::string_view group, char cComponent) noexcept
{
    return group.find(cComponent) != std::string_view::npos;
}

// The number of samples of which each stands for 2^nShift of n pixels.
constexpr std::size_t Shifted(int n, int nShift) noexcept
{
    return (static_cast<std::size_t>(n) + (std::size_t{1} << nShift) - 1) >> nShift;
}

// All are empty for formats that the layer does not know, and for sizes that cannot be.
constexpr std::array<Plane, 4> PlanesOf(const Picture& picture) noexcept
{
    std::array<Plane, 4> planes{};
    const PixelFormat* const pFormat = FindFormat(picture.format);
    if (pFormat == nullptr || picture.width < 1 || picture.height < 1 ||
        picture.width > INT_MAX / 32 / picture.height) {
        return planes;
    }
    std::string_view rest = pFormat->planes;
    for (Plane& plane : planes) {
        plane.group = rest.substr(0, rest.find('|'));
        rest.remove_prefix(std::min(rest.size(), plane.group.size() + 1));
        const bool bChroma = Has(plane.group, 'u') || Has(plane.group, 'v');
        plane.nColumns = Shifted(picture.width, bChroma ? pFormat->shiftX : 0);
        plane.nRows = Shifted(picture.height, bChroma ? pFormat->shiftY : 0);
        plane.nGroupBytes = plane.group.size() * (pFormat->bits > 8 ? 2 : 1);
    }
    return planes;
}

} // namespace detail

/// The bytes of each plane of a picture in the formats that the layer knows; 0 for planes that there are
/// none of, for other formats, and for sizes that cannot be. Threads: free.
using Planes = std::array<std::size_t, 4>;
constexpr Planes PlaneBytes(const Picture& picture) noexcept
{
    const auto planes = detail::PlanesOf(picture);
    return {planes[0].Bytes(), planes[1].Bytes(), planes[2].Bytes(), planes[3].Bytes()};
}

/// The bytes of the whole picture; 0 as above. Threads: free.
constexpr std::size_t PictureBytes(const Picture& picture) noexcept
{
    const Planes planes = PlaneBytes(picture);
    return planes[0] + planes[1] + planes[2] + planes[3];
}

} // namespace telvane

#endif
