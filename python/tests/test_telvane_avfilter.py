import gc
import os
import pickle
import sys
import threading
import time
import unittest
from fractions import Fraction

import numpy as np

import telvane_avfilter as telvane
from telvane_avfilter import Audio, AudioFilter, AudioMixer, Error, Picture, VideoFilter, VideoMixer, VideoScaler


def noise(dtype, *shape):
    values = np.random.default_rng(sum(shape)).uniform(-0.9, 0.9, shape)
    limits = None if np.dtype(dtype).kind == "f" else np.iinfo(dtype)
    return (values if limits is None else limits.min + (values + 1) / 2 * (limits.max - limits.min)).astype(dtype)


class Arrays(unittest.TestCase):
    def test_sounds_keep_type_shape_and_length(self):
        for dtype in ("u1", "i2", "i4", "f4", "f8"):
            for shape in ((5001,), (5001, 1), (5001, 2)):
                a, b = noise(dtype, *shape), noise(dtype, 1500, *shape[1:])
                for out, expected in (
                    (telvane.filter_audio(a, 8000, "areverse"), a[::-1]),
                    (telvane.filter_audio(a, 8000, "atrim=0.1:0.2,asetpts=PTS+SR"), a[800:1600]),
                    (telvane.mix_audio({"a": a, "b": b}, 8000, "[b][a]concat=v=0:a=1"), np.concatenate([b, a])),
                ):
                    np.testing.assert_array_equal(out, expected, f"{dtype} {shape}", strict=True)

    def test_pictures_stay_themselves_and_turn_in_any_memory(self):
        for dtype in ("u1", "u2"):
            for shape in ((1, 1), (23, 37), (23, 37, 2), (23, 37, 3), (22, 38, 4)):
                picture = noise(dtype, *shape)
                picture.flags.writeable = False
                np.testing.assert_array_equal(telvane.filter_picture(picture, "null"), picture)
                np.testing.assert_array_equal(telvane.filter_picture(picture[::-1], "vflip"), picture)
        self.assertEqual(telvane.filter_picture(picture, "transpose", (22, 38)).shape, (38, 22, 4))
        for name in ("yuv420p", "nv12", "gbrp", "yuva422p10le", "rgb48le"):
            stream = Picture(38, 23, name, Fraction(30000, 1001), length=3)
            pictures = noise("u1", 3, *stream._shape).astype(stream._dtype)
            with VideoFilter(stream, "reverse") as graph:
                for picture in pictures:
                    graph.send(picture)
                np.testing.assert_array_equal(list(graph.received()), pictures[::-1], name)
                self.assertTrue(graph.ended)
        np.testing.assert_array_equal(telvane.filter_video(pictures, "reverse", stream.rate), pictures[::-1])
        with VideoScaler(Picture(38, 22), Picture(38, 22, "bgr24")) as scaler:
            picture = noise("u1", 22, 38, 3)
            np.testing.assert_array_equal(scaler.scale(picture[:, ::-1]), picture[:, ::-1, ::-1])

    def test_a_mix_is_the_sum_of_arrays_of_any_length(self):
        a, b = noise("f4", 3000) / 2, noise("f4", 1500) / 2
        np.testing.assert_array_equal(telvane.mix_audio([a, b], 8000), np.concatenate([a[:1500] + b, a[1500:]]))
        short = telvane.mix_audio([a, b], 8000, "[a0][a1]amix=normalize=0:duration=shortest")
        np.testing.assert_array_equal(short, a[:1500] + b)
        self.assertEqual(telvane.filter_audio(a, 8000, "[in]anullsink;sine", samples=1500).shape, (1500,))

    def test_times_and_ends(self):
        with VideoMixer({"a": Picture(8, 8, "gray", times=[0, 40, 100])}, "[a]null") as graph:
            for number in range(3):
                graph.send("a", np.full((8, 8), number, np.uint8))
            self.assertFalse(graph.ended)
            self.assertEqual([(p[0, 0], graph.time) for p in graph.received()], [(0, 0), (1, 0.04), (2, 0.1)])
        with AudioFilter(Audio(8000, samples=100, length=250), "anull") as graph:
            self.assertIsNone(graph.receive())
            for length in (100, 100, 50):
                graph.send(np.ones(length, np.int16))
            self.assertEqual([(len(s), graph.time) for s in graph.received()], [(100, 0), (100, 0.0125), (50, 0.025)])

    def test_what_does_not_fit_is_named(self):
        stereo, picture = np.zeros((100, 2), np.int16), np.zeros((4, 6, 3), np.uint8)
        sounds, pictures = AudioFilter(Audio(8000, 2, 100), "anull"), VideoFilter(Picture(6, 4), "null")
        for error, reason, call in (
            (ValueError, "no inputs", lambda: telvane.mix_audio([], 8000)),
            (TypeError, "list or a dict", lambda: telvane.mix_audio(stereo, 8000)),
            (ValueError, "one type.*int16.*float", lambda: telvane.mix_audio([stereo, stereo / 2], 8000)),
            (ValueError, r"\(0, 2\)", lambda: telvane.filter_audio(stereo[:0], 8000, "anull")),
            (ValueError, "no pictures", lambda: telvane.filter_video([], "null")),
            (ValueError, r"\(4,\)", lambda: telvane.filter_picture(picture[:, 0, 0], "null")),
            (TypeError, "rate.*29.97", lambda: Picture(6, 4, rate=29.97)),
            (ValueError, "width.*large", lambda: Picture(2**40, 4)),
            (ValueError, "primaries.*bt7", lambda: Picture(6, 4, primaries="bt7")),
            (TypeError, "Picture", lambda: VideoFilter(picture, "null")),
            (ValueError, "reverse.*how long", lambda: VideoFilter(Picture(6, 4), "reverse")),
            (ValueError, "no picture", lambda: telvane.filter_picture(picture, "select=0")),
            (ValueError, r"\(4, 6, 3\).*\(6, 3\)", lambda: pictures.send(picture[0])),
            (ValueError, r"\(100, 2\).*\(99, 2\)", lambda: sounds.send(stereo[1:])),
            (ValueError, "'b'.*'a'", lambda: AudioMixer({"a": Audio(8000)}, "[a]anull").send("b", stereo)),
            (TypeError, "pickled", lambda: pickle.dumps(sounds)),
        ):
            with self.subTest(reason), self.assertRaisesRegex(error, reason):
                call()
        with self.assertRaises(Error) as caught:
            AudioFilter(Audio(8000), "nosuchfilter")
        error = pickle.loads(pickle.dumps(caught.exception))
        self.assertEqual((error.code, error.name), (0x80F0004, "AVFILTER_ERROR_AUDIO_PARSE_GRAPH"))


class Objects(unittest.TestCase):
    def test_they_are_released_once_and_closed_for_good(self):
        files = len(os.listdir("/proc/self/fd"))
        with AudioFilter(Audio(8000), "anull") as closed:
            AudioFilter(Audio(8000), "anull").receive()
        gc.collect()
        self.assertEqual(len(os.listdir("/proc/self/fd")), files)
        closed.close()
        with self.assertRaisesRegex(ValueError, "closed"):
            closed.receive()

    def test_threads_go_on_while_the_library_works_and_share_an_object(self):
        sample, stream, ticks = np.ones(1, np.int16), Picture(64, 64, "gray"), [0]
        graph, scaler = AudioFilter(Audio(8000, 1, 1), "anull"), VideoScaler(stream, stream)

        def work():
            while ticks[0] >= 0:
                ticks[0] += 1
                graph.send(sample)
                time.sleep(0.0001)

        calls = [lambda: graph.send(sample), graph.receive, lambda: scaler.scale(np.zeros((64, 64), np.uint8))]
        calls += [lambda: AudioFilter(Audio(8000), "anull"), lambda: AudioFilter(Audio(8000), "anull").close()]
        interval, thread = sys.getswitchinterval(), threading.Thread(target=work)
        thread.start()
        sys.setswitchinterval(1000)  # who does not give the interpreter's lock up keeps it
        try:
            for call in calls:
                before, end = ticks[0], time.monotonic() + 10
                while ticks[0] == before and time.monotonic() < end:
                    call()
                self.assertGreater(ticks[0], before)
        finally:
            sys.setswitchinterval(interval)
            ticks[0] = -1
            thread.join()
