/*
 * libTelvane_AVFilter: FFmpeg filter graphs and the FFmpeg scaler over raw audio and video in the
 * caller's own buffers, behind plain C functions.
 *
 * Five jobs, each with a group of functions:
 *
 *   audio filter   AVFilter_Audio_Init, _Cvt, _Destroy
 *   audio mix      AVFilter_Audio_MIXInit, _MIXSend, _MIXRecv, _MIXDestroy
 *   video filter   AVFilter_Video_Init, _Cvt, _Destroy
 *   video mix      AVFilter_Video_MIXInit, _MIXSend, _MIXRecv, _MIXDestroy
 *   video scaling  AVFilter_VideoScale_Init, _Set, _Fmt, _Destory
 *
 * Conventions, for all functions unless a declaration says otherwise:
 *
 * Results. Every function but AVFilter_GetLastError returns true for success and false for failure.
 *   After false, AVFilter_GetLastError gives the reason, one of the AVFILTER_ERROR_* codes. Test the
 *   returned value, not the flag AVFilter_IsErrorOccur: the failures of the audio family that are marked
 *   "flag false" below leave the flag false, as their callers know it.
 *
 * Failure. "Nothing written" means that no output argument was touched. A failed working call leaves
 *   the handle usable.
 *
 * Handles. A 64-bit number, written by a successful creating call, valid until the family's
 *   destroying call. Values lie between 1000000001 and 9000000002; 0 is never a handle. Destroying a
 *   handle that does not exist is no error.
 *
 * Units. Sizes and counts of buffers are bytes; widths and heights are pixels; a block's length is
 *   samples per channel. Sample formats are the numbers of FFmpeg's AVSampleFormat (libavutil/samplefmt.h;
 *   s16 packed is 1, float packed is 3), pixel formats those of its AVPixelFormat (libavutil/pixfmt.h;
 *   yuv420p is 0, rgb24 is 2, nv12 is 23). Channels stand in the order of FFmpeg's default layout for their
 *   number (av_channel_layout_default, libavutil/channel_layout.h): two are left, right; six are front left,
 *   front right, centre, low frequency, back left, back right.
 *
 * Ownership. Caller's buffers, texts and records are read or written during the call only, with two
 *   exceptions, both of whole-picture mode: AVFilter_Video_MIXSend hands the block to the graph, and
 *   AVFilter_Video_Cvt remembers it for a later separate-plane call. Records are copied at creation.
 *
 * Descriptions are FFmpeg filtergraph texts. A description is as powerful as program code (filters
 *   open files and load plugins): never take one from strangers.
 *
 * Threads. Work is done on the calling thread, inside the call; the library starts no thread, and
 *   the graphs it builds start none. Two fixed phrases are used below:
 *     "Threads: free."        May be called at any time from any thread.
 *     "Threads: per handle."  Calls on different handles run in parallel; calls on one handle must
 *                             be put in order by the caller.
 *   Each family (audio, video, scaling) has one lock. Working calls share it; creating calls take it
 *   alone for a moment, destroying calls and AVFilter_VideoScale_Set for their whole length. These
 *   wait for the calls of the family that are running or waiting when they arrive, and later calls wait
 *   behind them: nobody waits without bound, but one long working call delays every create, reconfigure
 *   and destroy of its family.
 *
 * The process. The library opens no file, keeps no log, installs no handler and reads no environment
 *   variable of its own. FFmpeg writes its messages to standard error as in any program
 *   (av_log_set_level changes that). Call no function of this library from a log callback
 *   (av_log_set_callback): it may wait for itself.
 *     Lack of memory is reported by codes, but for the few bytes in which a creating call lists a handle
 *   and its inputs: for these it throws std::bad_alloc. A C++ caller can catch it; no handle exists then,
 *   though its variable may have been written (audio: what was built stays allocated). In a caller of any
 *   other language it ends the process. No other exception is thrown.
 *     Exit: calls may run, and others may come, while the process exits, on other threads and in exit
 *   handlers. Handles that are still alive then are dropped without being torn down.
 *     fork: in the child, handles can be made, used and destroyed at once. Of its parent's handles it may use
 *   and destroy those on which no other thread was running a call; it must not touch the others, nor those
 *   whose filters keep threads of their own (movie, hardware). A fork waits for the calls that have a
 *   family's lock alone, not for working calls. One lock is beyond reach, that of FFmpeg's messages: where
 *   other threads may be writing some, set av_log_set_level(AV_LOG_QUIET) first.
 *     dlclose: when no call is running. What belongs to handles still alive stays allocated.
 */
#ifndef TELVANE_AVFILTER_H
#define TELVANE_AVFILTER_H

#include <stdbool.h>
#include <stddef.h>

/* Changes when programs built against an older version would no longer run; part of the SONAME. */
#define TELVANE_AVFILTER_VERSION_MAJOR 1
/* Changes when something is added. */
#define TELVANE_AVFILTER_VERSION_MINOR 0
/* Changes for the rest. */
#define TELVANE_AVFILTER_VERSION_PATCH 0

#if defined(__GNUC__) || defined(__clang__)
#define TELVANE_AVFILTER_API __attribute__((visibility("default")))
#else
#define TELVANE_AVFILTER_API
#endif

/*
 * Error codes. The values 0x80F100A to 0x80F100F are never used: the gap is part of the interface.
 * Which function reports which code, and why, stands at the functions.
 */
/* A required pointer is null, a count is out of range, or a mix's graph could not be allocated. */
#define AVFILTER_ERROR_AUDIO_INVALID_PARAM 0x80F0001
/* No memory for a part of the graph. */
#define AVFILTER_ERROR_AUDIO_ALLOC 0x80F0002
/* FFmpeg refused a source (format, rate, channels) or the sink. */
#define AVFILTER_ERROR_AUDIO_CREATE_FILTER 0x80F0003
/* FFmpeg could not parse the description: syntax, unknown filter, wrong option. */
#define AVFILTER_ERROR_AUDIO_PARSE_GRAPH 0x80F0004
/* The parsed graph does not fit together: an end left open, formats that do not meet. */
#define AVFILTER_ERROR_AUDIO_CONFIG_GRAPH 0x80F0005
/* No such handle, or the mix has no input with that id. */
#define AVFILTER_ERROR_AUDIO_NOT_FOUND 0x80F0006
/* No frame or no sample buffer for a block. */
#define AVFILTER_ERROR_AUDIO_FRAME_BUFFER 0x80F0007
/* The graph did not take the block. */
#define AVFILTER_ERROR_AUDIO_SEND_FRAME 0x80F0008
/* No block came out: most often just "not yet", send more. */
#define AVFILTER_ERROR_AUDIO_RECEIVE_FRAME 0x80F0009

/* Video filters, video mixes and scalers: as above, a count of a separate plane included. */
#define AVFILTER_ERROR_VIDEO_INVALID_PARAM 0x80F1001
/* No memory for a part of the graph or for a picture. */
#define AVFILTER_ERROR_VIDEO_ALLOC 0x80F1002
/* FFmpeg refused a source: size, pixel format or time base. */
#define AVFILTER_ERROR_VIDEO_CREATE_SOURCE 0x80F1003
/* FFmpeg could not make the sink. */
#define AVFILTER_ERROR_VIDEO_CREATE_SINK 0x80F1004
/* FFmpeg could not parse the description; for scalers: FFmpeg cannot do that conversion. */
#define AVFILTER_ERROR_VIDEO_PARSE_GRAPH 0x80F1005
/* The parsed graph does not fit together: an end left open, formats that do not meet. */
#define AVFILTER_ERROR_VIDEO_CONFIG_GRAPH 0x80F1006
/* No such handle, or the mix has no input with that id. */
#define AVFILTER_ERROR_VIDEO_NOT_FOUND 0x80F1007
/* The graph did not take the picture. */
#define AVFILTER_ERROR_VIDEO_SEND_FRAME 0x80F1008
/* No picture came out: most often just "not yet", send more; or it is not 8-bit 4:2:0. */
#define AVFILTER_ERROR_VIDEO_RECEIVE_FRAME 0x80F1009
/* The scaled picture does not fit; its size has been written. */
#define AVFILTER_ERROR_VIDEO_BUFFER_TOO_SMALL 0x80F1010
/* The scaler is not set up, has no memory for its pictures, or FFmpeg's scaler failed. */
#define AVFILTER_ERROR_VIDEO_SCALE 0x80F1011

/*
 * One audio stream. Any values may be passed; FFmpeg refuses the ones it cannot use when the graph is
 * created. The library never writes into a caller's record.
 */
typedef struct AVFILTER_AUDIO_INFO {
    char szName[64];   /* mixes: the input's label in the description, at most 63 characters */
    int nSampleFormat; /* AVSampleFormat */
    int nSampleRate;   /* samples per second and channel */
    int nNbSamples;    /* samples per channel in each block handed in; not checked at creation */
    int nChannels;     /* the layout is FFmpeg's default one for this number */
    int nInputId;      /* mixes: the id that AVFilter_Audio_MIXSend names the input by */
    int nReserved;     /* copied, never read */
} AVFILTER_AUDIO_INFO;

/* One video stream. As above; it has no reserved field. */
typedef struct AVFILTER_VIDEO_INFO {
    char szName[64];  /* mixes: the input's label in the description, at most 63 characters */
    int nWidth;       /* pixels */
    int nHeight;      /* pixels */
    int nTimeBase;    /* denominator of the time base 1/nTimeBase: pictures per second */
    int nPixelFormat; /* AVPixelFormat */
    int nInputId;     /* mixes: the id that AVFilter_Video_MIXSend names the input by */
} AVFILTER_VIDEO_INFO;

/* The records cross the library's boundary: their layout is part of the interface. */
#define TELVANE_AVFILTER_LAYOUT(name, condition) typedef char(name)[(condition) ? 1 : -1]
TELVANE_AVFILTER_LAYOUT(telvane_avfilter_int_is_32_bit, sizeof(int) == 4);
TELVANE_AVFILTER_LAYOUT(telvane_avfilter_audio_info_layout,
                        sizeof(AVFILTER_AUDIO_INFO) == 88 &&
                            offsetof(AVFILTER_AUDIO_INFO, nSampleFormat) == 64 &&
                            offsetof(AVFILTER_AUDIO_INFO, nSampleRate) == 68 &&
                            offsetof(AVFILTER_AUDIO_INFO, nNbSamples) == 72 &&
                            offsetof(AVFILTER_AUDIO_INFO, nChannels) == 76 &&
                            offsetof(AVFILTER_AUDIO_INFO, nInputId) == 80 &&
                            offsetof(AVFILTER_AUDIO_INFO, nReserved) == 84);
TELVANE_AVFILTER_LAYOUT(telvane_avfilter_video_info_layout,
                        sizeof(AVFILTER_VIDEO_INFO) == 84 && offsetof(AVFILTER_VIDEO_INFO, nWidth) == 64 &&
                            offsetof(AVFILTER_VIDEO_INFO, nHeight) == 68 &&
                            offsetof(AVFILTER_VIDEO_INFO, nTimeBase) == 72 &&
                            offsetof(AVFILTER_VIDEO_INFO, nPixelFormat) == 76 &&
                            offsetof(AVFILTER_VIDEO_INFO, nInputId) == 80);
#undef TELVANE_AVFILTER_LAYOUT

#ifdef __cplusplus
class CAVFilter_Audio;
class CAVFilter_Video;
class CAVFilter_VideoScale;
extern "C" {
#endif

/*
 * Whether the last call failed: set to false when a call starts, to true when it fails (but for the
 * audio failures marked "flag false"). Process-wide, written by whichever call ran last on any thread:
 * with several threads, rely on the returned bool.
 */
extern TELVANE_AVFILTER_API bool AVFilter_IsErrorOccur;
/*
 * The code of the last failure on any thread: read it right after a failed call. Success does not clear
 * it. 64 bits wide, in spite of its name.
 */
extern TELVANE_AVFILTER_API unsigned long long AVFilter_dwErrorCode;

#ifdef __cplusplus
/* The objects behind the functions. Exported for their names; their classes are not public. */
extern TELVANE_AVFILTER_API CAVFilter_Audio m_FilterAudio;
extern TELVANE_AVFILTER_API CAVFilter_Video m_FilterVideo;
extern TELVANE_AVFILTER_API CAVFilter_VideoScale m_VideoScale;
#endif

/*
 * Gives the code of the last failed call of the process.
 *
 * pnSysError: if not NULL, receives the calling thread's errno as it stands: whatever the system or
 *   FFmpeg left there last, not necessarily in this library.
 * Returns AVFilter_dwErrorCode; 0 before the first failure. Clears nothing and cannot fail.
 * Threads: free.
 */
TELVANE_AVFILTER_API unsigned long long AVFilter_GetLastError(int* pnSysError);

/* ---- Audio filter: one stream ------------------------------------------------------------------ */

/*
 * Builds a filter graph with one audio input and one audio output.
 *
 * phHandle: receives the new handle.
 * szFilterDescr: the filters between the labels "in" and "out", for example
 *   "[in]volume=0.5,aformat=sample_fmts=s16[out]". Nothing is added to it, and the format of the output
 *   is whatever it ends in.
 * pInfo: the stream; szName and nInputId are not used. NULL is refused for all three.
 *
 * Codes, nothing written:
 *   AVFILTER_ERROR_AUDIO_INVALID_PARAM  an argument is NULL
 *   AVFILTER_ERROR_AUDIO_ALLOC          no memory for graph, list entry or frame
 *   AVFILTER_ERROR_AUDIO_CREATE_FILTER  FFmpeg refuses the sample format or rate, or nChannels is below 1
 *   AVFILTER_ERROR_AUDIO_PARSE_GRAPH    the description is wrong
 *   AVFILTER_ERROR_AUDIO_CONFIG_GRAPH   the description does not fit the stream or leaves an end open; or
 *                                       nChannels has no default layout (9 to 15, 17 …)
 * After CREATE_FILTER, PARSE_GRAPH and CONFIG_GRAPH the partly built graph stays allocated (some hundred
 * bytes to a hundred kilobytes): do not try descriptions in a loop in a long-lived process.
 * Threads: free.
 */
TELVANE_AVFILTER_API bool AVFilter_Audio_Init(unsigned long long* phHandle, const char* szFilterDescr,
                                              AVFILTER_AUDIO_INFO* pInfo);

/*
 * Sends one block into the graph and takes one block out.
 *
 * THE CALLER'S SAMPLES ARE NOT READ. The block that enters the graph has the size that the stream's
 * record says and uninitialised contents; never play or store what comes out of a description that
 * passes it on. The call serves descriptions that make their own sound, and those that measure time
 * and size. To filter samples of your own use a mix with one input: AVFilter_Audio_MIXInit,
 * AVFilter_Audio_MIXSend, AVFilter_Audio_MIXRecv.
 *
 * pIn: must not be NULL; not read. nInLen: not read.
 * pOut: receives the block; no capacity is passed, so it must hold the largest one that the
 *   description can give. Packed output is interleaved samples.
 * pnOutLen: receives the number of bytes written. That is the line size that FFmpeg recorded for the
 *   block, and includes any padding that a filter's own buffer carries: 480 stereo s16 samples (1,920
 *   bytes) come out of "aresample=async=1" as 2,048 bytes. Planar output gives plane 0 alone, because
 *   FFmpeg records a line size for that plane only: end descriptions in a packed format
 *   ("aformat=sample_fmts=s16").
 *
 * Codes, nothing written:
 *   AVFILTER_ERROR_AUDIO_INVALID_PARAM  pIn, pOut or pnOutLen is NULL
 *   AVFILTER_ERROR_AUDIO_NOT_FOUND      no such handle, or the handle of a mix
 *   AVFILTER_ERROR_AUDIO_FRAME_BUFFER   (flag false) no memory, or nNbSamples is 0 or less, which
 *                                       AVFilter_Audio_Init lets through
 *   AVFILTER_ERROR_AUDIO_SEND_FRAME     the graph did not take the block
 *   AVFILTER_ERROR_AUDIO_RECEIVE_FRAME  nothing to give yet: the block is in the graph, call again;
 *                                       or planar output of more than eight channels, whose block is
 *                                       discarded
 * Blocks that the graph makes beyond one per call wait inside it for later calls, without bound.
 * No timestamp is set: for filters that need time put "asetpts=N" first, which counts samples.
 * Threads: per handle.
 */
TELVANE_AVFILTER_API bool AVFilter_Audio_Cvt(unsigned long long hHandle, unsigned char* pIn, int nInLen,
                                             unsigned char* pOut, int* pnOutLen);

/*
 * Releases an audio handle, single stream or mix. Always true, for unknown handles too.
 * Waits for the audio calls that are running. Threads: free.
 */
TELVANE_AVFILTER_API bool AVFilter_Audio_Destroy(unsigned long long hHandle);

/* ---- Audio mix: several streams into one ------------------------------------------------------- */

/*
 * Builds a filter graph with several audio inputs and one audio output.
 *
 * phHandle: receives the new handle.
 * pppInfo: the address of a pointer to an array of nInputCount pointers to records. The inputs keep
 *   this order. szName is the input's label in the description; nInputId is the id by
 *   which AVFilter_Audio_MIXSend finds it; it need not be unique (the first input with the id gets all).
 * nInputCount: at least 1.
 * szOutName: the label that the description ends in.
 * szFilterDescr: for example "[a][b]amix=inputs=2:normalize=0,aformat=sample_fmts=s16[out]".
 *   End it in a packed format: output is read as packed.
 *
 * Codes, nothing written:
 *   AVFILTER_ERROR_AUDIO_INVALID_PARAM  nInputCount below 1; phHandle, pppInfo, *pppInfo, a record or
 *                                       the description NULL; a szName without end; also no memory
 *                                       for the graph, which has no code of its own in mixes
 *   AVFILTER_ERROR_AUDIO_ALLOC          no memory for a list entry
 *   AVFILTER_ERROR_AUDIO_CREATE_FILTER  FFmpeg refuses an input's format or rate, or its nChannels is below
 *                                       1, or the sink could not be made
 *   AVFILTER_ERROR_AUDIO_PARSE_GRAPH    the description is wrong
 *   AVFILTER_ERROR_AUDIO_CONFIG_GRAPH   an input or the output is not linked, szOutName is NULL, or formats
 *                                       do not meet
 * After CREATE_FILTER, PARSE_GRAPH, CONFIG_GRAPH and a failed entry for the sink the partly built graph
 * stays allocated.
 *
 * What to know about "amix": it waits until every input has samples, hands on blocks cut like the first
 * input's, and with its default normalize=1 makes everything quieter; use normalize=0. An input that
 * falls silent stops the output, and what the other inputs are sent queues up without bound: send
 * silence for it.
 * No call signals the end of a stream, but an input of known length can end itself: behind
 * "[a]atrim=end_sample=N" it ends when the first block after its N samples is sent, whatever that holds,
 * and the filters then give what they hold ("[a]atrim=end_sample=N,areverse[out]"). Of an input that does
 * not end, filters that wait for the end keep what they hold: areverse and dynaudnorm (all of ten seconds),
 * the tails of loudnorm, aecho, atempo, speechnorm and silenceremove, a few samples of aresample to another
 * rate, less than a block of asetnsamples; afir gives nothing while its impulse response is an input of the
 * mix without an end; amix's duration option has no effect.
 * Threads: free.
 */
TELVANE_AVFILTER_API bool AVFilter_Audio_MIXInit(unsigned long long* phHandle,
                                                 AVFILTER_AUDIO_INFO*** pppInfo, int nInputCount,
                                                 const char* szOutName, const char* szFilterDescr);

/*
 * Sends one block to one input of a mix. The samples are copied.
 *
 * nInputId: the nInputId of the input's record, not its position.
 * pData: nNbSamples samples of each channel, interleaved, in the input's sample format, which must be a
 *   packed one unless there is one channel only: of a planar format plane 0, the first channel, alone is
 *   filled, and the other channels enter the graph undefined.
 * nDataSize: bytes at pData, at most the block's size. If it is smaller, the rest of the block is
 *   undefined.
 * No timestamp is set: blocks of an input follow one another.
 *
 * Codes:
 *   AVFILTER_ERROR_AUDIO_INVALID_PARAM  pData is NULL; nDataSize is negative or more than the block
 *   AVFILTER_ERROR_AUDIO_NOT_FOUND      no such handle; or (flag false) no input with that id
 *   AVFILTER_ERROR_AUDIO_FRAME_BUFFER   (flag false) no memory, or the record's nNbSamples is 0 or
 *                                       less; the frame stays allocated
 *   AVFILTER_ERROR_AUDIO_SEND_FRAME     the graph did not take the block; also for the handle of a
 *                                       single stream, which has no input to send to
 * After a failure the graph is as it was.
 * Threads: per handle.
 */
TELVANE_AVFILTER_API bool AVFilter_Audio_MIXSend(unsigned long long hHandle, int nInputId,
                                                 unsigned char* pData, int nDataSize);

/*
 * Takes one mixed block, if there is one.
 *
 * pOutBuffer: receives the block, packed; no capacity is passed, so it must hold the largest one that
 *   the description can give: end the description in "asetnsamples=n=N:p=0" for blocks of a fixed size.
 * pnOutSize: receives the number of bytes, samples per channel * channels * bytes per sample. Not read.
 *
 * Codes, nothing written:
 *   AVFILTER_ERROR_AUDIO_INVALID_PARAM  pOutBuffer or pnOutSize is NULL
 *   AVFILTER_ERROR_AUDIO_NOT_FOUND      no such handle
 *   AVFILTER_ERROR_AUDIO_FRAME_BUFFER   no memory for a frame
 *   AVFILTER_ERROR_AUDIO_RECEIVE_FRAME  nothing to give yet: send more and call again. A real failure
 *                                       of the graph cannot be told apart from that. Also planar output
 *                                       of several channels, whose block is discarded
 * The handle of a single stream is accepted: its graph's next block is returned.
 * Threads: per handle.
 */
TELVANE_AVFILTER_API bool AVFilter_Audio_MIXRecv(unsigned long long hHandle, unsigned char* pOutBuffer,
                                                 int* pnOutSize);

/* The same as AVFilter_Audio_Destroy. */
TELVANE_AVFILTER_API bool AVFilter_Audio_MIXDestroy(unsigned long long hHandle);

/* ---- Video filter: one stream ------------------------------------------------------------------ */

/*
 * Builds a filter graph with one video input and one video output.
 *
 * phHandle: receives the new handle.
 * szFilterDescr: the filters between the labels "in" and "out", for example
 *   "[in]hflip,format=yuv420p[out]". Nothing is added to it; end it in format=yuv420p unless it keeps
 *   that format anyway.
 * pInfo: the stream; szName and nInputId are not used. The pixel aspect is always unknown.
 *
 * Codes, nothing written and nothing left allocated:
 *   AVFILTER_ERROR_VIDEO_INVALID_PARAM  an argument is NULL
 *   AVFILTER_ERROR_VIDEO_ALLOC          no memory for graph, list entry or frame
 *   AVFILTER_ERROR_VIDEO_CREATE_SOURCE  FFmpeg refuses the size, pixel format or time base
 *   AVFILTER_ERROR_VIDEO_CREATE_SINK    FFmpeg could not make the sink
 *   AVFILTER_ERROR_VIDEO_PARSE_GRAPH    the description is wrong
 *   AVFILTER_ERROR_VIDEO_CONFIG_GRAPH   the description does not fit the stream or leaves an end open
 * Threads: free.
 */
TELVANE_AVFILTER_API bool AVFilter_Video_Init(unsigned long long* phHandle, const char* szFilterDescr,
                                              AVFILTER_VIDEO_INFO* pInfo);

/*
 * Sends one picture into the graph and takes one picture out.
 *
 * With W and H the stream's width and height, the picture is handed in as either
 *   separate planes (pU and pV not NULL): pY, pU, pV hold planes 0, 1, 2 of the stream's pixel format,
 *     rows without padding, nYSize, nUSize, nVSize bytes of each. For yuv420p that is W*H and twice
 *     ((W+1)/2)*((H+1)/2). The counts are byte counts, not strides. A smaller count leaves the rest
 *     of the plane as it was (undefined on the first call). For a plane that the format lacks pass any
 *     pointer that is not NULL, with count 0:
 *       nv12   AVFilter_Video_Cvt(h, y, uv, y, W * H, 2 * ((W + 1) / 2) * ((H + 1) / 2), 0, out, &n)
 *       rgb24  AVFilter_Video_Cvt(h, rgb, rgb, rgb, 3 * W * H, 0, 0, out, &n)
 *     NULL in that place would mean the other form, and pY be read past its end. Or as a
 *   whole picture (pU or pV NULL): pY holds one 8-bit 4:2:0 picture, planes at pY, pY + W*H and
 *     pY + W*H*5/4, whatever the stream's pixel format. The sizes are not used. FFmpeg reads from each
 *     place as many bytes as the stream's format has in that plane. W*H*3/2 bytes are enough for 8-bit
 *     4:2:0 of even width and height alone: for odd sizes the chroma planes overlap and reach past that
 *     end, for other formats it is far too little. Use separate planes there.
 * The picture is copied, and never written to, with one exception: after a whole-picture call,
 * a separate-plane call on the same handle copies its planes into that earlier caller's block. Do not
 * mix the two modes on one handle.
 *
 * pOut: receives the picture as three tight 8-bit 4:2:0 planes; with w and h the size that the graph
 *   gives: luma row r at pOut + r*w, first chroma row r at pOut + w*h + r*(w/2), second chroma row r at
 *   pOut + w*h + (w/2)*(h/2) + r*(w/2). An odd w or h loses the last chroma column or row.
 *   No capacity is passed: it must hold the largest picture that the description can give.
 * pnOutLen: receives w*h + 2*(w/2)*(h/2). Not read.
 * The output's format is not examined. Anything but 8-bit 4:2:0 in three planes comes out wrong: end
 * the description in format=yuv420p.
 *
 * Codes, nothing written:
 *   AVFILTER_ERROR_VIDEO_INVALID_PARAM  pY, pOut or pnOutLen is NULL; a separate plane's count is
 *                                       negative, or would run past the end of the input picture, or
 *                                       belongs to a plane that the format does not have
 *   AVFILTER_ERROR_VIDEO_NOT_FOUND      no such handle, or the handle of a mix
 *   AVFILTER_ERROR_VIDEO_ALLOC          separate planes where AVFilter_Video_Init found no memory for
 *                                       the picture, or the format has none (hardware formats)
 *   AVFILTER_ERROR_VIDEO_SEND_FRAME     the graph did not take the picture
 *   AVFILTER_ERROR_VIDEO_RECEIVE_FRAME  nothing to give yet: the picture is in the graph, send the next;
 *                                       or the output lacks a plane (rgb24, gray, nv12 …) or holds less
 *                                       than 4:2:0 needs, and is discarded
 *
 * One picture leaves per call. A graph that makes several of each ("loop", "fps" upwards) queues the rest
 * without bound.
 * No timestamp is set: filters that depend on time do nothing useful, and "fps" drops every picture.
 * Put "setpts=N" first: pictures are then 1/nTimeBase seconds apart.
 * No call signals the end of the stream, but one of known length can end itself: behind
 * "[in]trim=end_frame=N" it ends when picture N+1 is sent, whatever that holds, and the filters then give
 * what they hold: "[in]trim=end_frame=3,reverse[out]" gives pictures 3, 2, 1 in calls 4, 5, 6. Without that,
 * "reverse", and the last pictures of "minterpolate" or "yadif", stay inside.
 * Threads: per handle.
 */
TELVANE_AVFILTER_API bool AVFilter_Video_Cvt(unsigned long long hHandle, unsigned char* pY,
                                             unsigned char* pU, unsigned char* pV, int nYSize, int nUSize,
                                             int nVSize, unsigned char* pOut, int* pnOutLen);

/*
 * Releases a video filter handle. Always true, for unknown handles and those of mixes (which stay) too.
 * Waits for the video calls that are running. Threads: free.
 */
TELVANE_AVFILTER_API bool AVFilter_Video_Destroy(unsigned long long hHandle);

/* ---- Video mix: several streams into one ------------------------------------------------------- */

/*
 * Builds a filter graph with several video inputs and one video output.
 *
 * phHandle, pppInfo, nInputCount, szOutName: as for AVFilter_Audio_MIXInit. The inputs may differ in
 *   size, pixel format and time base.
 * szFilterDescr: for example "[cam][screen]overlay=10:10,format=yuv420p[out]".
 *
 * Codes, nothing written and nothing left allocated:
 *   AVFILTER_ERROR_VIDEO_INVALID_PARAM  nInputCount below 1; phHandle, pppInfo, *pppInfo, a record or
 *                                       the description NULL; a szName without end; also no memory
 *                                       for the graph, which has no code of its own in mixes
 *   AVFILTER_ERROR_VIDEO_ALLOC          no memory for a list entry
 *   AVFILTER_ERROR_VIDEO_CREATE_SOURCE  FFmpeg refuses an input's size, pixel format or time base
 *   AVFILTER_ERROR_VIDEO_CREATE_SINK    FFmpeg could not make the sink
 *   AVFILTER_ERROR_VIDEO_PARSE_GRAPH    the description is wrong
 *   AVFILTER_ERROR_VIDEO_CONFIG_GRAPH   an input or the output is not linked, szOutName is NULL, or formats
 *                                       do not meet
 *
 * Pairing: each input's pictures count their time from 0 in steps of 1/nTimeBase, and filters with
 * several inputs (overlay, hstack, blend) pair them by time, not by count: beside a 50 per second input,
 * a 25 per second input needs one picture for every two. An input that falls silent stops the output,
 * and what the others are sent queues up without bound: send its last picture again. An input of known
 * length can end itself, as for AVFilter_Video_Cvt.
 * Threads: free.
 */
TELVANE_AVFILTER_API bool AVFilter_Video_MIXInit(unsigned long long* phHandle,
                                                 AVFILTER_VIDEO_INFO*** pppInfo, int nInputCount,
                                                 const char* szOutName, const char* szFilterDescr);

/*
 * Sends one picture to one input of a mix.
 *
 * nInputId: the nInputId of the input's record, not its position.
 * pY, pU, pV, nYSize, nUSize, nVSize: separate planes or a whole picture, as for AVFilter_Video_Cvt.
 *   Separate planes are copied; the caller's bytes are never written to. Counts smaller than the planes
 *   leave the rest of the picture undefined. Formats of one or two planes as there:
 *     nv12   AVFilter_Video_MIXSend(h, id, y, uv, y, W * H, 2 * ((W + 1) / 2) * ((H + 1) / 2), 0)
 *     rgb24  AVFilter_Video_MIXSend(h, id, rgb, rgb, rgb, 3 * W * H, 0, 0)
 *   A WHOLE PICTURE IS HANDED TO THE GRAPH WITHOUT A COPY. The block must stay, and stay unchanged, until
 *   the pictures made from it have been received, or the mix is destroyed. Filters that work in place
 *   write into it: drawbox, drawgrid, negate, hue, noise, fade and lutyuv do, overlay and hstack did not in
 *   the cases tried; assume that any filter may. FFmpeg's scaler may read a few bytes past its
 *   end: leave 64 bytes spare.
 * The input's first picture has time 0, the next 1, and so on, in units of 1/nTimeBase; a picture that
 * is refused does not use up a time.
 *
 * Codes:
 *   AVFILTER_ERROR_VIDEO_INVALID_PARAM  pY is NULL; a separate plane's count is negative, belongs to a
 *                                       plane that the format does not have, or would run past the end of
 *                                       the memory for the copy (which is somewhat larger than the picture)
 *   AVFILTER_ERROR_VIDEO_NOT_FOUND      no such handle, or no input with that id
 *   AVFILTER_ERROR_VIDEO_ALLOC          no memory for a frame, or for the copy of separate planes
 *   AVFILTER_ERROR_VIDEO_SEND_FRAME     the graph did not take the picture
 * After a failure the graph is as it was.
 * Threads: per handle.
 */
TELVANE_AVFILTER_API bool AVFilter_Video_MIXSend(unsigned long long hHandle, int nInputId,
                                                 unsigned char* pY, unsigned char* pU, unsigned char* pV,
                                                 int nYSize, int nUSize, int nVSize);

/*
 * Takes one mixed picture, if there is one.
 *
 * pOutBuffer, pnOutSize: as pOut and pnOutLen of AVFilter_Video_Cvt.
 *
 * Codes, nothing written:
 *   AVFILTER_ERROR_VIDEO_NOT_FOUND      no such handle, or the handle of a single stream
 *   AVFILTER_ERROR_VIDEO_ALLOC          no memory for a frame
 *   AVFILTER_ERROR_VIDEO_RECEIVE_FRAME  nothing to give yet: send more and call again. A real failure
 *                                       of the graph cannot be told apart from that. Also an output
 *                                       without the planes of 4:2:0, which is discarded
 *   AVFILTER_ERROR_VIDEO_INVALID_PARAM  there is a picture, but pOutBuffer or pnOutSize is NULL; the
 *                                       picture is kept for the next call
 * Threads: per handle.
 */
TELVANE_AVFILTER_API bool AVFilter_Video_MIXRecv(unsigned long long hHandle, unsigned char* pOutBuffer,
                                                 int* pnOutSize);

/*
 * Releases a video mix handle. Always true, for unknown handles and those of single streams (which stay)
 * too. Waits for the video calls that are running. Threads: free.
 */
TELVANE_AVFILTER_API bool AVFilter_Video_MIXDestroy(unsigned long long hHandle);

/* ---- Video scaling ----------------------------------------------------------------------------- */

/*
 * Creates a scaler, which AVFilter_VideoScale_Set must set up before use.
 *
 * phHandle: receives the new handle.
 * Code, nothing written: AVFILTER_ERROR_VIDEO_INVALID_PARAM if phHandle is NULL.
 * Threads: free.
 */
TELVANE_AVFILTER_API bool AVFilter_VideoScale_Init(unsigned long long* phHandle);

/*
 * Sets a scaler up for a source and a destination, or sets it up anew. Scaling is bilinear.
 *
 * Formats are AVPixelFormat values, sizes are pixels; mind the order: format, width, height.
 *
 * Codes:
 *   AVFILTER_ERROR_VIDEO_NOT_FOUND    no such handle
 *   AVFILTER_ERROR_VIDEO_PARSE_GRAPH  FFmpeg's scaler refuses the formats or sizes
 * After PARSE_GRAPH the scaler is not set up; the handle stays, and a later call may succeed.
 * Lack of memory for the pictures is not reported here but by AVFilter_VideoScale_Fmt.
 * Waits for the scaling calls that are running, and holds up new ones. Threads: per handle.
 */
TELVANE_AVFILTER_API bool AVFilter_VideoScale_Set(unsigned long long hHandle, int nSrcFormat, int nSrcWidth,
                                                  int nSrcHeight, int nDstFormat, int nDstWidth,
                                                  int nDstHeight);

/*
 * Converts one picture.
 *
 * pSrc: one source picture as a tight block: the format's planes one after another, rows without padding
 *   (what av_image_get_buffer_size counts with alignment 1). Only read, exactly that many bytes.
 * pOut: receives the destination picture in the same kind of layout. May be NULL while *pnOutLen is too
 *   small, to ask for the size (pSrc must be a picture all the same). May overlap pSrc: the picture is
 *   copied in before anything is written.
 * pnOutLen: in: the capacity of pOut. Out: the size of the destination picture, on success and when the
 *   capacity is too small.
 * The result is the picture that FFmpeg's scaler makes into padded, aligned rows, at every size. Between
 * equal formats and sizes the picture is copied as it is, bits that the format does not use included. FFmpeg's scaler does not always make the same
 * picture of the same source: rgb8, bgr8, rgb4_byte and bgr4_byte destinations carry their dither from
 * picture to picture, and the last samples of xyz12 and some 32-bit RGB sources of odd width can differ.
 *
 * Codes; pOut is written to on success only:
 *   AVFILTER_ERROR_VIDEO_NOT_FOUND         no such handle; *pnOutLen unchanged
 *   AVFILTER_ERROR_VIDEO_SCALE             the scaler is not set up, had no memory for its pictures, or
 *                                          failed, as it does on Bayer pictures of one row; *pnOutLen
 *                                          unchanged
 *   AVFILTER_ERROR_VIDEO_BUFFER_TOO_SMALL  *pnOutLen has been set to the size needed; call again
 *   AVFILTER_ERROR_VIDEO_INVALID_PARAM     pSrc or pnOutLen is NULL, or pOut is although the capacity is
 *                                          enough; *pnOutLen unchanged
 * Threads: per handle.
 */
TELVANE_AVFILTER_API bool AVFilter_VideoScale_Fmt(unsigned long long hHandle, const char* pSrc,
                                                  unsigned char* pOut, int* pnOutLen);

/*
 * Releases a scaler, set up or not. Always true, for unknown handles too. The spelling is the
 * interface's own. Waits for the scaling calls that are running. Threads: free.
 */
TELVANE_AVFILTER_API bool AVFilter_VideoScale_Destory(unsigned long long hHandle);

#ifdef __cplusplus
}
#endif

#endif /* TELVANE_AVFILTER_H */
