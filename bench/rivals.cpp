#include "rivals.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libyuv/convert_argb.h>
#include <libyuv/scale.h>
#include <zimg.h>
}

namespace bench
{

namespace
{

struct Planes {
    Planes(AVPixelFormat format, jobs::Size size, const Buffer& buffer, int nAlign = 1)
    {
        av_image_fill_arrays(p, n, buffer.Data(), format, size.nWidth, size.nHeight, nAlign);
    }
    std::uint8_t* p[4]{};
    int n[4]{};
};

Path Libyuv(const Conversion& c, const Buffer& in, const Buffer& out)
{
    const Planes src(c.srcFormat, c.src, in);
    const Planes dst(c.dstFormat, c.dst, out);
    const auto scale = [=] {
        // The filter that takes all source pixels into account when it makes pictures smaller.
        return libyuv::I420Scale(src.p[0], src.n[0], src.p[1], src.n[1], src.p[2], src.n[2], c.src.nWidth,
                                 c.src.nHeight, dst.p[0], dst.n[0], dst.p[1], dst.n[1], dst.p[2], dst.n[2],
                                 c.dst.nWidth, c.dst.nHeight, libyuv::kFilterBox) == 0;
    };
    const auto convert = [=] {
        return libyuv::I420ToRAW(src.p[0], src.n[0], src.p[1], src.n[1], src.p[2], src.n[2], dst.p[0],
                                 dst.n[0], c.src.nWidth, c.src.nHeight) == 0;
    };
    return {"libyuv", c.dstFormat == AV_PIX_FMT_RGB24 ? Repeat(convert) : Repeat(scale), false};
}

constexpr int kZimgAlign = 64;

struct Zimg {
    explicit Zimg(const Conversion& c)
        : in(Padded(c.src)), out(Padded(c.dst)), src(c.srcFormat, c.src, in, kZimgAlign),
          dst(c.dstFormat, c.dst, out, kZimgAlign)
    {
        zimg_graph_builder_params st_Params;
        zimg_graph_builder_params_default(&st_Params, ZIMG_API_VERSION);
        st_Params.resample_filter = st_Params.resample_filter_uv = ZIMG_RESIZE_BILINEAR;
        st_Params.cpu_type = ZIMG_CPU_AUTO_64B;
        const zimg_image_format st_Src = Format(c.src);
        const zimg_image_format st_Dst = Format(c.dst);
        pGraph.reset(zimg_filter_graph_build(&st_Src, &st_Dst, &st_Params));
        std::size_t nScratch = 0;
        jobs::Demand(pGraph &&
                         zimg_filter_graph_get_tmp_size(pGraph.get(), &nScratch) == ZIMG_ERROR_SUCCESS,
                     "zimg");
        pScratch = std::make_unique<Buffer>(nScratch);
    }
    static std::size_t Padded(jobs::Size size)
    {
        return static_cast<std::size_t>(
            av_image_get_buffer_size(AV_PIX_FMT_YUV420P, size.nWidth, size.nHeight, kZimgAlign));
    }
    static zimg_image_format Format(jobs::Size size)
    {
        zimg_image_format st_Format;
        zimg_image_format_default(&st_Format, ZIMG_API_VERSION);
        st_Format.width = static_cast<unsigned>(size.nWidth);
        st_Format.height = static_cast<unsigned>(size.nHeight);
        st_Format.pixel_type = ZIMG_PIXEL_BYTE;
        st_Format.subsample_w = st_Format.subsample_h = 1;
        st_Format.color_family = ZIMG_COLOR_YUV;
        st_Format.chroma_location = ZIMG_CHROMA_CENTER;
        return st_Format;
    }
    bool Convert() const
    {
        zimg_image_buffer_const st_In{};
        zimg_image_buffer st_Out{};
        st_In.version = st_Out.version = ZIMG_API_VERSION;
        for (std::size_t i = 0; i < 3; ++i) {
            st_In.plane[i] = {src.p[i], src.n[i], ZIMG_BUFFER_MAX};
            st_Out.plane[i] = {dst.p[i], dst.n[i], ZIMG_BUFFER_MAX};
        }
        return zimg_filter_graph_process(pGraph.get(), &st_In, &st_Out, pScratch->Data(), nullptr, nullptr,
                                         nullptr, nullptr) == ZIMG_ERROR_SUCCESS;
    }

    struct Free {
        void operator()(zimg_filter_graph* p) const { zimg_filter_graph_free(p); }
    };
    Buffer in, out;
    Planes src, dst;
    std::unique_ptr<zimg_filter_graph, Free> pGraph;
    std::unique_ptr<Buffer> pScratch;
};

} // namespace

void AddRivals(Job& job, const Conversion& conversion, const std::shared_ptr<Buffer>& pIn)
{
    job.vec_Paths.push_back(Libyuv(conversion, *pIn, *job.pOut));
    if (conversion.dstFormat == AV_PIX_FMT_YUV420P) {
        auto pZimg = std::make_shared<Zimg>(conversion);
        job.vec_Paths.push_back({"zimg", Repeat([=] { return pZimg->Convert(); }), false});
    }
}

} // namespace bench
