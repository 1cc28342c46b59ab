// A C++20 program that knows the installed library through find_package alone: the C++ layer at work.
#include <Telvane_AVFilter.hpp>

#include <cstdio>
#include <vector>

namespace
{

bool SideBySide()
{
    const telvane::VideoStream stream{{AV_PIX_FMT_YUV420P, 32, 16}, 25};
    telvane::VideoMixer mixer({{"left", stream}, {"right", stream}}, "[left][right]hstack", {64, 16});
    const std::vector<unsigned char> dark(mixer.InputBytes(0), 40);
    const std::vector<unsigned char> bright(mixer.InputBytes(1), 200);
    std::vector<unsigned char> both(mixer.OutputBytes());

    mixer.Send(0, std::as_bytes(std::span(dark)));
    if (mixer.Receive(std::as_writable_bytes(std::span(both)))) {
        return false; // the right picture has not been sent
    }
    mixer.Send(1, std::as_bytes(std::span(bright)));
    if (mixer.Receive(std::as_writable_bytes(std::span(both))) != both.size()) {
        return false;
    }
    for (std::size_t i = 0; i < std::size_t{64} * 16; ++i) {
        if (both[i] != (i % 64 < 32 ? 40 : 200)) {
            return false;
        }
    }
    return true;
}

bool CannotOverrun()
{
    const telvane::AudioStream stream{AV_SAMPLE_FMT_FLT, 48000, 1, 64};
    telvane::AudioFilter filter(stream, "aresample=96000,volume=2"); // doubles the samples
    const std::vector<float> in(64, 0.25F);
    std::vector<float> out(64);

    filter.Send(std::as_bytes(std::span(in)));
    filter.Send(std::as_bytes(std::span(in)));
    try {
        // One float short.
        static_cast<void>(filter.Receive(std::as_writable_bytes(std::span(out).first(63))));
    } catch (const telvane::Error& error) {
        return error.code().value() == AVFILTER_ERROR_AUDIO_INVALID_PARAM;
    }
    return false;
}

bool Check(const char* szWhat, bool bHolds)
{
    std::printf("%s: %s\n", bHolds ? "ok" : "FAILED", szWhat);
    return bHolds;
}

} // namespace

int main()
{
    const bool bMixed = Check("C++: two pictures side by side", SideBySide());
    const bool bBound = Check("C++: a buffer too short is refused", CannotOverrun());
    return bMixed && bBound ? 0 : 1;
}
