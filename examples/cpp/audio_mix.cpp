/*
 * Mixes raw audio: mono files of 16-bit samples at 48 kHz become one stereo stream of the same kind.
 *
 *   audio_mix_cpp SECONDS DESCRIPTION OUT IN0 [IN1 ...]
 *   audio_mix_cpp 2.5 "[in0]pan=stereo|c0=c0[l];[in1]pan=stereo|c1=c0[r];[l][r]amix=normalize=0" \
 *                 out.s16 left.s16 right.s16
 *
 * DESCRIPTION is what "ffmpeg -filter_complex" takes, with the inputs named [in0], [in1] and so on, and
 * its last output without a name. Inputs that are shorter than SECONDS go on in silence.
 */
#include "files.hpp"

static void Run(const Arguments& args)
{
    constexpr int kRate = 48000;
    std::vector<std::ifstream> files;
    std::vector<telvane::AudioInput> inputs;
    for (std::size_t i = 3; i < args.size(); ++i) {
        inputs.push_back({"in" + std::to_string(files.size()), {AV_SAMPLE_FMT_S16, kRate, 1, 1024}});
        files.push_back(Open<std::ifstream>(args[i]));
    }
    telvane::AudioMixer mixer(inputs, args[1], telvane::AudioStream{AV_SAMPLE_FMT_S16, kRate, 2, 1024});
    auto out = Open<std::ofstream>(args[2]);
    std::vector<std::byte> inBlock(mixer.InputBytes());
    std::vector<std::byte> outBlock(mixer.OutputBytes());

    // Filters may hold samples back, so a second more than is asked for may have to be sent.
    const double fSeconds = std::stod(args[0]);
    if (!(fSeconds > 0 && fSeconds <= 36000)) {
        throw std::runtime_error("SECONDS must be more than 0 and at most 36000");
    }
    std::size_t nWanted = static_cast<std::size_t>(fSeconds * kRate) * 4;
    for (std::size_t nRounds = nWanted / 4 / 1024 + 1 + kRate / 1024; nRounds > 0 && nWanted > 0;
         --nRounds) {
        for (std::size_t i = 0; i < files.size(); ++i) {
            // An input that ends is sent on as silence: without it the others would wait for ever.
            Read(files[i], inBlock);
            mixer.Send(i, inBlock);
        }
        while (const auto received = mixer.Receive(outBlock)) {
            const std::size_t nUsed = std::min(received.bytes, nWanted);
            Write(out, std::span(outBlock).first(nUsed));
            nWanted -= nUsed;
        }
    }
    if (nWanted > 0) {
        throw std::runtime_error("the description gives less than SECONDS of sound");
    }
}

int main(int argc, char** argv)
{
    return Main(argc, argv, "SECONDS DESCRIPTION OUT IN0 [IN1 ...]", argc >= 5, Run);
}
