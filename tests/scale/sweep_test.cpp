// Scaling over formats and awkward sizes: every result must be the picture that FFmpeg's scaler makes of the
// same tight source into rows with room to spare, and no byte outside the caller's buffers may be touched.
// A program of its own, so that valgrind can run a part of it.
#include "support/support.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/mem.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <string>

namespace
{

using namespace test;

struct Size {
    int nWidth, nHeight;
    bool operator==(const Size&) const = default;
};

struct Conversion {
    AVPixelFormat srcFormat, dstFormat;
    Size src, dst;
};

std::size_t TightSize(AVPixelFormat format, Size size)
{
    return static_cast<std::size_t>(av_image_get_buffer_size(format, size.nWidth, size.nHeight, 1));
}

// FFmpeg's scaler copies the first two kinds of sources and for the last sample of an odd width reads what lies
// behind its own copy; from Bayer pictures version 6 makes a last row of memory that it never wrote. On Bayer
// pictures of a single row it fails or aborts.
bool IsLeftOut(const Conversion& st)
{
    const std::string szSrc = av_get_pix_fmt_name(st.srcFormat);
    const bool bOpaque = szSrc == "0rgb" || szSrc == "rgb0" || szSrc == "0bgr" || szSrc == "bgr0";
    const bool bToAlpha = (av_pix_fmt_desc_get(st.dstFormat)->flags & AV_PIX_FMT_FLAG_ALPHA) != 0;
    const bool bUnwritten = LIBSWSCALE_VERSION_MAJOR == 7 && st.dstFormat == AV_PIX_FMT_YUVJ420P;
    return (st.src.nWidth % 2 != 0 && (szSrc.starts_with("xyz12") || (bOpaque && bToAlpha))) ||
           (szSrc.starts_with("bayer") && (bUnwritten || st.src.nHeight == 1));
}

// How many bytes of the source the result starts with. FFmpeg 9 means to copy the colour planes between
// gbrp10le and gbrap10le, and copies halves of them; the same with more bits.
std::size_t CopiedSize(const Conversion& st)
{
    const std::string szSrc = av_get_pix_fmt_name(st.srcFormat), szDst = av_get_pix_fmt_name(st.dstFormat);
    const bool bColours = LIBSWSCALE_VERSION_MAJOR >= 9 && szSrc.ends_with("le") &&
                          std::min(szSrc, szDst) == "gbra" + std::max(szSrc, szDst).substr(3) &&
                          szSrc.find('f') == std::string::npos;
    const bool bCopied = st.src == st.dst && (szSrc == szDst || bColours);
    return bCopied ? std::min(TightSize(st.srcFormat, st.src), TightSize(st.dstFormat, st.dst)) : 0;
}

// A picture of noise, within what the format's samples can hold.
Bytes NoisePicture(AVPixelFormat format, Size size, unsigned nSeed)
{
    Bytes picture = Noise(TightSize(format, size), nSeed);
    const AVPixFmtDescriptor& st_Format = *av_pix_fmt_desc_get(format);
    const bool bBigEndian = (st_Format.flags & AV_PIX_FMT_FLAG_BE) != 0;
    const bool bFloat = (st_Format.flags & AV_PIX_FMT_FLAG_FLOAT) != 0;
    const int nDepth = st_Format.comp[0].depth;
    const unsigned nMask = ((1U << (nDepth % 32)) - 1) << st_Format.comp[0].shift;
    for (std::size_t i = 0; i < picture.size(); ++i) {
        if (bFloat && i % 4 == (bBigEndian ? 0 : 3)) {
            picture[i] = 0x3E; // between 1/8 and 1/2
        } else if (!bFloat && nDepth > 8 && nDepth < 16) {
            picture[i] &= static_cast<unsigned char>((i % 2 == 0) == bBigEndian ? nMask >> 8 : nMask);
        }
    }
    return picture;
}

// FFmpeg's scaler on its own. Rows and planes of the result lie far apart, rows for three bytes a pixel at least,
// and are zero at first, because some converters leave bytes of the picture unwritten.
Bytes Scale(SwsContext* pContext, const Conversion& st, const Bytes& picture)
{
    Bytes source(picture), packed(TightSize(st.dstFormat, st.dst));
    source.resize(picture.size() + 64);
    unsigned char *pSrc[4] = {}, *pDst[4] = {};
    int nSrcStride[4] = {}, nDstStride[4] = {};
    av_image_fill_arrays(pSrc, nSrcStride, source.data(), st.srcFormat, st.src.nWidth, st.src.nHeight, 1);
    const int nSize =
        av_image_alloc(pDst, nDstStride, 3 * st.dst.nWidth + 512, st.dst.nHeight + 8, st.dstFormat, 64);
    std::memset(pDst[0], 0, static_cast<std::size_t>(nSize));
    EXPECT_GT(sws_scale(pContext, pSrc, nSrcStride, 0, st.src.nHeight, pDst, nDstStride), 0);
    av_image_copy_to_buffer(packed.data(), static_cast<int>(packed.size()), pDst, nDstStride, st.dstFormat,
                            st.dst.nWidth, st.dst.nHeight, 1);
    av_freep(&pDst[0]);
    return packed;
}

// One handle for all conversions of a test, so that each set-up follows one of another format.
struct ScaleSweep : testing::TestWithParam<int> {
    void SetUp() override { ASSERT_TRUE(AVFilter_VideoScale_Init(&m_hScaler)); }
    void TearDown() override { AVFilter_VideoScale_Destory(m_hScaler); }

    void Check(const Conversion& st)
    {
        if (HasFailure() || IsLeftOut(st)) {
            return;
        }
        SCOPED_TRACE(testing::Message() << av_get_pix_fmt_name(st.srcFormat) << ' ' << st.src.nWidth << 'x'
                                        << st.src.nHeight << " to " << av_get_pix_fmt_name(st.dstFormat)
                                        << ' ' << st.dst.nWidth << 'x' << st.dst.nHeight);
        SwsContext* const pContext =
            sws_getContext(st.src.nWidth, st.src.nHeight, st.srcFormat, st.dst.nWidth, st.dst.nHeight,
                           st.dstFormat, SWS_BILINEAR, nullptr, nullptr, nullptr);
        ASSERT_EQ(AVFilter_VideoScale_Set(m_hScaler, st.srcFormat, st.src.nWidth, st.src.nHeight,
                                          st.dstFormat, st.dst.nWidth, st.dst.nHeight),
                  pContext != nullptr);
        // Some converters carry dither from picture to picture: both sides make the same calls.
        for (unsigned nSeed = 1; pContext != nullptr && nSeed <= 2; ++nSeed) {
            const Bytes picture = NoisePicture(st.srcFormat, st.src, nSeed);
            GuardedBuffer in(picture.size()), out(TightSize(st.dstFormat, st.dst));
            in.Assign(picture);
            in.Protect();
            int nOut = 1 << 30;
            const auto* const pIn = reinterpret_cast<const char*>(in.Data());
            EXPECT_TRUE(AVFilter_VideoScale_Fmt(m_hScaler, pIn, out.Data(), &nOut));
            Bytes scaled = Scale(pContext, st, picture);
            std::copy_n(picture.begin(), CopiedSize(st), scaled.begin());
            EXPECT_TRUE(out.Copy() == scaled && static_cast<std::size_t>(nOut) == out.Size()) << nSeed;
        }
        m_nChecked += pContext != nullptr ? 1 : 0;
        sws_freeContext(pContext);
    }

    unsigned long long m_hScaler = 0;
    int m_nChecked = 0;
};

constexpr int kWidths[] = {1,  2,  3,  5,  6,  7,  8,  9,  10, 12, 14, 15, 16,  17,  18,  20,  24,
                           30, 31, 33, 34, 40, 47, 48, 50, 63, 65, 68, 82, 427, 720, 850, 1366};
constexpr int kHeights[] = {1, 2, 3, 4, 5, 7, 8}, kSlices = 16;

// Every pair of formats, each at a size of its own that it keeps and at another that it changes.
TEST_P(ScaleSweep, EveryPairOfFormats)
{
    for (int nPair = 0; nPair < AV_PIX_FMT_NB * AV_PIX_FMT_NB; ++nPair) {
        const auto src = static_cast<AVPixelFormat>(nPair / AV_PIX_FMT_NB);
        const auto dst = static_cast<AVPixelFormat>(nPair % AV_PIX_FMT_NB);
        if (nPair % kSlices == GetParam() && sws_isSupportedInput(src) != 0 &&
            sws_isSupportedOutput(dst) != 0) {
            const Bytes n = Noise(6, static_cast<unsigned>(nPair));
            const auto size = [&n](std::size_t i) {
                return Size{kWidths[n[i] % std::size(kWidths)], kHeights[n[i + 1] % std::size(kHeights)]};
            };
            Check({src, dst, size(0), size(0)});
            Check({src, dst, size(2), size(4)});
        }
    }
    EXPECT_GT(m_nChecked, 2000);
}
INSTANTIATE_TEST_SUITE_P(Slice, ScaleSweep, testing::Range(0, kSlices));

// The pairs that go wrong with tight pictures, or with FFmpeg 7 or 9, and one of each kind of layout, at all
// widths; and at ordinary sizes whole.
TEST_F(ScaleSweep, CriticalPairs)
{
    for (const char* szSrc : {"yuv420p", "nv12", "yuv422p", "nv21", "yuva420p", "p010le", "rgb24", "pal8",
                              "bayer_rggb8", "bgra", "gbrp10le", "gbrap16le"}) {
        for (const char* szDst :
             {"yuv420p", "rgb24", "nv12", "bgr24", "nv21", "bgra", "rgb565le", "yuyv422", "p010le", "rgba",
              "rgb8", "gray", "monob", "gbrp", "gbrap10le", "gbrp16le"}) {
            for (const int nWidth : kWidths) {
                const AVPixelFormat src = av_get_pix_fmt(szSrc), dst = av_get_pix_fmt(szDst);
                Check({src, dst, {nWidth, 4}, {nWidth, 4}});
                Check({src, dst, {50, 6}, {nWidth, 3}});
            }
        }
    }
    EXPECT_GT(m_nChecked, 12000);
    for (const Size size : {Size{720, 576}, {854, 480}, {1366, 768}, {48, 16}}) {
        for (const AVPixelFormat dst : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGB24, AV_PIX_FMT_GBRP}) {
            Check({AV_PIX_FMT_NV12, dst, size, size});
            Check({AV_PIX_FMT_YUV420P, dst, {640, 360}, size});
        }
    }
}

} // namespace
