/*
 * Filters raw video: yuv420p pictures go through a filter chain one by one and come out as yuv420p.
 *
 *   video_filter_cpp IN WIDTH HEIGHT RATE FILTERS OUT [OUT_WIDTH OUT_HEIGHT]
 *   video_filter_cpp in.yuv 1280 720 25 "hflip,eq=saturation=1.5" out.yuv
 *   video_filter_cpp in.yuv 1280 720 25 "crop=640:360" out.yuv 640 360
 *
 * FILTERS is what "ffmpeg -vf" takes. The pictures that come out have OUT_WIDTH and OUT_HEIGHT, or else
 * the input's size, and are scaled to it if need be. /dev/stdin and /dev/stdout serve as files too.
 */
#include "files.hpp"

static void Run(const Arguments& args)
{
    const telvane::Picture picture{AV_PIX_FMT_YUV420P, std::stoi(args[1]), std::stoi(args[2])};
    telvane::Picture outFormat = picture;
    if (args.size() == 8) {
        outFormat.width = std::stoi(args[6]);
        outFormat.height = std::stoi(args[7]);
    }
    const telvane::VideoStream stream{
        picture, {std::stoi(args[3])}, Count(args[0], telvane::PictureBytes(picture))};
    telvane::VideoFilter filter(stream, args[4], outFormat);
    auto in = Open<std::ifstream>(args[0]);
    auto out = Open<std::ofstream>(args[5]);
    std::vector<std::byte> inPicture(filter.InputBytes());
    std::vector<std::byte> outPicture(filter.OutputBytes());
    int nRead = 0;
    int nWritten = 0;
    for (; ReadPicture(in, inPicture); ++nRead) {
        filter.Send(inPicture);
        for (; filter.Receive(outPicture); ++nWritten) {
            Write(out, outPicture);
        }
    }
    std::cerr << "video_filter_cpp: " << nRead << " pictures in, " << nWritten << " out\n";
    if (nWritten == 0) {
        throw std::runtime_error("no picture came out");
    }
}

int main(int argc, char** argv)
{
    return Main(argc, argv, "IN WIDTH HEIGHT RATE FILTERS OUT [OUT_WIDTH OUT_HEIGHT]",
                argc == 7 || argc == 9, Run);
}
