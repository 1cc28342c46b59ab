// What goes into a filter or mixer, and what Receive tells of what comes out.
#ifndef TELVANE_STREAMS_HPP
#define TELVANE_STREAMS_HPP

#include "telvane/formats.hpp"

extern "C" {
#include <libavutil/samplefmt.h>
}

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace telvane
{

/// num / den
struct Rational {
    int num = 0; ///< numerator
    int den = 1; ///< denominator
};

/// What is known of a picture's colours. What is left unspecified FFmpeg treats as it does in a file that
/// says nothing. Formats that are called yuvj have the full range in any case.
struct Colour {
    AVColorRange range = AVCOL_RANGE_UNSPECIFIED;                   ///< full or limited
    AVColorPrimaries primaries = AVCOL_PRI_UNSPECIFIED;             ///< what red, green and blue are
    AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED; ///< the curve
    AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED;                    ///< between RGB and YUV
};

/// Whether a picture is one or two fields, and which of them is the earlier one.
enum class Fields { kUnknown, kProgressive, kTopFirst, kBottomFirst };

/// An input of pictures.
struct VideoStream {
    Picture picture; ///< format and size
    /// Pictures per second: they are sent with the times 0, 1/rate, 2/rate and so on.
    Rational rate{25, 1};
    /// How many pictures will be sent; nothing if that is not known. Only where it is known does the stream
    /// end: the filters then get the end right after the last picture.
    std::optional<std::int64_t> length = {};
    /// For pictures that do not follow each other evenly: the time of each, in units of timeBase, ascending,
    /// up to 2^53. Their number is the length; of one more than length says, the last is the time at which
    /// the stream ends. The rate is then not used.
    std::vector<std::int64_t> times = {};
    Rational timeBase{1, 1000}; ///< seconds
    /// The rate that filters are told of such a stream ("decimate" asks for one); 0: none.
    Rational toldRate{0, 1};
    Colour colour = {};               ///< as the source says it
    Rational aspect{0, 1};            ///< of a pixel, width by height; 0 is unknown
    Fields fields = Fields::kUnknown; ///< as the source says it
};

/// Packed samples: AV_SAMPLE_FMT_U8, S16, S32, FLT or DBL, the channels interleaved in FFmpeg's default
/// layout of their number.
struct AudioStream {
    AVSampleFormat format = AV_SAMPLE_FMT_S16; ///< packed
    int rate = 0;                              ///< samples per second
    int channels = 0;                          ///< 1 to 8, 16 or 24: the numbers that have a default layout
    int samples = 0;                           ///< of each channel in a block
    /// How many samples of each channel will be sent; nothing if that is not known. Only where it is known
    /// does the stream end. The last block is then shorter, if there are not enough for a whole one. Not
    /// used for outputs.
    std::optional<std::int64_t> length = {};
};

/// An input of a mixer: its label in the description, without brackets, and what will be sent.
template <class Stream>
struct Input {
    std::string name; ///< the label
    Stream stream;    ///< what will be sent
};
using AudioInput = Input<AudioStream>;
using VideoInput = Input<VideoStream>;

enum class State {
    kOutput, ///< a picture or block has been written
    kNotYet, ///< nothing for now: send more
    kEnd     ///< nothing more will come
};

/// Whether Receive tells times. They cost some 5 microseconds for each picture or block; without them a
/// description that ends by itself ("trim") is only known to have ended when its inputs have.
enum class Times { kGiven, kNone };

/// The answer of Receive; true if there is something.
struct Received {
    State state = State::kNotYet; ///< whether there is something, or will be
    std::size_t bytes = 0;        ///< written
    /// When the picture or block begins, rounded to microseconds; nothing if the graph gives it no time,
    /// or with Times::kNone.
    std::optional<std::chrono::microseconds> time = {};
    /// Whether a picture or block has been written.
    explicit operator bool() const noexcept { return state == State::kOutput; }
};

} // namespace telvane

#endif
