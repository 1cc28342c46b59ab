// libyuv and zimg beside the library's scaler: speed on the caller's buffers, and quality.
#include "compare.h"

#include <benchmark/benchmark.h>

extern "C" {
#include <libavutil/imgutils.h>
#include <libyuv/convert_argb.h>
#include <libyuv/scale.h>
#include <zimg.h>
}

#include <algorithm>
#include <cmath>
#include <numbers>
#include <optional>

namespace bench
{

namespace
{

struct Picture {
    Picture(int nFormat, const Size& size, const Buffer& buffer, int nAlign = 1)
    {
        av_image_fill_arrays(pPlane, nLine, buffer.Data(), static_cast<AVPixelFormat>(nFormat), size.nWidth,
                             size.nHeight, nAlign);
    }
    std::uint8_t* pPlane[4]{};
    int nLine[4]{};
};

// ---- libyuv ------------------------------------------------------------------------------------------

std::optional<Path> Libyuv(const Job& job, const Conversion& c)
{
    if (c.nSrcFormat != AV_PIX_FMT_YUV420P) {
        return std::nullopt;
    }
    const Picture src(c.nSrcFormat, c.src, *job.pIn);
    const Picture dst(c.nDstFormat, c.dst, *job.pOut);
    const bool bSameSize = c.src.nWidth == c.dst.nWidth && c.src.nHeight == c.dst.nHeight;
    std::function<bool(int)> run;
    if (c.nDstFormat == AV_PIX_FMT_YUV420P) {
        // The filter that takes all source pixels into account when it makes pictures smaller.
        const libyuv::FilterMode filter =
            c.dst.nWidth < c.src.nWidth ? libyuv::kFilterBox : libyuv::kFilterBilinear;
        run = Repeat([=] {
            return libyuv::I420Scale(src.pPlane[0], src.nLine[0], src.pPlane[1], src.nLine[1],
                                     src.pPlane[2], src.nLine[2], c.src.nWidth, c.src.nHeight,
                                     dst.pPlane[0], dst.nLine[0], dst.pPlane[1], dst.nLine[1],
                                     dst.pPlane[2], dst.nLine[2], c.dst.nWidth, c.dst.nHeight, filter) == 0;
        });
    } else if (c.nDstFormat == AV_PIX_FMT_RGB24 && bSameSize) {
        run = Repeat([=] {
            return libyuv::I420ToRAW(src.pPlane[0], src.nLine[0], src.pPlane[1], src.nLine[1],
                                     src.pPlane[2], src.nLine[2], dst.pPlane[0], dst.nLine[0], c.src.nWidth,
                                     c.src.nHeight) == 0;
        });
    } else {
        return std::nullopt;
    }
    return Path{"libyuv", std::move(run), BytesOf(job.pOut), false};
}

// ---- zimg --------------------------------------------------------------------------------------------

constexpr int kZimgAlign = 64;

bool IsAligned(const Picture& picture)
{
    for (int i = 0; i < 4 && picture.pPlane[i] != nullptr; ++i) {
        if (picture.nLine[i] % kZimgAlign != 0 ||
            reinterpret_cast<std::uintptr_t>(picture.pPlane[i]) % kZimgAlign != 0) {
            return false;
        }
    }
    return true;
}

zimg_image_format ZimgFormat(int nFormat, const Size& size)
{
    zimg_image_format st_Format;
    zimg_image_format_default(&st_Format, ZIMG_API_VERSION);
    const bool bYuv = nFormat == AV_PIX_FMT_YUV420P;
    st_Format.width = static_cast<unsigned>(size.nWidth);
    st_Format.height = static_cast<unsigned>(size.nHeight);
    st_Format.pixel_type = ZIMG_PIXEL_BYTE;
    st_Format.subsample_w = st_Format.subsample_h = bYuv ? 1 : 0;
    st_Format.color_family = bYuv ? ZIMG_COLOR_YUV : ZIMG_COLOR_RGB;
    st_Format.matrix_coefficients = bYuv ? ZIMG_MATRIX_BT470_BG : ZIMG_MATRIX_RGB;
    st_Format.transfer_characteristics = ZIMG_TRANSFER_BT601;
    st_Format.color_primaries = ZIMG_PRIMARIES_BT470_BG;
    st_Format.pixel_range = bYuv ? ZIMG_RANGE_LIMITED : ZIMG_RANGE_FULL;
    st_Format.chroma_location = ZIMG_CHROMA_CENTER;
    return st_Format;
}

struct Zimg {
    Zimg(const Job& job, const Conversion& c)
        : conversion(c), callerIn(c.nSrcFormat, c.src, *job.pIn), callerOut(c.nDstFormat, c.dst, *job.pOut),
          pIn(job.pIn), pOut(job.pOut), ownIn(Padded(c.nSrcFormat, c.src)),
          ownOut(Padded(c.nDstFormat, c.dst)),
          in(IsAligned(callerIn) ? callerIn : Picture(c.nSrcFormat, c.src, ownIn, kZimgAlign)),
          out(IsAligned(callerOut) ? callerOut : Picture(c.nDstFormat, c.dst, ownOut, kZimgAlign))
    {
        zimg_graph_builder_params st_Params;
        zimg_graph_builder_params_default(&st_Params, ZIMG_API_VERSION);
        st_Params.resample_filter = st_Params.resample_filter_uv = ZIMG_RESIZE_BILINEAR;
        st_Params.cpu_type = ZIMG_CPU_AUTO_64B;
        const zimg_image_format st_Src = ZimgFormat(c.nSrcFormat, c.src);
        const zimg_image_format st_Dst = ZimgFormat(c.nDstFormat, c.dst);
        pGraph = zimg_filter_graph_build(&st_Src, &st_Dst, &st_Params);
        std::size_t nScratch = 0;
        if (pGraph != nullptr) {
            zimg_filter_graph_get_tmp_size(pGraph, &nScratch);
        }
        pScratch = std::make_unique<Buffer>(nScratch);
    }
    ~Zimg() { zimg_filter_graph_free(pGraph); }
    Zimg(const Zimg&) = delete;
    Zimg& operator=(const Zimg&) = delete;

    static std::size_t Padded(int nFormat, const Size& size)
    {
        return static_cast<std::size_t>(av_image_get_buffer_size(static_cast<AVPixelFormat>(nFormat),
                                                                 size.nWidth, size.nHeight, kZimgAlign)) +
               kZimgAlign;
    }

    bool Convert()
    {
        const auto srcFormat = static_cast<AVPixelFormat>(conversion.nSrcFormat);
        const auto dstFormat = static_cast<AVPixelFormat>(conversion.nDstFormat);
        // zimg wants aligned rows: what the caller has otherwise must be copied.
        if (in.pPlane[0] != callerIn.pPlane[0]) {
            const std::uint8_t* pPlanes[4] = {callerIn.pPlane[0], callerIn.pPlane[1], callerIn.pPlane[2],
                                              nullptr};
            av_image_copy(in.pPlane, in.nLine, pPlanes, callerIn.nLine, srcFormat, conversion.src.nWidth,
                          conversion.src.nHeight);
        }
        zimg_image_buffer_const st_In{};
        zimg_image_buffer st_Out{};
        st_In.version = st_Out.version = ZIMG_API_VERSION;
        // FFmpeg's planar RGB has green first.
        const bool bRgb = dstFormat == AV_PIX_FMT_GBRP;
        for (std::size_t i = 0; i < 3; ++i) {
            const std::size_t o = bRgb ? (i + 2) % 3 : i;
            st_In.plane[i] = {in.pPlane[i], in.nLine[i], ZIMG_BUFFER_MAX};
            st_Out.plane[i] = {out.pPlane[o], out.nLine[o], ZIMG_BUFFER_MAX};
        }
        if (pGraph == nullptr ||
            zimg_filter_graph_process(pGraph, &st_In, &st_Out, pScratch->Data(), nullptr, nullptr, nullptr,
                                      nullptr) != ZIMG_ERROR_SUCCESS) {
            return false;
        }
        if (out.pPlane[0] != callerOut.pPlane[0]) {
            av_image_copy_to_buffer(pOut->Data(), static_cast<int>(pOut->Size()), out.pPlane, out.nLine,
                                    dstFormat, conversion.dst.nWidth, conversion.dst.nHeight, 1);
        }
        return true;
    }

    Conversion conversion;
    Picture callerIn, callerOut;
    std::shared_ptr<Buffer> pIn, pOut;
    Buffer ownIn, ownOut;
    Picture in, out;
    zimg_filter_graph* pGraph = nullptr;
    std::unique_ptr<Buffer> pScratch;
};

std::optional<Path> ZimgPath(const Job& job, const Conversion& c)
{
    if (c.nSrcFormat != AV_PIX_FMT_YUV420P ||
        (c.nDstFormat != AV_PIX_FMT_YUV420P && c.nDstFormat != AV_PIX_FMT_GBRP)) {
        return std::nullopt;
    }
    auto pZimg = std::make_shared<Zimg>(job, c);
    return Path{"zimg", Repeat([=] { return pZimg->Convert(); }), BytesOf(job.pOut), false};
}

// ---- Quality -----------------------------------------------------------------------------------------

// Planes of numbers, as exact as a double.
struct Exact {
    std::vector<std::vector<double>> vec_Planes;
    int nWidth = 0;
    int nHeight = 0;
};

double& At(std::vector<double>& vec_Plane, int nWidth, int x, int y)
{
    return vec_Plane[static_cast<std::size_t>(y) * static_cast<std::size_t>(nWidth) +
                     static_cast<std::size_t>(x)];
}

// A picture with what scaling finds hard: fine rings, hard edges, saturated colours beside slow shades.
Exact SceneRgb(const Size& size)
{
    Exact scene{{}, size.nWidth, size.nHeight};
    scene.vec_Planes.assign(3, std::vector<double>(static_cast<std::size_t>(size.nWidth) *
                                                   static_cast<std::size_t>(size.nHeight)));
    for (int y = 0; y < size.nHeight; ++y) {
        for (int x = 0; x < size.nWidth; ++x) {
            const double u = (x + 0.5) / size.nHeight;
            const double v = (y + 0.5) / size.nHeight;
            const double dRings =
                0.5 + 0.5 * std::cos(120 * ((u - 0.9) * (u - 0.9) + (v - 0.5) * (v - 0.5)));
            const double dEdge = std::fmod(std::floor(6 * (u + 0.37 * v)), 2);
            const double dDisc = std::hypot(u - 0.4, v - 0.6) < 0.2 ? 1 : 0;
            At(scene.vec_Planes[0], size.nWidth, x, y) = 255 * (0.4 * dRings + 0.3 * v + 0.3 * dDisc);
            At(scene.vec_Planes[1], size.nWidth, x, y) = 255 * (0.4 * dRings + 0.3 * dEdge + 0.15 * u);
            At(scene.vec_Planes[2], size.nWidth, x, y) = 255 * (0.4 * dRings + 0.3 * (1 - v) + 0.3 * dEdge);
        }
    }
    for (std::vector<double>& vec_Plane : scene.vec_Planes) {
        for (double& d : vec_Plane) {
            d = std::clamp(std::round(d), 0.0, 255.0);
        }
    }
    return scene;
}

std::vector<double> HalveByArea(std::vector<double> vec_Plane, int nWidth, int nHeight)
{
    std::vector<double> vec_Half(vec_Plane.size() / 4);
    for (int y = 0; y < nHeight / 2; ++y) {
        for (int x = 0; x < nWidth / 2; ++x) {
            At(vec_Half, nWidth / 2, x, y) =
                (At(vec_Plane, nWidth, 2 * x, 2 * y) + At(vec_Plane, nWidth, 2 * x + 1, 2 * y) +
                 At(vec_Plane, nWidth, 2 * x, 2 * y + 1) + At(vec_Plane, nWidth, 2 * x + 1, 2 * y + 1)) /
                4;
        }
    }
    return vec_Half;
}

// One direction of a Lanczos filter of order 3; the picture comes out turned over its diagonal.
std::vector<double> HalveAndTurn(std::vector<double> vec_Plane, int nWidth, int nHeight)
{
    const auto sinc = [](double d) { return std::sin(std::numbers::pi * d) / (std::numbers::pi * d); };
    double dTaps[12];
    double dSum = 0;
    for (int i = 0; i < 12; ++i) {
        const double dAway = (i - 5.5) / 2;
        dTaps[i] = sinc(dAway) * sinc(dAway / 3);
        dSum += dTaps[i];
    }
    std::vector<double> vec_Half(vec_Plane.size() / 2);
    for (int y = 0; y < nHeight; ++y) {
        for (int x = 0; x < nWidth / 2; ++x) {
            double d = 0;
            for (int i = 0; i < 12; ++i) {
                d += dTaps[i] * At(vec_Plane, nWidth, std::clamp(2 * x - 5 + i, 0, nWidth - 1), y);
            }
            At(vec_Half, nHeight, y, x) = d / dSum;
        }
    }
    return vec_Half;
}

std::vector<double> HalveByLanczos(std::vector<double> vec_Plane, int nWidth, int nHeight)
{
    return HalveAndTurn(HalveAndTurn(std::move(vec_Plane), nWidth, nHeight), nHeight, nWidth / 2);
}

// BT.601, limited range; each chroma sample is the mean of its four pixels.
std::vector<double> ToYuv420(const Exact& rgb)
{
    const double dRows[3][3] = {
        {0.299, 0.587, 0.114}, {-0.168736, -0.331264, 0.5}, {0.5, -0.418688, -0.081312}};
    std::vector<double> vec_All;
    for (int i = 0; i < 3; ++i) {
        std::vector<double> vec_Plane(rgb.vec_Planes[0].size());
        for (std::size_t k = 0; k < vec_Plane.size(); ++k) {
            const double d = dRows[i][0] * rgb.vec_Planes[0][k] + dRows[i][1] * rgb.vec_Planes[1][k] +
                             dRows[i][2] * rgb.vec_Planes[2][k];
            vec_Plane[k] = i == 0 ? 16 + d * 219 / 255 : 128 + d * 224 / 255;
        }
        if (i > 0) {
            vec_Plane = HalveByArea(vec_Plane, rgb.nWidth, rgb.nHeight);
        }
        vec_All.insert(vec_All.end(), vec_Plane.begin(), vec_Plane.end());
    }
    return vec_All;
}

using Halve = std::vector<double> (*)(std::vector<double>, int, int);
std::vector<double> HalvePicture(const std::vector<double>& vec_Yuv, const Size& size, Halve halve)
{
    std::vector<double> vec_All;
    auto it = vec_Yuv.begin();
    for (int i = 0; i < 3; ++i) {
        const int nWidth = i == 0 ? size.nWidth : size.nWidth / 2;
        const int nHeight = i == 0 ? size.nHeight : size.nHeight / 2;
        const auto itEnd = it + static_cast<std::ptrdiff_t>(nWidth) * nHeight;
        const std::vector<double> vec_Half = halve({it, itEnd}, nWidth, nHeight);
        vec_All.insert(vec_All.end(), vec_Half.begin(), vec_Half.end());
        it = itEnd;
    }
    return vec_All;
}

std::vector<double> Rounded(std::vector<double> vec_Samples)
{
    for (double& d : vec_Samples) {
        d = std::clamp(std::round(d), 0.0, 255.0);
    }
    return vec_Samples;
}

double Psnr(const std::vector<std::uint8_t>& vec_Got, const std::vector<double>& vec_Reference)
{
    double dSquares = 0;
    for (std::size_t i = 0; i < vec_Reference.size(); ++i) {
        const double d = vec_Got[i] - vec_Reference[i];
        dSquares += d * d;
    }
    return 10 *
           std::log10(255 * 255 * static_cast<double>(vec_Reference.size()) / std::max(dSquares, 1e-9));
}

struct Reference {
    std::string szName;
    std::vector<double> vec_Samples;
};

void Measure(benchmark::State& state, const Conversion& c, const std::vector<double>& vec_Source,
             const std::vector<Reference>& vec_References)
{
    for ([[maybe_unused]] auto once : state) {
        Job job = Scale(c);
        AddRivals(job, c);
        std::transform(vec_Source.begin(), vec_Source.end(), job.pIn->Data(),
                       [](double d) { return static_cast<unsigned char>(d); });
        for (const Path& path : job.vec_Paths) {
            if (path.szName == "steps" || path.szName == "expert") {
                continue; // the library's bytes
            }
            std::fill_n(job.pOut->Data(), job.pOut->Size(), static_cast<unsigned char>(0));
            if (!path.Run(1)) {
                state.SkipWithError(path.szName.c_str());
                return;
            }
            for (const Reference& reference : vec_References) {
                state.counters[reference.szName + "_" + path.szName] =
                    Psnr(path.Result(), reference.vec_Samples);
            }
        }
    }
}

} // namespace

void AddRivals(Job& job, const Conversion& conversion)
{
    for (auto& path : {Libyuv(job, conversion), ZimgPath(job, conversion)}) {
        if (path) {
            job.vec_Paths.push_back(*path);
        }
    }
}

void RegisterQuality()
{
    const Size size{1920, 1080};
    const Size half{960, 540};
    const auto add = [](const char* szName, auto measure) {
        benchmark::RegisterBenchmark(szName, measure)->Iterations(1)->Unit(benchmark::kMillisecond);
    };
    add("quality/scale_half", [=](benchmark::State& state) {
        const std::vector<double> vec_Source = Rounded(ToYuv420(SceneRgb(size)));
        Measure(state, {AV_PIX_FMT_YUV420P, size, AV_PIX_FMT_YUV420P, half}, vec_Source,
                {{"area", HalvePicture(vec_Source, size, HalveByArea)},
                 {"lanczos", HalvePicture(vec_Source, size, HalveByLanczos)}});
    });
    add("quality/scale_double", [=](benchmark::State& state) {
        const std::vector<double> vec_Large = Rounded(ToYuv420(SceneRgb(size)));
        Measure(state, {AV_PIX_FMT_YUV420P, half, AV_PIX_FMT_YUV420P, size},
                Rounded(HalvePicture(vec_Large, size, HalveByArea)), {{"original", vec_Large}});
    });
    add("quality/scale_rgb24", [=](benchmark::State& state) {
        const Exact scene = SceneRgb(size);
        std::vector<double> vec_Packed;
        for (std::size_t k = 0; k < scene.vec_Planes[0].size(); ++k) {
            for (const std::vector<double>& vec_Plane : scene.vec_Planes) {
                vec_Packed.push_back(vec_Plane[k]);
            }
        }
        Measure(state, {AV_PIX_FMT_YUV420P, size, AV_PIX_FMT_RGB24, size}, Rounded(ToYuv420(scene)),
                {{"original", vec_Packed}});
    });
    add("quality/scale_gbrp", [=](benchmark::State& state) {
        const Exact scene = SceneRgb(size);
        std::vector<double> vec_Planar;
        for (const std::size_t i : {1U, 2U, 0U}) {
            vec_Planar.insert(vec_Planar.end(), scene.vec_Planes[i].begin(), scene.vec_Planes[i].end());
        }
        Measure(state, {AV_PIX_FMT_YUV420P, size, AV_PIX_FMT_GBRP, size}, Rounded(ToYuv420(scene)),
                {{"original", vec_Planar}});
    });
}

} // namespace bench
