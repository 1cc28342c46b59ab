"""FFmpeg filter graphs and the FFmpeg scaler over NumPy arrays.

    mix_audio, filter_audio    whole arrays of samples
    AudioMixer, AudioFilter    the same block by block
    filter_picture             one picture
    VideoMixer, VideoFilter    picture by picture
    VideoScaler                sizes and pixel formats

Samples are arrays of uint8, int16, int32, float32 or float64, of shape (samples,) for one channel or
(samples, channels). Pictures are uint8 arrays of shape (height, width, 3) for "rgb24" and "bgr24",
(height, width, 4) for "rgba" and "bgra", (height, width) for "gray", and flat for "yuv420p": three tight
planes one after another.

Descriptions are FFmpeg filtergraph texts, leading from the inputs' names ("in" for filters) to "out"; the
labels of a filter may be left out: "hflip". The classes end every graph in the declared format and size
themselves, so no description can make more come out than fits. Still, descriptions are programs, which
open files and load plugins: never take one from strangers.

Objects are context managers; close() and the garbage collector release them too. One object must not be
used by two threads at once; different ones work in parallel, and calls do not hold Python's lock.
Failures of the library are raised as Error with the code's name; arrays and descriptions that do not fit
as ValueError, before anything is called.
"""

import ctypes
import weakref
from dataclasses import dataclass, replace

import numpy as np

from . import _library
from ._library import library as _lib

__version__ = "1.0.0"
__all__ = [
    "Audio", "Picture", "Error",
    "AudioMixer", "AudioFilter", "VideoMixer", "VideoFilter", "VideoScaler",
    "mix_audio", "filter_audio", "filter_picture",
]  # fmt: skip

_SAMPLES = {  # AVSampleFormat and FFmpeg's name of each type
    np.dtype(np.uint8): (0, "u8"),
    np.dtype(np.int16): (1, "s16"),
    np.dtype(np.int32): (2, "s32"),
    np.dtype(np.float32): (3, "flt"),
    np.dtype(np.float64): (4, "dbl"),
}
_PIXELS = {  # AVPixelFormat and bytes per pixel of each packed format
    "yuv420p": (0, None),
    "rgb24": (2, 3),
    "bgr24": (3, 3),
    "gray": (8, 1),
    "rgba": (26, 4),
    "bgra": (28, 4),
}
_SINK = "telvane_out"
_LARGEST = 2**31 - 1


class Error(Exception):
    """A call failed: code is the library's number, name the code's name.

    The code comes from a variable of the whole process: of two calls that fail on two threads at the same
    moment, one may report the other's.
    """

    def __init__(self, call, detail=""):
        self.code = _lib.AVFilter_GetLastError(None)
        self.name = _library.CODES.get(self.code, "unknown code")
        super().__init__(f"{call}: {self.name} (0x{self.code:X}){': ' if detail else ''}{detail}")


@dataclass(frozen=True)
class Audio:
    """Samples, in blocks of "samples" of each channel."""

    rate: int
    channels: int = 1
    samples: int = 1024
    dtype: object = np.int16

    def __post_init__(self):
        object.__setattr__(self, "dtype", np.dtype(self.dtype))
        if self.dtype not in _SAMPLES:
            raise ValueError(
                f"samples of type {self.dtype}: convert them to one of {[str(t) for t in _SAMPLES]}"
            )
        if min(self.rate, self.channels, self.samples) < 1 or self._bytes > _LARGEST:
            raise ValueError(f"no such blocks: {self}")

    @property
    def _bytes(self):
        return self.samples * self.channels * self.dtype.itemsize

    def _check(self, array):
        shape = (
            (self.samples,) if np.ndim(array) == 1 and self.channels == 1 else (self.samples, self.channels)
        )
        return _checked(array, self.dtype, shape)

    def _shape(self, array):
        return array if self.channels == 1 else array.reshape(-1, self.channels)

    def _info(self):
        return _library.AudioInfo(
            nSampleFormat=_SAMPLES[self.dtype][0], nSampleRate=self.rate,
            nNbSamples=self.samples, nChannels=self.channels,
        )  # fmt: skip

    def _end(self):
        return (
            f"aformat=sample_fmts={_SAMPLES[self.dtype][1]}:sample_rates={self.rate}"
            f":channel_layouts={self.channels}c,asetnsamples=n={self.samples}:p=0"
        )


@dataclass(frozen=True)
class Picture:
    """Pictures of one size and format, "rate" of them a second."""

    width: int
    height: int
    format: str = "rgb24"
    rate: int = 25

    def __post_init__(self):
        if self.format not in _PIXELS:
            raise ValueError(f"pixel format {self.format!r}: choose one of {list(_PIXELS)}")
        if min(self.width, self.height, self.rate) < 1 or self.width * self.height > _LARGEST // 16:
            raise ValueError(f"no such pictures: {self}")

    @classmethod
    def of(cls, array, **other):
        """Describes an array of shape (h, w), (h, w, 3) or (h, w, 4), as gray, rgb24 or rgba."""
        formats = {2: {None: "gray"}, 3: {3: "rgb24", 4: "rgba"}}.get(np.ndim(array), {})
        channels = np.shape(array)[2] if np.ndim(array) == 3 else None
        if channels not in formats:
            raise ValueError(f"an array of shape {np.shape(array)} is no picture")
        return cls(np.shape(array)[1], np.shape(array)[0], **{"format": formats[channels], **other})

    @property
    def _planes(self):
        bytes_per_pixel = _PIXELS[self.format][1]
        if bytes_per_pixel is not None:
            return (self.width * self.height * bytes_per_pixel, 0, 0)
        chroma = ((self.width + 1) // 2) * ((self.height + 1) // 2)
        return (self.width * self.height, chroma, chroma)

    def _shape(self):
        bytes_per_pixel = _PIXELS[self.format][1]
        if bytes_per_pixel is None:
            return (sum(self._planes),)
        return (self.height, self.width) + ((bytes_per_pixel,) if bytes_per_pixel > 1 else ())

    def _info(self):
        return _library.VideoInfo(
            nWidth=self.width,
            nHeight=self.height,
            nTimeBase=self.rate,
            nPixelFormat=_PIXELS[self.format][0],
        )


def _checked(array, dtype, shape):
    array = np.asarray(array)
    if array.dtype != dtype or array.shape != shape:
        raise ValueError(f"an array of {array.dtype} {array.shape} for {dtype} {shape}")
    return np.ascontiguousarray(array)


def _complete(description, end):
    # The own part stands in front, where no quote that the text leaves open can swallow it.
    if "\0" in description or not description.strip():
        raise ValueError("the description is empty or contains a zero byte")
    plain = description.replace("\\", "").replace("'", "")  # FFmpeg drops these from names
    for word in (_SINK, "sendcmd", "zmq"):
        if word in plain:
            raise ValueError(f"{word!r} in a description")
    label = "" if description.rstrip().endswith("]") else "[out]"
    return f"[out]{end}[{_SINK}];{description}{label}"


def _from_in(description):
    text = description.strip()
    return description if not text or text.startswith("[") or "[in]" in text else "[in]" + description


class _Handle:
    """Owns one handle of the library."""

    def __init__(self, create, destroy, what=""):
        handle = ctypes.c_ulonglong()
        if not create(ctypes.byref(handle)):
            raise Error(type(self).__name__, what)
        self._value = handle.value
        self._release = weakref.finalize(self, destroy, handle.value)

    @property
    def _handle(self):
        if not self._release.alive:
            raise ValueError(f"this {type(self).__name__} is closed")
        return self._value

    def close(self):
        self._release()

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.close()


class _Mixer(_Handle):
    """What the two mixers have in common."""

    def __init__(self, inputs, description, end, family):
        infos = []
        for number, (name, stream) in enumerate(inputs.items()):
            encoded = name.encode()
            if len(encoded) > 63 or b"\0" in encoded:
                raise ValueError(f"an input cannot be called {name!r}")
            info = stream._info()
            info.szName, info.nInputId = encoded, number
            infos.append(info)
        whole = _complete(description, end)
        pointers = (ctypes.POINTER(family.info) * len(infos))(*map(ctypes.pointer, infos))
        first = ctypes.cast(pointers, ctypes.POINTER(ctypes.POINTER(family.info)))
        super().__init__(
            lambda handle: family.create(
                handle, ctypes.byref(first), len(infos), _SINK.encode(), whole.encode()
            ),
            family.destroy,
            whole,
        )
        self._numbers = {name: number for number, name in enumerate(inputs)}
        self._streams = list(inputs.values())
        self._family = family

    def _input(self, name):
        if name not in self._numbers:
            raise ValueError(f"no input {name!r}; there are {list(self._numbers)}")
        return self._numbers[name]

    def _receive(self, capacity):
        out, size = np.empty(capacity, np.uint8), ctypes.c_int()
        if self._family.receive(self._handle, out.ctypes.data, ctypes.byref(size)):
            return out[: size.value]
        if _lib.AVFilter_GetLastError(None) == self._family.no_memory:
            raise Error("receive")
        return None

    def received(self):
        """All that is there to be received, one after another."""
        while (out := self.receive()) is not None:
            yield out


class _AudioFamily:
    info = _library.AudioInfo
    create = _lib.AVFilter_Audio_MIXInit
    receive = _lib.AVFilter_Audio_MIXRecv
    destroy = _lib.AVFilter_Audio_MIXDestroy
    no_memory = 0x80F0007


class _VideoFamily:
    info = _library.VideoInfo
    create = _lib.AVFilter_Video_MIXInit
    receive = _lib.AVFilter_Video_MIXRecv
    destroy = _lib.AVFilter_Video_MIXDestroy
    no_memory = 0x80F1002


class AudioMixer(_Mixer):
    """Mixes the blocks of named inputs into blocks as "out" says (default: as the first input).

    A description that FFmpeg refuses leaves up to a hundred kilobytes allocated: do not try them out in a loop.
    """

    def __init__(self, inputs, description, out=None):
        inputs = dict(inputs)
        self._out = out or next(iter(inputs.values()))
        super().__init__(inputs, description, self._out._end(), _AudioFamily)

    def send(self, name, block):
        number = self._input(name)
        block = self._streams[number]._check(block)
        if not _lib.AVFilter_Audio_MIXSend(self._handle, number, block.ctypes.data, block.nbytes):
            raise Error("send")

    def receive(self):
        """The next block, or None if more must be sent first."""
        out = self._receive(self._out._bytes)
        return None if out is None else self._out._shape(out.view(self._out.dtype))


class AudioFilter(AudioMixer):
    """Filters one stream. A block sent may give none, one or several."""

    def __init__(self, stream, description, out=None):
        super().__init__({"in": stream}, _from_in(description), out or stream)

    def send(self, block):
        super().send("in", block)


class VideoMixer(_Mixer):
    """Mixes the pictures of named inputs into pictures as "out" says (default: as the first input).

    Pictures leave the graph as yuv420p, which halves the colour's resolution; other formats are made from
    that. As yuv420p an odd width or height loses the last chroma column or row. The pictures sent to an
    input have the times 0, 1/rate, 2/rate and so on.
    """

    def __init__(self, inputs, description, out=None):
        inputs = dict(inputs)
        self._out = out or next(iter(inputs.values()))
        width, height = self._out.width, self._out.height
        end = f"scale={width}:{height},format=yuv420p"
        self._converter = None
        if self._out.format != "yuv420p":
            # An odd size is continued by one column or row, so that its last chroma samples stay. In 4:4:4,
            # because "pad" takes 4:2:0 pictures for even ones.
            self._even = Picture(width + width % 2, height + height % 2, "yuv420p")
            if (self._even.width, self._even.height) != (width, height):
                end = (
                    f"scale={width}:{height},format=yuv444p,pad={self._even.width}:{self._even.height},"
                    f"fillborders=right={width % 2}:bottom={height % 2}:mode=smear,format=yuv420p"
                )
            self._converter = VideoScaler(self._even, replace(self._even, format=self._out.format))
        else:
            self._even = self._out
        super().__init__(inputs, description, end, _VideoFamily)

    def send(self, name, picture):
        number = self._input(name)
        stream = self._streams[number]
        picture = _checked(picture, np.uint8, stream._shape())
        planes = stream._planes
        start = picture.ctypes.data
        # Null chroma pointers would mean a whole 4:2:0 picture that is not copied.
        if not _lib.AVFilter_Video_MIXSend(
            self._handle, number, start, start + planes[0], start + planes[0] + planes[1], *planes
        ):
            raise Error("send")

    def receive(self):
        """The next picture, or None if more must be sent first."""
        width, height = self._even.width, self._even.height
        out = self._receive(width * height + 2 * (width // 2) * (height // 2))
        if out is None or self._converter is None:
            return out
        converted = self._converter.scale(out)
        return np.ascontiguousarray(converted[: self._out.height, : self._out.width])

    def close(self):
        if self._converter is not None:
            self._converter.close()
        super().close()


class VideoFilter(VideoMixer):
    """Filters one stream of pictures. A picture sent may give none, one or several."""

    def __init__(self, stream, description, out=None):
        super().__init__({"in": stream}, _from_in(description), out or stream)

    def send(self, picture):
        super().send("in", picture)


class VideoScaler(_Handle):
    """Converts pictures between two sizes and formats; their rates have no meaning here."""

    def __init__(self, source, destination):
        self._source, self._destination = source, destination
        super().__init__(_lib.AVFilter_VideoScale_Init, _lib.AVFilter_VideoScale_Destory)
        geometry = [
            number
            for picture in (source, destination)
            for number in (_PIXELS[picture.format][0], picture.width, picture.height)
        ]
        if not _lib.AVFilter_VideoScale_Set(self._handle, *geometry):
            raise Error("VideoScaler")

    def scale(self, picture):
        picture = _checked(picture, np.uint8, self._source._shape())
        out = np.empty(self._destination._shape(), np.uint8)
        size = ctypes.c_int(out.nbytes)
        if not _lib.AVFilter_VideoScale_Fmt(
            self._handle, picture.ctypes.data, out.ctypes.data, ctypes.byref(size)
        ):
            raise Error("scale")
        return out


def mix_audio(arrays, rate, description=None, samples=None):
    """Mixes whole arrays of samples of one type and rate.

    arrays: a dict of name to array, or a list, whose inputs are called a0, a1, ... The result has the
    channels of the first. description: default is the plain sum, which clips in integer types.
    samples: length of the result; default is the longest array's. Shorter arrays are continued by silence,
    which also brings out what filters with a delay hold. A graph that gives less is not waited for longer
    than ten seconds of sound.
    """
    if not isinstance(arrays, dict):
        arrays = {f"a{number}": array for number, array in enumerate(arrays)}
    arrays = {name: np.asarray(array) for name, array in arrays.items()}
    if not arrays or any(array.ndim not in (1, 2) or array.size == 0 for array in arrays.values()):
        raise ValueError("arrays of shape (samples,) or (samples, channels) are needed")
    if description is None:
        labels = "".join(f"[{name}]" for name in arrays)
        description = f"{labels}amix=inputs={len(arrays)}:normalize=0"
    streams = {
        name: Audio(rate, 1 if array.ndim == 1 else array.shape[1], dtype=array.dtype)
        for name, array in arrays.items()
    }
    length = max(map(len, arrays.values())) if samples is None else samples
    block = next(iter(streams.values())).samples
    end = max(length, max(map(len, arrays.values()))) + 10 * rate
    parts, received, start = [], 0, 0

    with AudioMixer(streams, description) as mixer:
        while received < length and start < end:
            for name, array in arrays.items():
                part = array[start : start + block]
                if len(part) < block:
                    silence = 128 if array.dtype == np.uint8 else 0
                    rest = np.full((block - len(part),) + array.shape[1:], silence, array.dtype)
                    part = np.concatenate([part, rest])
                mixer.send(name, part)
            for part in mixer.received():
                parts.append(part)
                received += len(part)
                if received >= length:  # a description with a source of its own never runs empty
                    break
            start += block
    first = next(iter(arrays.values()))
    empty = np.empty((0,) + first.shape[1:], first.dtype)
    return np.concatenate([empty] + [part.reshape((-1,) + first.shape[1:]) for part in parts])[:length]


def filter_audio(array, rate, description, samples=None):
    """Filters a whole array of samples; samples as for mix_audio."""
    return mix_audio({"in": array}, rate, _from_in(description), samples)


def filter_picture(array, description, size=None):
    """Filters one picture of shape (h, w), (h, w, 3) or (h, w, 4) into one of the same format.

    size: (width, height) of the result; default is the picture's own.
    """
    source = Picture.of(array)
    width, height = size or (source.width, source.height)
    with VideoFilter(source, description, replace(source, width=width, height=height)) as graph:
        graph.send(array)
        out = graph.receive()
    if out is None:
        raise ValueError("the description gives no picture for a single one")
    return out
