// Scaling over formats and awkward sizes: every result must be the picture that FFmpeg's scaler makes of the
// same tight source into rows with room to spare, and no byte outside the caller's buffers may be touched.
// A program of its own, so that valgrind can run a part of it.
#include "support/support.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <memory>
#include <string>

namespace
{

using test::Bytes;
using test::GuardedBuffer;

struct Size {
    int nWidth, nHeight;
    bool operator==(const Size&) const = default;
};

std::size_t TightSize(AVPixelFormat format, Size size)
{
    return static_cast<std::size_t>(av_image_get_buffer_size(format, size.nWidth, size.nHeight, 1));
}

// FFmpeg's scaler copies these sources first, and for the last sample of an odd width reads what lies behind
// its own copy: that sample differs from call to call.
bool IsRandom(AVPixelFormat srcFormat, Size src, AVPixelFormat dstFormat)
{
    const std::string szName = av_get_pix_fmt_name(srcFormat);
    const bool bOpaque = szName == "0rgb" || szName == "rgb0" || szName == "0bgr" || szName == "bgr0";
    const bool bToAlpha = (av_pix_fmt_desc_get(dstFormat)->flags & AV_PIX_FMT_FLAG_ALPHA) != 0;
    return src.nWidth % 2 != 0 && (szName.starts_with("xyz12") || (bOpaque && bToAlpha));
}

// A picture of noise, within what the format's samples can hold.
Bytes NoisePicture(AVPixelFormat format, Size size, unsigned nSeed)
{
    Bytes picture = test::Noise(TightSize(format, size), nSeed);
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

// The same conversion done here. Its rows and planes lie far apart and are zero at first, because some
// converters leave bytes of the picture unwritten.
class Reference
{
  public:
    Reference(AVPixelFormat srcFormat, Size src, AVPixelFormat dstFormat, Size dst)
        : m_src(src), m_dst(dst), m_dstFormat(dstFormat),
          m_pContext(sws_getContext(src.nWidth, src.nHeight, srcFormat, dst.nWidth, dst.nHeight, dstFormat,
                                    SWS_BILINEAR, nullptr, nullptr, nullptr),
                     sws_freeContext)
    {
        if (m_pContext) {
            m_source.resize(TightSize(srcFormat, src) + 64);
            av_image_fill_arrays(m_pSrc, m_nSrcStride, m_source.data(), srcFormat, src.nWidth, src.nHeight,
                                 1);
            const int n =
                av_image_alloc(m_pDst, m_nDstStride, dst.nWidth + 512, dst.nHeight + 8, dstFormat, 64);
            std::memset(m_pDst[0], 0, static_cast<std::size_t>(n));
        }
    }
    ~Reference() { av_freep(&m_pDst[0]); }
    Reference(const Reference&) = delete;
    Reference& operator=(const Reference&) = delete;

    bool Exists() const { return m_pContext != nullptr; }
    Bytes Scale(const Bytes& picture)
    {
        std::copy(picture.begin(), picture.end(), m_source.begin());
        EXPECT_GT(sws_scale(m_pContext.get(), m_pSrc, m_nSrcStride, 0, m_src.nHeight, m_pDst, m_nDstStride),
                  0);
        Bytes packed(TightSize(m_dstFormat, m_dst));
        av_image_copy_to_buffer(packed.data(), static_cast<int>(packed.size()), m_pDst, m_nDstStride,
                                m_dstFormat, m_dst.nWidth, m_dst.nHeight, 1);
        return packed;
    }

  private:
    Size m_src, m_dst;
    AVPixelFormat m_dstFormat;
    std::unique_ptr<SwsContext, void (*)(SwsContext*)> m_pContext;
    Bytes m_source;
    unsigned char* m_pSrc[4] = {};
    unsigned char* m_pDst[4] = {};
    int m_nSrcStride[4] = {};
    int m_nDstStride[4] = {};
};

// One handle for all conversions of a test, so that each set-up follows one of another format.
class ScaleSweep : public testing::TestWithParam<int>
{
  protected:
    void SetUp() override
    {
        av_log_set_level(AV_LOG_QUIET);
        ASSERT_TRUE(AVFilter_VideoScale_Init(&m_hScaler));
    }
    void TearDown() override { AVFilter_VideoScale_Destory(m_hScaler); }

    void Check(AVPixelFormat srcFormat, Size src, AVPixelFormat dstFormat, Size dst)
    {
        const bool bBayer = (av_pix_fmt_desc_get(srcFormat)->flags & AV_PIX_FMT_FLAG_BAYER) != 0;
        if (HasFailure() || IsRandom(srcFormat, src, dstFormat) || (bBayer && src.nHeight == 1)) {
            return; // FFmpeg's scaler fails on Bayer pictures of a single row
        }
        SCOPED_TRACE(testing::Message()
                     << av_get_pix_fmt_name(srcFormat) << ' ' << src.nWidth << 'x' << src.nHeight << " to "
                     << av_get_pix_fmt_name(dstFormat) << ' ' << dst.nWidth << 'x' << dst.nHeight);
        Reference reference(srcFormat, src, dstFormat, dst);
        EXPECT_EQ(AVFilter_VideoScale_Set(m_hScaler, srcFormat, src.nWidth, src.nHeight, dstFormat,
                                          dst.nWidth, dst.nHeight),
                  reference.Exists());
        if (HasFailure() || !reference.Exists()) {
            return;
        }
        GuardedBuffer out(TightSize(dstFormat, dst));
        // Some converters carry dither from picture to picture: the reference makes the same calls.
        for (const unsigned nSeed : {1U, 2U}) {
            const Bytes picture = NoisePicture(srcFormat, src, nSeed);
            GuardedBuffer in(picture.size());
            in.Assign(picture);
            in.Protect();
            int nOut = 1 << 30;
            EXPECT_TRUE(AVFilter_VideoScale_Fmt(m_hScaler, reinterpret_cast<const char*>(in.Data()),
                                                out.Data(), &nOut));
            EXPECT_EQ(static_cast<std::size_t>(nOut), out.Size());
            const Bytes scaled = reference.Scale(picture);
            EXPECT_TRUE(out.Copy() == (srcFormat == dstFormat && src == dst ? picture : scaled)) << nSeed;
        }
        ++m_nChecked;
    }

    unsigned long long m_hScaler = 0;
    int m_nChecked = 0;
};

std::vector<AVPixelFormat> Formats(int (*isSupported)(AVPixelFormat))
{
    std::vector<AVPixelFormat> formats;
    const AVPixFmtDescriptor* p = nullptr;
    while ((p = av_pix_fmt_desc_next(p)) != nullptr) {
        if (isSupported(av_pix_fmt_desc_get_id(p)) != 0) {
            formats.push_back(av_pix_fmt_desc_get_id(p));
        }
    }
    return formats;
}

constexpr int kWidths[] = {1,  2,  3,  5,  6,  7,  8,  9,  10, 12, 14, 15, 16,  17,  18,  20,
                           24, 30, 31, 33, 34, 40, 47, 48, 50, 63, 65, 68, 427, 720, 854, 1366};
constexpr int kHeights[] = {1, 2, 3, 4, 5, 7, 8};
constexpr int kSlices = 16;

// Every pair of formats, each at a size of its own that it keeps and at another that it changes.
TEST_P(ScaleSweep, EveryPairOfFormats)
{
    unsigned nPair = 0;
    for (const AVPixelFormat srcFormat : Formats(sws_isSupportedInput)) {
        for (const AVPixelFormat dstFormat : Formats(sws_isSupportedOutput)) {
            if (static_cast<int>(++nPair % kSlices) == GetParam()) {
                const Bytes random = test::Noise(6, nPair);
                const auto size = [&](std::size_t i) {
                    return Size{kWidths[random[i] % std::size(kWidths)],
                                kHeights[random[i + 1] % std::size(kHeights)]};
                };
                Check(srcFormat, size(0), dstFormat, size(0));
                Check(srcFormat, size(2), dstFormat, size(4));
            }
        }
    }
    EXPECT_GT(m_nChecked, 2000);
}
INSTANTIATE_TEST_SUITE_P(Slice, ScaleSweep, testing::Range(0, kSlices));

// The pairs that go wrong with tight pictures, and one of each kind of layout, at all widths, and at
// ordinary sizes whole.
TEST_F(ScaleSweep, CriticalPairs)
{
    for (const AVPixelFormat srcFormat :
         {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12, AV_PIX_FMT_YUV422P, AV_PIX_FMT_NV21, AV_PIX_FMT_YUVA420P,
          AV_PIX_FMT_P010LE, AV_PIX_FMT_RGB24, AV_PIX_FMT_PAL8, AV_PIX_FMT_BAYER_RGGB8, AV_PIX_FMT_BGRA}) {
        for (const AVPixelFormat dstFormat :
             {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGB24, AV_PIX_FMT_NV12, AV_PIX_FMT_BGR24, AV_PIX_FMT_NV21,
              AV_PIX_FMT_BGRA, AV_PIX_FMT_RGB565LE, AV_PIX_FMT_YUYV422, AV_PIX_FMT_P010LE, AV_PIX_FMT_RGBA,
              AV_PIX_FMT_RGB8, AV_PIX_FMT_GRAY8, AV_PIX_FMT_MONOBLACK}) {
            for (const int nWidth : kWidths) {
                Check(srcFormat, {nWidth, 4}, dstFormat, {nWidth, 4});
                Check(srcFormat, {50, 6}, dstFormat, {nWidth, 3});
            }
        }
    }
    EXPECT_GT(m_nChecked, 7000);
    for (const Size size : {Size{720, 576}, {854, 480}, {1366, 768}, {48, 16}}) {
        for (const AVPixelFormat dstFormat : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGB24, AV_PIX_FMT_BGRA}) {
            Check(AV_PIX_FMT_NV12, size, dstFormat, size);
            Check(AV_PIX_FMT_YUV420P, {640, 360}, dstFormat, size);
        }
    }
}

} // namespace
