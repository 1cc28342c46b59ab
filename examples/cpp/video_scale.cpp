/*
 * Scales raw video: yuv420p pictures come out in another size as rgb24, three bytes per pixel.
 *
 *   video_scale_cpp IN WIDTH HEIGHT OUT OUT_WIDTH OUT_HEIGHT
 *   video_scale_cpp in.yuv 1280 720 out.rgb 854 480
 *
 * /dev/stdin and /dev/stdout serve as files too.
 */
#include "files.hpp"

static void Run(const Arguments& args)
{
    telvane::VideoScaler scaler({AV_PIX_FMT_YUV420P, std::stoi(args[1]), std::stoi(args[2])},
                                {AV_PIX_FMT_RGB24, std::stoi(args[4]), std::stoi(args[5])});
    auto in = Open<std::ifstream>(args[0]);
    auto out = Open<std::ofstream>(args[3]);
    std::vector<std::byte> inPicture(scaler.InputBytes());
    std::vector<std::byte> outPicture(scaler.OutputBytes());
    int nWritten = 0;
    for (; ReadPicture(in, inPicture); ++nWritten) {
        scaler.Scale(inPicture, outPicture);
        Write(out, outPicture);
    }
    std::cerr << "video_scale_cpp: " << nWritten << " pictures\n";
    if (nWritten == 0) {
        throw std::runtime_error("no picture came out");
    }
}

int main(int argc, char** argv)
{
    return Main(argc, argv, "IN WIDTH HEIGHT OUT OUT_WIDTH OUT_HEIGHT", argc == 7, Run);
}
