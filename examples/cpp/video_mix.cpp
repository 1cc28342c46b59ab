/*
 * Mixes raw video: two streams of yuv420p pictures become one.
 *
 *   video_mix_cpp IN0 WIDTH0 HEIGHT0 IN1 WIDTH1 HEIGHT1 RATE DESCRIPTION OUT OUT_WIDTH OUT_HEIGHT
 *   video_mix_cpp a.yuv 1280 720 b.yuv 480 360 25 "[in1]scale=320:-2[small];[in0][small]overlay=20:20" \
 *                 out.yuv 1280 720
 *
 * DESCRIPTION is what "ffmpeg -filter_complex" takes, with the inputs named [in0] and [in1], and its last
 * output without a name. As many pictures are sent as IN0 has; where IN1 is shorter its last one stands.
 */
#include "files.hpp"

static void Run(const Arguments& args)
{
    const int nRate = std::stoi(args[6]);
    const auto picture = [&](std::size_t i) {
        return telvane::Picture{AV_PIX_FMT_YUV420P, std::stoi(args[i]), std::stoi(args[i + 1])};
    };
    const telvane::Picture outFormat{AV_PIX_FMT_YUV420P, std::stoi(args[9]), std::stoi(args[10])};
    telvane::VideoMixer mixer({{"in0", {picture(1), {nRate}}}, {"in1", {picture(4), {nRate}}}}, args[7],
                              outFormat);
    auto in0 = Open<std::ifstream>(args[0]);
    auto in1 = Open<std::ifstream>(args[3]);
    auto out = Open<std::ofstream>(args[8]);
    std::vector<std::byte> picture0(mixer.InputBytes(0));
    std::vector<std::byte> picture1(mixer.InputBytes(1));
    std::vector<std::byte> next1(mixer.InputBytes(1));
    std::vector<std::byte> outPicture(mixer.OutputBytes());
    int nSent = 0;
    int nWritten = 0;
    for (; ReadPicture(in0, picture0); ++nSent) {
        if (ReadPicture(in1, next1)) {
            picture1.swap(next1);
        } else if (nSent == 0) {
            throw std::runtime_error("IN1 is empty");
        }
        mixer.Send(0, picture0);
        mixer.Send(1, picture1);
        for (; mixer.Receive(outPicture); ++nWritten) {
            Write(out, outPicture);
        }
    }
    std::cerr << "video_mix_cpp: " << nSent << " pictures in, " << nWritten << " out\n";
    if (nWritten == 0) {
        throw std::runtime_error("no picture came out");
    }
}

int main(int argc, char** argv)
{
    return Main(argc, argv,
                "IN0 WIDTH0 HEIGHT0 IN1 WIDTH1 HEIGHT1 RATE DESCRIPTION OUT OUT_WIDTH OUT_HEIGHT",
                argc == 12, Run);
}
