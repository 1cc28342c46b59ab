/*
 * Filters raw audio: interleaved 16-bit samples go through a filter chain.
 *
 *   audio_filter_cpp IN RATE CHANNELS FILTERS OUT
 *   audio_filter_cpp in.s16 48000 2 "highpass=f=200,aecho=0.8:0.6:250:0.3" out.s16
 *
 * FILTERS is what "ffmpeg -af" takes. /dev/stdin and /dev/stdout serve as files too.
 */
#include "files.hpp"

static void Run(const Arguments& args)
{
    auto in = Open<std::ifstream>(args[0]);
    telvane::AudioStream stream{AV_SAMPLE_FMT_S16, std::stoi(args[1]), std::stoi(args[2]), 1024};
    const std::size_t nSample = 2 * static_cast<std::size_t>(stream.channels);
    stream.length = Count(args[0], nSample);
    telvane::AudioFilter filter(stream, args[3]);
    auto out = Open<std::ofstream>(args[4]);
    std::vector<std::byte> inBlock(filter.InputBytes());
    std::vector<std::byte> outBlock(filter.OutputBytes());
    for (bool bMore = true; bMore;) {
        const std::size_t nRead = Read(in, inBlock);
        bMore = nRead == inBlock.size();
        // The last block is as short as the file says; of a pipe it is filled up with silence.
        const std::size_t nWhole = nRead / nSample * nSample;
        if (nWhole > 0) {
            filter.Send(std::span(inBlock).first(stream.length ? nWhole : inBlock.size()));
        }
        while (const auto received = filter.Receive(outBlock)) {
            Write(out, std::span(outBlock).first(received.bytes));
        }
    }
}

int main(int argc, char** argv)
{
    return Main(argc, argv, "IN RATE CHANNELS FILTERS OUT", argc == 6, Run);
}
