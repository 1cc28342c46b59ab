"""A picture in, a picture out: python3 picture.py IN.ppm OUT.ppm [DESCRIPTION]"""

import sys

import numpy as np

from telvane_avfilter import filter_picture


def read_ppm(path):
    with open(path, "rb") as file:
        magic, width, height, largest = file.readline(), *file.readline().split(), file.readline()
        if magic.strip() != b"P6" or largest.strip() != b"255":
            raise SystemExit(f"{path}: not a plain 8-bit PPM")
        return np.frombuffer(file.read(), np.uint8).reshape(int(height), int(width), 3)


def write_ppm(path, picture):
    with open(path, "wb") as file:
        file.write(b"P6\n%d %d\n255\n" % (picture.shape[1], picture.shape[0]))
        file.write(picture.tobytes())


if __name__ == "__main__":
    description = sys.argv[3] if len(sys.argv) > 3 else "unsharp=5:5:1.2,vignette"
    write_ppm(sys.argv[2], filter_picture(read_ppm(sys.argv[1]), description))
