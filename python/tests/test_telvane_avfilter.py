import ctypes
import gc
import pathlib
import re
import sys
import threading
import unittest

import numpy as np

import telvane_avfilter as telvane
from telvane_avfilter import (
    Audio,
    AudioFilter,
    AudioMixer,
    Error,
    Picture,
    VideoFilter,
    VideoMixer,
    VideoScaler,
)
from telvane_avfilter import _library

HEADER = pathlib.Path(__file__).resolve().parents[2] / "include" / "Telvane_AVFilter.h"


def ramp(height, width, *channels):
    """A smooth picture whose channels differ."""
    plane = np.add.outer(2 * np.arange(height), np.arange(width))
    if not channels:
        return (plane % 200).astype(np.uint8)
    return (plane[..., None] // np.array([4, 6, 8, 10][: channels[0]]) + 20).astype(np.uint8)


class WholeArrays(unittest.TestCase):
    def test_a_mix_is_the_sum(self):
        for dtype in (np.int16, np.int32, np.float32, np.float64):
            for shape in ((3000,), (3000, 2)):
                a = (
                    (np.arange(np.prod(shape)) % 999 - 499).reshape(shape)
                    / (1 if dtype(0.5) == 0 else 1024)
                ).astype(dtype)
                b = (2 * a[:1500]).astype(dtype)
                expected = a.copy()
                expected[:1500] += b
                mixed = telvane.mix_audio([a, b], 8000)
                self.assertEqual(mixed.dtype, dtype)
                np.testing.assert_array_equal(mixed, expected)

    def test_audio_is_filtered_and_tails_come_out(self):
        tone = np.zeros((4800, 1), np.float32)
        tone[0] = 0.5
        echo = telvane.filter_audio(tone, 48000, "aecho=1:1:100:0.5", samples=9600)
        self.assertEqual(echo.shape, (9600, 1))
        self.assertEqual(np.flatnonzero(echo).tolist(), [0, 4800])
        np.testing.assert_allclose(echo[[0, 4800], 0], [0.5, 0.25])
        self.assertEqual(telvane.filter_audio(tone[:, 0], 48000, "areverse").shape, (0,))
        ones = np.ones(3000, np.int16)
        np.testing.assert_array_equal(telvane.filter_audio(ones, 8000, "asetnsamples=n=9000"), ones)
        endless = telvane.filter_audio(ones, 8000, "[in]anullsink;sine=440:r=8000")
        self.assertEqual((endless.shape, np.ptp(endless) > 1000), ((3000,), True))
        silence = telvane.filter_audio(np.full(100, 9, np.uint8), 8000, "anull", samples=500)
        np.testing.assert_array_equal(silence, [9] * 100 + [128] * 400)

    def test_a_picture_is_filtered_in_every_format_and_size(self):
        for shape in ((32, 48, 3), (33, 49, 3), (33, 48, 4), (1, 1, 3), (32, 48), (31, 47)):
            picture = ramp(*shape)
            if shape[2:] == (4,):
                picture[..., 3] = 255
            mirrored = telvane.filter_picture(picture, "hflip")
            self.assertEqual(mirrored.shape, picture.shape)
            difference = np.abs(mirrored.astype(int) - picture[:, ::-1])
            self.assertLessEqual(difference.max(), 8, shape)
        red = np.full((33, 49, 3), (230, 20, 60), np.uint8)
        self.assertLessEqual(np.abs(telvane.filter_picture(red, "null").astype(int) - red).max(), 3)
        turned = telvane.filter_picture(ramp(20, 60, 3), "transpose", size=(20, 60))
        self.assertEqual(turned.shape, (60, 20, 3))


class Streams(unittest.TestCase):
    def test_no_description_can_enlarge_what_comes_out(self):
        picture = ramp(32, 48, 3)
        for description in (
            "scale=640:480",
            "[in]scale=640:480[out]",
            "pad=1000:1000,format=rgba",
            "tile=4x4,loop=9:9",
        ):
            with VideoFilter(Picture.of(picture), description) as graph:
                for _ in range(16):
                    graph.send(picture)
                self.assertEqual(
                    {out.shape for _, out in zip(range(20), graph.received())}, {picture.shape}
                )
        stream = Audio(8000, 2, 100)
        for description in (
            "asetnsamples=n=10000",
            "aresample=96000,aformat=sample_fmts=dblp",
            "pan=8c|c0=c0|c7=c1",
        ):
            with AudioFilter(stream, description) as graph:
                for _ in range(200):
                    graph.send(np.ones((100, 2), np.int16))
                self.assertEqual({out.shape for out in graph.received()}, {(100, 2)})

    def test_descriptions_that_reach_for_the_end_are_refused(self):
        for description in (
            "hflip[telvane_out]",
            "hflip[telvane\\_out]",
            "a'send'cmd",
            "zmq,hflip",
            "",
            " ",
            "hflip\0",
        ):
            with self.assertRaises(ValueError, msg=description):
                VideoFilter(Picture(32, 32), description)
        for description in (
            "hflip;",
            "hflip'",
            "[in]split[out]",
            "hflip[out][x]",
            "[in]hflip[out];nullsrc[out]",
        ):
            with self.assertRaises(Error, msg=description):
                VideoFilter(Picture(32, 32), description)

    def test_mixes_name_their_inputs_and_wait_for_all(self):
        with VideoMixer(
            {"left": Picture(16, 8, "yuv420p"), "right": Picture(16, 8, "gray")},
            "[left][right]hstack",
            Picture(32, 8, "yuv420p"),
        ) as mixer:
            mixer.send("left", np.full(16 * 8 * 3 // 2, 70, np.uint8))
            self.assertIsNone(mixer.receive())
            mixer.send("right", np.full((8, 16), 255, np.uint8))
            out = mixer.receive()
            self.assertEqual(out.shape, (32 * 8 * 3 // 2,))
            np.testing.assert_array_equal(
                out[: 32 * 8].reshape(8, 32)[:, [0, 15, 16, 31]], [[70, 70, 235, 235]] * 8
            )
            with self.assertRaisesRegex(ValueError, "middle"):
                mixer.send("middle", out)

    def test_inputs_are_checked_and_never_written_to(self):
        stream = Picture(16, 16)
        picture = ramp(16, 16, 3)
        picture.flags.writeable = False
        kept = picture.copy()
        with VideoFilter(stream, "negate,drawbox") as graph:
            for wrong in (picture[:15], picture[..., 0], picture.astype(np.int16), picture.reshape(-1)):
                with self.assertRaises(ValueError):
                    graph.send(wrong)
            self.assertIsNone(graph.receive())
            graph.send(picture)
            self.assertIsNotNone(graph.receive())
        np.testing.assert_array_equal(picture, kept)
        with AudioMixer({"a": Audio(8000, 2, 64)}, "[a]anull") as mixer:
            for wrong in (
                np.zeros(64, np.int16),
                np.zeros((65, 2), np.int16),
                np.zeros((64, 2), np.float32),
            ):
                with self.assertRaises(ValueError):
                    mixer.send("a", wrong)

    def test_scaling(self):
        picture = ramp(16, 32, 3)
        with VideoScaler(Picture(32, 16), Picture(32, 16, "bgr24")) as scaler:
            np.testing.assert_array_equal(scaler.scale(picture), picture[..., ::-1])
            np.testing.assert_array_equal(scaler.scale(picture[::-1]), picture[::-1, :, ::-1])
        with VideoScaler(Picture(32, 16), Picture(64, 48)) as scaler:
            flat = scaler.scale(np.full((16, 32, 3), 77, np.uint8))
            self.assertEqual(flat.shape, (48, 64, 3))
            self.assertLessEqual(np.abs(flat.astype(int) - 77).max(), 1)


class Library(unittest.TestCase):
    def test_codes_and_records_are_those_of_the_header(self):
        text = HEADER.read_text()
        codes = {
            int(value, 16): name
            for name, value in re.findall(r"#define (AVFILTER_ERROR_\w+) (0x\w+)", text)
        }
        self.assertEqual(_library.CODES, codes)
        version = re.findall(r"#define TELVANE_AVFILTER_VERSION_M?P?A\w+ (\d+)|VERSION_MINOR (\d+)", text)
        self.assertEqual(telvane.__version__, ".".join("".join(part) for part in version))
        self.assertEqual((ctypes.sizeof(_library.AudioInfo), ctypes.sizeof(_library.VideoInfo)), (88, 84))

    def test_errors_carry_code_and_name(self):
        with self.assertRaises(Error) as caught:
            AudioFilter(Audio(8000), "nosuchfilter")
        self.assertEqual(
            (caught.exception.code, caught.exception.name), (0x80F0004, "AVFILTER_ERROR_AUDIO_PARSE_GRAPH")
        )
        with self.assertRaisesRegex(Error, "AVFILTER_ERROR_VIDEO_CONFIG_GRAPH"):
            VideoFilter(Picture(32, 32), "crop=100:100")

    def test_handles_are_released_once(self):
        def alive(handle):
            block = np.zeros(64, np.int16)
            return _library.library.AVFilter_Audio_MIXSend(handle, 0, block.ctypes.data, block.nbytes)

        mixer = AudioFilter(Audio(8000, 1, 64), "anull")
        handle = mixer._handle
        self.assertTrue(alive(handle))
        with mixer:
            pass
        mixer.close()
        self.assertFalse(alive(handle))
        with self.assertRaisesRegex(ValueError, "closed"):
            mixer.receive()
        mixer = AudioFilter(Audio(8000, 1, 64), "anull")
        handle = mixer._handle
        del mixer
        gc.collect()
        self.assertFalse(alive(handle))

    def test_threads_on_objects_of_their_own(self):
        failures = []

        def work(number):
            samples = np.full(20000, number, np.int16)
            if not (telvane.filter_audio(samples, 8000, "volume=2:precision=fixed") == 2 * number).all():
                failures.append(number)

        threads = [threading.Thread(target=work, args=(number,)) for number in range(1, 9)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(failures, [])


if __name__ == "__main__":
    sys.exit(unittest.main())
