"""Two recordings into one, the second at a third: python3 mix.py A.wav B.wav OUT.wav

Both are 16-bit WAV files of one rate and number of channels, for example those of Debian's alsa-utils.
"""

import sys
import wave

import numpy as np

from telvane_avfilter import mix_audio


def read_wav(path):
    with wave.open(path) as file:
        if file.getsampwidth() != 2:
            raise SystemExit(f"{path}: not 16 bit")
        samples = np.frombuffer(file.readframes(file.getnframes()), "<i2").reshape(-1, file.getnchannels())
        return samples.astype(np.int16), file.getframerate()


def write_wav(path, samples, rate):
    with wave.open(path, "wb") as file:
        file.setparams((samples.shape[1], 2, rate, len(samples), "NONE", ""))
        file.writeframes(samples.astype("<i2").tobytes())


if __name__ == "__main__":
    (a, rate), (b, rate_b) = read_wav(sys.argv[1]), read_wav(sys.argv[2])
    if rate != rate_b or a.shape[1] != b.shape[1]:
        raise SystemExit("the two differ in rate or channels")
    mixed = mix_audio(
        {"a": a, "b": b}, rate, "[b]volume=1/3[quiet];[a][quiet]amix=inputs=2:normalize=0,alimiter=level=0"
    )
    write_wav(sys.argv[3], mixed, rate)
    print(f"{len(mixed) / rate:.2f} s, loudest sample {np.abs(mixed.astype(int)).max()}")
