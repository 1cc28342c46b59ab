"""FFmpeg filter graphs and the FFmpeg scaler over NumPy arrays.

    mix_audio, filter_audio        whole arrays of samples
    filter_picture, filter_video   one picture, an array of pictures
    AudioMixer, AudioFilter        blocks of samples, one after another
    VideoMixer, VideoFilter        pictures, one after another
    VideoScaler                    sizes and pixel formats

What comes out is what the ffmpeg command gives for the same description: the same bytes, in the format that
went in or any other that is asked for, at the same times, with the same end.

Samples are arrays of uint8, int16, int32, float32 or float64, of shape (samples,) for one channel or
(samples, channels). Pictures are arrays of uint8, or of uint16 if their format has more than 8 bits a sample,
of shape (height, width) for gray, (height, width, components) for formats whose components lie side by side
("rgb24", "bgra", "ya8", "rgb48le"), and flat for all others ("yuv420p", "nv12", "gbrp"): their planes one
after another, without gaps. PIXEL_FORMATS has all names. Arrays need not be contiguous or writable; they are
copied, and never written to.

Descriptions are FFmpeg filtergraph texts, leading from the inputs' names ("in" for filters) to "out"; the
labels of a filter may be left out: "hflip". No description can make more come out than fits. Still,
descriptions are programs, which open files and load plugins: never take one from strangers.

A stream whose length is known ends. Without a length it goes on for ever: filters that wait for the end keep
what they hold, and those that would give nothing at all (reverse, areverse, palettegen) are refused.

Arguments that do not fit are a TypeError or ValueError, failures of FFmpeg an Error. Objects are context
managers; close() and the garbage collector release them too. Calls do not hold the interpreter's lock:
different objects work in parallel, and the calls of several threads on one object wait for each other.
"""

from __future__ import annotations

import operator
from collections.abc import Iterable, Iterator, Mapping, Sequence
from dataclasses import KW_ONLY, dataclass, replace
from fractions import Fraction
from functools import cached_property
from itertools import islice
from numbers import Rational
from typing import Any, Literal, NoReturn, TypeVar

import numpy as np
import numpy.typing as npt

from . import _core

__version__ = _core.version
__all__ = [
    "Audio", "Picture", "PIXEL_FORMATS", "Error",
    "AudioMixer", "AudioFilter", "VideoMixer", "VideoFilter", "VideoScaler",
    "mix_audio", "filter_audio", "filter_picture", "filter_video",
]  # fmt: skip

Array = npt.NDArray[Any]
_Self = TypeVar("_Self")
_FORMATS = {name: layout for name, *layout in _core.pixel_formats()}
PIXEL_FORMATS = tuple(_FORMATS)
_SAMPLES = [np.dtype(t) for t in (np.uint8, np.int16, np.int32, np.float32, np.float64)]  # as AVSampleFormat
_PICTURES = {  # the format of arrays by bytes of a sample and components
    (1, 1): "gray", (1, 2): "ya8", (1, 3): "rgb24", (1, 4): "rgba",
    (2, 1): "gray16le", (2, 2): "ya16le", (2, 3): "rgb48le", (2, 4): "rgba64le",
}  # fmt: skip


class Error(RuntimeError):
    """FFmpeg refused or failed: code is the library's number, name the code's name.

    The code comes from a variable of the whole process: of two calls that fail on two threads at the same
    moment, one may report the other's.
    """

    def __init__(self, text: str, code: int, name: str) -> None:
        super().__init__(text, code, name)
        self.code, self.name = code, name

    def __str__(self) -> str:
        return str(self.args[0])


def _need(kind: type, *values: object) -> None:
    for value in values:
        if not isinstance(value, kind):
            raise TypeError(f"needed is {kind.__name__}, not {value!r}")


def _need_whole(**values: object) -> None:
    for name, value in values.items():
        if isinstance(value, bool) or not hasattr(value, "__index__"):
            raise TypeError(f"{name} must be a whole number, not {value!r}")
        if abs(operator.index(value)) >> (63 if name == "length" or name.startswith("times") else 31):
            raise ValueError(f"{name} is too large: {value}")


def _need_fraction(**values: object) -> None:
    for name, value in values.items():
        if isinstance(value, bool) or not isinstance(value, Rational):
            raise TypeError(f"{name} must be a whole number or a Fraction, not {value!r}")
        _need_whole(**{name: value.numerator, f"{name}'s denominator": value.denominator})


def _fit(array: npt.ArrayLike, dtype: np.dtype[Any], shape: tuple[int, ...], shorter: bool = False) -> Array:
    array = np.asarray(array)
    size = shape[0] if not shorter or array.ndim == 0 else min(shape[0], len(array))
    if array.dtype != dtype or array.shape != (size, *shape[1:]):
        raise ValueError(f"needed is {dtype} of shape {shape}, this is {array.dtype} of shape {array.shape}")
    return np.ascontiguousarray(array)


@dataclass(frozen=True)
class Audio:
    """A stream of samples, in blocks.

    rate      samples a second
    channels  1 to 8, 16 or 24, in FFmpeg's default layout of their number
    samples   of each channel in a block; the last block of a stream may be shorter
    dtype     uint8, int16, int32, float32 or float64
    length    samples of each channel that will be sent; None is unknown. Not used for outputs
    """

    rate: int
    channels: int = 1
    samples: int = 1024
    dtype: npt.DTypeLike = np.int16
    _: KW_ONLY
    length: int | None = None

    def __post_init__(self) -> None:
        _need_whole(rate=self.rate, channels=self.channels, samples=self.samples, length=self.length or 0)
        if self._dtype not in _SAMPLES:
            raise ValueError(f"samples of {self._dtype}: convert them to one of {[str(t) for t in _SAMPLES]}")

    @cached_property
    def _dtype(self) -> np.dtype[Any]:
        return np.dtype(self.dtype)

    @property
    def _format(self) -> int:
        return _SAMPLES.index(self._dtype)

    @property
    def _shape(self) -> tuple[int, ...]:
        return (self.samples,) if self.channels == 1 else (self.samples, self.channels)

    def _fit(self, array: npt.ArrayLike) -> Array:
        array = np.asarray(array)
        if self.channels == 1 and array.shape[1:] == (1,):
            array = array[:, 0]
        return _fit(array, self._dtype, self._shape, self.length is not None)


@dataclass(frozen=True)
class Picture:
    """A stream of pictures; of outputs and for the scaler only width, height and format count.

    width, height     pixels
    format            one of PIXEL_FORMATS
    rate              pictures a second, a whole number or a Fraction: they have the times 0, 1/rate, 2/rate ...
    length            how many pictures will be sent; None is unknown
    times             for pictures that do not follow each other evenly: the time of each in units of time_base,
                      ascending. Their number is the length; one more time is that of the end
    time_base         seconds
    range, primaries, transfer, matrix
                      FFmpeg's names of what is known of the colours: "pc", "bt709", "smpte2084", "bt2020nc"
    aspect            of a pixel, width by height; 0 is unknown
    fields            of interlaced pictures the first one
    """

    width: int
    height: int
    format: str = "rgb24"
    rate: int | Fraction = 25
    _: KW_ONLY
    length: int | None = None
    times: Sequence[int] = ()
    time_base: Fraction = Fraction(1, 1000)
    range: str | None = None
    primaries: str | None = None
    transfer: str | None = None
    matrix: str | None = None
    aspect: int | Fraction = 0
    fields: Literal["progressive", "top", "bottom"] | None = None

    def __post_init__(self) -> None:
        _need_whole(width=self.width, height=self.height, length=self.length or 0)
        _need_whole(**{f"times[{i}]": time for i, time in enumerate(self.times)})
        _need_fraction(rate=self.rate, time_base=self.time_base, aspect=self.aspect)
        colour = [n for n in (self.range, self.primaries, self.transfer, self.matrix, self.fields) if n is not None]
        _need(str, self.format, *colour)
        if _core.picture_bytes(self) == 0:
            raise ValueError(f"no such pictures: {self.width}x{self.height}")

    @classmethod
    def of(cls, array: npt.ArrayLike, format: str | None = None, **other: Any) -> Picture:
        """The Picture of an array of shape (h, w) or (h, w, components), with other arguments of Picture.

        format: default is gray, ya8, rgb24 or rgba, of uint16 gray16le, ya16le, rgb48le or rgba64le.
        """
        array = np.asarray(array)
        components = 1 if array.ndim == 2 else array.shape[2] if array.ndim == 3 else 0
        format = format or _PICTURES.get((array.itemsize, components))
        if format is None or components == 0:
            raise ValueError(f"an array of {array.dtype} of shape {array.shape} is no picture")
        return cls(array.shape[1], array.shape[0], format, **other)

    @cached_property
    def _dtype(self) -> np.dtype[Any]:
        return np.dtype("u1" if _FORMATS[self.format][0] == 1 else "<u2")

    @cached_property
    def _shape(self) -> tuple[int, ...]:
        size, components = _FORMATS[self.format]
        if components == 0:
            return (_core.picture_bytes(self) // size,)
        return (self.height, self.width) if components == 1 else (self.height, self.width, components)

    def _fit(self, array: npt.ArrayLike) -> Array:
        return _fit(array, self._dtype, self._shape)


class _Closing:
    """Owns an object of the library."""

    _owned: Any

    def close(self) -> None:
        """Releases the object; later calls are a ValueError."""
        self._owned.close()

    def __enter__(self: _Self) -> _Self:
        return self

    def __exit__(self, *exception: object) -> None:
        self.close()

    def __reduce__(self) -> NoReturn:
        raise TypeError(f"a {type(self).__name__} cannot be copied or pickled")


class _Graph(_Closing):
    """What filters and mixers have in common.

    time: seconds at which what receive() gave last begins, None if it has no time
    ended: nothing more will come
    """

    _owned: _core.AudioMixer | _core.VideoMixer
    time: float | None = None
    ended: bool = False

    def __init__(self, make: Any, kind: type, inputs: Mapping[str, Any], description: str, out: Any) -> None:
        streams = dict(inputs)
        _need(kind, *streams.values(), *([] if out is None else [out]))
        _need(str, *streams, description)
        self._owned = make(streams, description, out)
        self._streams = list(streams.values())
        self._numbers = {name: number for number, name in enumerate(streams)}
        self._out = out or self._streams[0]

    def receive(self) -> Array | None:
        """The next block or picture; None if there is none for now or, where ended says so, ever."""
        out = np.empty(self._out._shape, self._out._dtype)
        size, self.time, self.ended = self._owned.receive(out)
        return out[: size // out[0].nbytes] if size else None

    def received(self) -> Iterator[Array]:
        """All that is there to be received, one after another."""
        while (out := self.receive()) is not None:
            yield out

    def _send(self, name: str, array: npt.ArrayLike) -> None:
        if name not in self._numbers:
            raise ValueError(f"no input {name!r}; there are {list(self._numbers)}")
        number = self._numbers[name]
        self._owned.send(number, self._streams[number]._fit(array))


class _Mixer(_Graph):
    def send(self, name: str, array: npt.ArrayLike) -> None:
        """Sends a copy of one block or picture to an input."""
        self._send(name, array)


class _Filter(_Graph):
    def send(self, array: npt.ArrayLike) -> None:
        """Sends a copy of one block or picture; it may give none, one or several."""
        self._send("in", array)


class AudioMixer(_Mixer):
    """Mixes the blocks of named inputs into blocks as "out" says, by default like the first input's.

    A description that FFmpeg refuses leaves up to a hundred kilobytes allocated: do not try them out in a loop.
    """

    def __init__(self, inputs: Mapping[str, Audio], description: str, out: Audio | None = None) -> None:
        super().__init__(_core.AudioMixer, Audio, inputs, description, out)


class AudioFilter(_Filter):
    """Filters one stream of samples into blocks as "out" says, by default as they came."""

    def __init__(self, stream: Audio, description: str, out: Audio | None = None) -> None:
        super().__init__(_core.AudioMixer, Audio, {"in": stream}, description, out)


class VideoMixer(_Mixer):
    """Mixes the pictures of named inputs into pictures as "out" says, by default like the first input's."""

    def __init__(self, inputs: Mapping[str, Picture], description: str, out: Picture | None = None) -> None:
        super().__init__(_core.VideoMixer, Picture, inputs, description, out)


class VideoFilter(_Filter):
    """Filters one stream of pictures into pictures as "out" says, by default as they came."""

    def __init__(self, stream: Picture, description: str, out: Picture | None = None) -> None:
        super().__init__(_core.VideoMixer, Picture, {"in": stream}, description, out)


class VideoScaler(_Closing):
    """Converts pictures between two sizes and formats, bilinearly."""

    def __init__(self, source: Picture, destination: Picture) -> None:
        _need(Picture, source, destination)
        self._owned = _core.VideoScaler(source, destination)
        self._source, self._destination = source, destination

    def scale(self, picture: npt.ArrayLike) -> Array:
        """The converted picture."""
        out = np.empty(self._destination._shape, self._destination._dtype)
        self._owned.scale(self._source._fit(picture), out)
        return out


def _outputs(graph: _Graph, arrays: Iterable[tuple[str, Array]]) -> Iterator[Array]:
    for name, array in arrays:
        graph._send(name, array)
        yield from graph.received()
        if graph.ended:
            return


def mix_audio(
    arrays: Mapping[str, npt.ArrayLike] | Sequence[npt.ArrayLike],
    rate: int,
    description: str | None = None,
    samples: int | None = None,
) -> Array:
    """Mixes whole arrays of samples of one type and rate.

    arrays       a dict of name to array, or a list, whose inputs are called a0, a1, ... The result has the type
                 and channels of the first
    rate         samples a second
    description  default is the plain sum, which clips in integer types
    samples      of each channel: the most that is returned; needed for descriptions that never end
    """
    if isinstance(arrays, (np.ndarray, str)):
        raise TypeError("needed is a list or a dict of arrays, not one array")
    named = arrays if isinstance(arrays, Mapping) else {f"a{n}": array for n, array in enumerate(arrays)}
    whole = {name: np.asarray(array) for name, array in named.items()}
    for array in whole.values():
        if array.ndim not in (1, 2) or array.size == 0:
            raise ValueError(f"needed is shape (samples,) or (samples, channels), not {array.shape}")
    if len({array.dtype for array in whole.values()}) > 1:
        raise ValueError(f"needed is one type, not {[str(array.dtype) for array in whole.values()]}")
    _need_whole(samples=samples or 0)
    if description is None:
        description = "".join(f"[{name}]" for name in whole) + f"amix=inputs={len(whole)}:normalize=0"
    streams = {name: Audio(rate, a.size // len(a), dtype=a.dtype, length=len(a)) for name, a in whole.items()}
    with AudioMixer(streams, description) as mixer:
        block = Audio.samples
        blocks = (
            (name, array[start : start + block])
            for start in range(0, max(map(len, whole.values())), block)
            for name, array in whole.items()
            if start < len(array)
        )
        parts = islice(_outputs(mixer, blocks), None if samples is None else -(-samples // block))
        first = next(iter(whole.values()))
        result: Array = np.concatenate([first[:0], *(part.reshape(-1, *first.shape[1:]) for part in parts)])
        return result[:samples]


def filter_audio(array: npt.ArrayLike, rate: int, description: str, samples: int | None = None) -> Array:
    """Filters a whole array of samples; rate and samples as for mix_audio."""
    return mix_audio({"in": array}, rate, description, samples)


def filter_video(
    pictures: npt.ArrayLike,
    description: str,
    rate: int | Fraction = 25,
    size: tuple[int, int] | None = None,
    *,
    format: str | None = None,
    count: int | None = None,
) -> Array:
    """Filters an array of pictures into one of the same format: (pictures, h, w) or (pictures, h, w, components).

    rate    pictures a second, of what goes in
    size    (width, height) of the result; default is the pictures' own
    format  of the pictures; default as Picture.of finds it
    count   the most pictures that are returned; needed for descriptions that never end
    """
    pictures = np.asarray(pictures)
    if pictures.ndim == 0 or len(pictures) == 0:
        raise ValueError("no pictures")
    source = Picture.of(pictures[0], format, rate=rate, length=len(pictures))
    width, height = size or (source.width, source.height)
    out = replace(source, width=width, height=height)
    _need_whole(count=count or 0)
    with VideoFilter(source, description, out) as graph:
        parts = list(islice(_outputs(graph, (("in", picture) for picture in pictures)), count))
    result: Array = np.array(parts, out._dtype).reshape(-1, *out._shape)
    return result


def filter_picture(
    array: npt.ArrayLike, description: str, size: tuple[int, int] | None = None, *, format: str | None = None
) -> Array:
    """Filters one picture of shape (h, w) or (h, w, components) into one of the same format.

    size and format as for filter_video.
    """
    pictures = filter_video(np.asarray(array)[np.newaxis], description, 25, size, format=format, count=1)
    if len(pictures) == 0:
        raise ValueError("the description gives no picture for a single one")
    picture: Array = pictures[0]
    return picture
