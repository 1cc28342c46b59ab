/*
 * telvane: the functions of Telvane_AVFilter.h as five C++20 classes, on buffers that know their size.
 *
 *   AudioFilter, AudioMixer, VideoFilter, VideoMixer   Send() a block or picture, Receive() what came of it
 *   VideoScaler                                        Scale() one picture into another
 *
 * What comes out is what FFmpeg gives for the description, in any format that can go in, with its time, and
 *   with the end of the stream where the inputs' lengths are known.
 * Bounds. Every buffer's size is checked before anything is called, and nothing larger than OutputBytes()
 *   can come out: the layer itself ends each graph in the format and size that were declared. Still,
 *   descriptions are programs, which open files and load plugins: never take one from strangers.
 * Descriptions lead to the label [out], from [in] (filters) or from the inputs' names (mixers). A last
 *   output without a label is [out], a filter's first input without one is [in]: "hflip" is enough. Refused
 *   are words with telvane_, the layer's own labels, and sendcmd and zmq, filters that can change the
 *   layer's own; sws_flags in front of a graph is not understood.
 * Unknown lengths. A stream whose length is not known does not end. Filters that wait for the end then keep
 *   what they hold: reverse, areverse and palettegen, which would give nothing at all, are refused; dynaudnorm
 *   keeps ten seconds; loudnorm, aecho, atempo, fps, tile and minterpolate their last part. Filters that ask
 *   for the rate of the pictures (xfade, telecine, decimate) find it in streams of known length and constant
 *   rate only.
 * Known lengths. Such a stream of constant rate reaches the description one picture late, as a filter that
 *   tells the rate holds it back. The end of an input comes once the other inputs have been sent as far, in
 *   time. tpad=start alone makes pictures of a stream of none, which the ffmpeg command does not.
 * Errors are thrown as Error, whose code() is an AVFILTER_ERROR_* value and whose what() explains it. The
 *   layer's own refusals are INVALID_PARAM, empty objects and unknown inputs NOT_FOUND: the object is then
 *   as it was before the call. After other failures it stays usable. Memory may also run out as
 *   std::bad_alloc. That a call failed is right, but its code comes from the C interface's process-wide
 *   variable: calls that fail on two threads at once may report each other's.
 * An endless source within the description never runs empty: do not receive until nothing comes.
 * Moving leaves an empty object, whose sizes are 0 and whose calls throw; it can be assigned to again.
 * Each filter or mixer that tells times learns them by a file of memory (memfd_create: Linux), a descriptor
 *   each, which stays below some kilobytes (RLIMIT_FSIZE). One made before a fork is refused in the child.
 * Where FFmpeg's own pixels depend on what lies in memory: a scale whose size changes back to an earlier one
 *   (eval=frame, seen with 5.1); from rgb formats of odd width to subsampled chroma, the last column's chroma, as
 *   the scaler reads a pixel beyond the row; of sound vibrato and the end of axcorrelate.
 * Threads, for every class: different objects work in parallel; the calls on one object must be put in
 *   order by the caller. Creating and destroying wait for the calls of the same family that are running.
 */
#ifndef TELVANE_AVFILTER_HPP
#define TELVANE_AVFILTER_HPP

#include "telvane/audio.hpp"
#include "telvane/scaler.hpp"
#include "telvane/video.hpp"

#endif
