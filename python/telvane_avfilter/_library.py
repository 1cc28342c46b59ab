"""The shared library: where it is, what its functions take, what its codes are called."""

import ctypes
import ctypes.util
import os

SONAME = "libTelvane_AVFilter.so.1"


class AudioInfo(ctypes.Structure):
    _fields_ = [("szName", ctypes.c_char * 64)] + [
        (name, ctypes.c_int)
        for name in ("nSampleFormat", "nSampleRate", "nNbSamples", "nChannels", "nInputId", "nReserved")
    ]


class VideoInfo(ctypes.Structure):
    _fields_ = [("szName", ctypes.c_char * 64)] + [
        (name, ctypes.c_int) for name in ("nWidth", "nHeight", "nTimeBase", "nPixelFormat", "nInputId")
    ]


_AUDIO = "INVALID_PARAM ALLOC CREATE_FILTER PARSE_GRAPH CONFIG_GRAPH NOT_FOUND FRAME_BUFFER SEND_FRAME RECEIVE_FRAME"
_VIDEO = "INVALID_PARAM ALLOC CREATE_SOURCE CREATE_SINK PARSE_GRAPH CONFIG_GRAPH NOT_FOUND SEND_FRAME RECEIVE_FRAME"
CODES = {
    **{0x80F0001 + i: "AVFILTER_ERROR_AUDIO_" + name for i, name in enumerate(_AUDIO.split())},
    **{0x80F1001 + i: "AVFILTER_ERROR_VIDEO_" + name for i, name in enumerate(_VIDEO.split())},
    0x80F1010: "AVFILTER_ERROR_VIDEO_BUFFER_TOO_SMALL",
    0x80F1011: "AVFILTER_ERROR_VIDEO_SCALE",
}


def _load():
    given = os.environ.get("TELVANE_AVFILTER_LIBRARY")
    library = ctypes.CDLL(given or ctypes.util.find_library("Telvane_AVFilter") or SONAME)

    handle, size, data, text = (
        ctypes.c_ulonglong,
        ctypes.POINTER(ctypes.c_int),
        ctypes.c_void_p,
        ctypes.c_char_p,
    )
    new, number = ctypes.POINTER(handle), ctypes.c_int

    def declare(name, *arguments, result=ctypes.c_bool):
        function = getattr(library, name)
        function.argtypes = arguments
        function.restype = result

    def inputs(info):
        return ctypes.POINTER(ctypes.POINTER(ctypes.POINTER(info)))

    declare("AVFilter_GetLastError", size, result=handle)
    declare("AVFilter_Audio_MIXInit", new, inputs(AudioInfo), number, text, text)
    declare("AVFilter_Audio_MIXSend", handle, number, data, number)
    declare("AVFilter_Audio_MIXRecv", handle, data, size)
    declare("AVFilter_Audio_MIXDestroy", handle)
    declare("AVFilter_Video_MIXInit", new, inputs(VideoInfo), number, text, text)
    declare("AVFilter_Video_MIXSend", handle, number, data, data, data, number, number, number)
    declare("AVFilter_Video_MIXRecv", handle, data, size)
    declare("AVFilter_Video_MIXDestroy", handle)
    declare("AVFilter_VideoScale_Init", new)
    declare("AVFilter_VideoScale_Set", handle, *[number] * 6)
    declare("AVFilter_VideoScale_Fmt", handle, data, data, size)
    declare("AVFilter_VideoScale_Destory", handle)
    return library


library = _load()
