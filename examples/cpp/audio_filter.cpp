/*
 * Filters raw audio: interleaved 16-bit samples go through a filter chain, as many come out as go in.
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
    telvane::AudioFilter filter({AV_SAMPLE_FMT_S16, std::stoi(args[1]), std::stoi(args[2]), 1024}, args[3]);
    auto out = Open<std::ofstream>(args[4]);
    std::vector<std::byte> inBlock(filter.InputBytes());
    std::vector<std::byte> outBlock(filter.OutputBytes());

    // The end cannot be signalled: silence pushes out what the filters still hold.
    long long nPending = 0; // bytes read and not yet written
    int nSilentBlocks = 0;
    for (bool bEnd = false; !bEnd || (nPending > 0 && nSilentBlocks++ < 500);) {
        const std::size_t nRead = Read(in, inBlock);
        bEnd = nRead < inBlock.size();
        nPending += static_cast<long long>(nRead);
        filter.Send(inBlock);
        while (const auto nSize = filter.Receive(outBlock)) {
            const auto nOut = static_cast<long long>(*nSize);
            const long long nUsed = bEnd ? std::clamp(nPending, 0LL, nOut) : nOut;
            Write(out, std::span(outBlock).first(static_cast<std::size_t>(nUsed)));
            nPending -= nUsed;
        }
    }
    if (nPending > 0) {
        std::cerr << "audio_filter_cpp: the output is " << nPending << " bytes shorter than the input\n";
    }
}

int main(int argc, char** argv)
{
    return Main(argc, argv, "IN RATE CHANNELS FILTERS OUT", argc == 6, Run);
}
