// Pictures between the caller's buffers and FFmpeg's frames.
#pragma once

#include "api/error.h"
#include "common/ffmpeg.h"

#include <cstddef>
#include <cstdint>

namespace video
{

// The caller's input: three planes with a byte count each, or one block at pPlane[0].
struct InputPicture {
    const unsigned char* pPlane[3];
    int nSize[3];

    // One of the chroma pointers missing means that pPlane[0] holds the whole picture.
    bool IsWhole() const { return pPlane[1] == nullptr || pPlane[2] == nullptr; }
};

// A block of the library's own in which planes may lie; null and 0 for none.
struct Block {
    const std::uint8_t* pStart;
    std::size_t nSize;
};

// Points the frame's planes into one contiguous 4:2:0 block, whatever the frame's format. The line
// sizes stay. Copies nothing.
void PointAtWhole(AVFrame& st_Frame, unsigned char* pPicture);

// Copies each plane as one piece to where the frame's planes point. Returns kNoError or the code to
// report, with nothing copied: a plane that is not there, a negative count, or one that would run
// past the end of the block that the plane lies in.
api::ErrorCode CopyPlanes(AVFrame& st_Frame, const InputPicture& st_Picture, const Block& block);

// Whether a frame of the library's own can be handed to FFmpeg, which aborts the process on one without
// planes or line sizes: there was no memory for it, or its format has no picture in memory.
bool IsSendable(const AVFrame& st_Frame);

// Packs the frame as three 8-bit 4:2:0 planes without padding, whatever its format. Returns the
// number of bytes, or a negative number, with nothing written, for a frame without such planes.
int PackPicture(const AVFrame& st_Frame, unsigned char* pOut);

} // namespace video
