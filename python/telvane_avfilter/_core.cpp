// The C++ layer's classes for the Python beside this file: that knows arrays, here are buffers of bytes.
//
// The interpreter's lock is free while the library works, in destructors too. The lock of each object then
// puts the calls of several threads in order.
#include <Telvane_AVFilter.hpp>

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace py = pybind11;

namespace
{

// What the Python part hands over lies in one piece.
std::span<std::byte> Bytes(const py::buffer_info& info) noexcept
{
    return {static_cast<std::byte*>(info.ptr), static_cast<std::size_t>(info.size * info.itemsize)};
}

// An object of the layer that can be closed.
template <class Layer>
class Object
{
  public:
    explicit Object(Layer&& layer) noexcept : m_Layer(std::move(layer)) {}
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    ~Object()
    {
        PyThreadState* const pState = PyEval_SaveThread();
        {
            const Layer closed(std::move(m_Layer));
        }
        PyEval_RestoreThread(pState);
    }

    void Close()
    {
        const py::gil_scoped_release released;
        const std::lock_guard lock(m_Mutex);
        const Layer closed = std::move(m_Layer);
    }
    template <class Call>
    auto Do(const Call& call)
    {
        const py::gil_scoped_release released;
        const std::lock_guard lock(m_Mutex);
        if (m_Layer.IsEmpty()) {
            throw py::value_error("it is closed");
        }
        return call(m_Layer);
    }
    void Send(std::size_t nInput, const py::buffer& from)
    {
        const py::buffer_info in = from.request();
        Do([&](Layer& layer) { layer.Send(nInput, Bytes(in)); });
    }
    // Bytes, seconds and whether that was all.
    std::tuple<std::size_t, std::optional<double>, bool> Receive(const py::buffer& to)
    {
        const py::buffer_info out = to.request(true);
        const telvane::Received received = Do([&](Layer& layer) { return layer.Receive(Bytes(out)); });
        std::optional<double> seconds;
        if (received.time) {
            seconds = static_cast<double>(received.time->count()) / 1e6;
        }
        return {received.bytes, seconds, received.state == telvane::State::kEnd};
    }
    void Scale(const py::buffer& from, const py::buffer& to)
    {
        const py::buffer_info in = from.request();
        const py::buffer_info out = to.request(true);
        Do([&](Layer& layer) { layer.Scale(Bytes(in), Bytes(out)); });
    }

  private:
    Layer m_Layer;
    std::mutex m_Mutex;
};

template <class Value>
Value Get(const py::handle& object, const char* szName)
{
    return object.attr(szName).cast<Value>();
}

// Sets what an attribute names; None leaves it as it is.
template <class Value, class Find>
void Set(Value& value, const py::handle& object, const char* szName, const Find& find)
{
    if (const auto name = Get<std::optional<std::string>>(object, szName)) {
        const int n = find(name->c_str());
        if (n < 0) {
            throw py::value_error(std::string(szName) + " cannot be \"" + *name + "\"");
        }
        value = static_cast<Value>(n);
    }
}

int FindPixelFormat(std::string_view name) noexcept
{
    for (const telvane::PixelFormat& format : telvane::kPixelFormats) {
        if (name == format.name) {
            return format.format;
        }
    }
    return -1;
}

int FindFields(std::string_view name) noexcept
{
    constexpr std::array<std::string_view, 4> kNames{"", "progressive", "top", "bottom"};
    const auto* const pFound = std::find(kNames.begin(), kNames.end(), name);
    return pFound == kNames.end() ? -1 : static_cast<int>(pFound - kNames.begin());
}

// From the attributes of the classes in Python, which have checked their types.
template <class Value>
Value From(const py::handle& object);

template <>
telvane::Rational From(const py::handle& object)
{
    return {Get<int>(object, "numerator"), Get<int>(object, "denominator")};
}

template <>
telvane::Picture From(const py::handle& object)
{
    telvane::Picture picture{{}, Get<int>(object, "width"), Get<int>(object, "height")};
    Set(picture.format, object, "format", FindPixelFormat);
    return picture;
}

template <>
telvane::VideoStream From(const py::handle& object)
{
    telvane::VideoStream stream{From<telvane::Picture>(object)};
    stream.rate = From<telvane::Rational>(object.attr("rate"));
    stream.length = Get<std::optional<std::int64_t>>(object, "length");
    stream.times = Get<std::vector<std::int64_t>>(object, "times");
    stream.timeBase = From<telvane::Rational>(object.attr("time_base"));
    Set(stream.colour.range, object, "range", av_color_range_from_name);
    Set(stream.colour.primaries, object, "primaries", av_color_primaries_from_name);
    Set(stream.colour.transfer, object, "transfer", av_color_transfer_from_name);
    Set(stream.colour.matrix, object, "matrix", av_color_space_from_name);
    stream.aspect = From<telvane::Rational>(object.attr("aspect"));
    Set(stream.fields, object, "fields", FindFields);
    return stream;
}

template <>
telvane::AudioStream From(const py::handle& object)
{
    return {static_cast<AVSampleFormat>(Get<int>(object, "_format")), Get<int>(object, "rate"),
            Get<int>(object, "channels"), Get<int>(object, "samples"),
            Get<std::optional<std::int64_t>>(object, "length")};
}

template <class Mixer>
void BindMixer(const py::module_& module, const char* szName)
{
    using Self = Object<Mixer>;
    const auto make = [](const py::dict& inputs, const std::string& description, const py::object& out) {
        std::vector<telvane::Input<typename Mixer::Stream>> streams;
        for (const auto& item : inputs) {
            streams.push_back({item.first.cast<std::string>(), From<typename Mixer::Stream>(item.second)});
        }
        std::optional<typename Mixer::Out> output;
        if (!out.is_none()) {
            output = From<typename Mixer::Out>(out);
        }
        const py::gil_scoped_release released;
        return std::make_unique<Self>(Mixer(streams, description, output));
    };
    py::class_<Self>(module, szName)
        .def(py::init(make))
        .def("send", &Self::Send)
        .def("receive", &Self::Receive)
        .def("close", &Self::Close);
}

void BindScaler(const py::module_& module)
{
    using Self = Object<telvane::VideoScaler>;
    const auto make = [](const py::object& from, const py::object& to) {
        const telvane::Picture in = From<telvane::Picture>(from);
        const telvane::Picture out = From<telvane::Picture>(to);
        const py::gil_scoped_release released;
        return std::make_unique<Self>(telvane::VideoScaler(in, out));
    };
    py::class_<Self>(module, "VideoScaler")
        .def(py::init(make))
        .def("scale", &Self::Scale)
        .def("close", &Self::Close);
}

// Arguments that do not fit are a ValueError in the layer's words, all else is the package's Error.
void Translate(std::exception_ptr pError)
{
    try {
        std::rethrow_exception(std::move(pError));
    } catch (const telvane::Error& error) {
        const std::string message = error.code().message();
        std::string what = error.what();
        const int nCode = error.code().value();
        if (nCode == AVFILTER_ERROR_AUDIO_INVALID_PARAM || nCode == AVFILTER_ERROR_VIDEO_INVALID_PARAM) {
            what.resize(what.size() - message.size() - 2);
            PyErr_SetString(PyExc_ValueError, what.c_str());
            return;
        }
        const py::object type = py::module_::import("telvane_avfilter").attr("Error");
        PyErr_SetObject(type.ptr(), type(what, nCode, message.substr(0, message.find(':'))).ptr());
    }
}

// Name, bytes of a sample, and the components that lie side by side; 0 if there are several planes or pixels
// share samples.
std::vector<std::tuple<std::string, int, std::size_t>> PixelFormats()
{
    std::vector<std::tuple<std::string, int, std::size_t>> formats;
    for (const telvane::PixelFormat& format : telvane::kPixelFormats) {
        const bool bPlain = format.planes.find('|') == std::string_view::npos && format.shiftX == 0;
        formats.emplace_back(format.name, format.bits > 8 ? 2 : 1, bPlain ? format.planes.size() : 0);
    }
    return formats;
}

} // namespace

PYBIND11_MODULE(_core, module)
{
    py::register_exception_translator(Translate);
    BindMixer<telvane::AudioMixer>(module, "AudioMixer");
    BindMixer<telvane::VideoMixer>(module, "VideoMixer");
    BindScaler(module);
    module.def("pixel_formats", PixelFormats);
    module.def("picture_bytes", [](const py::object& picture) {
        return telvane::PictureBytes(From<telvane::VideoStream>(picture).picture);
    });
    module.attr("version") = py::str("{}.{}.{}")
                                 .format(TELVANE_AVFILTER_VERSION_MAJOR, TELVANE_AVFILTER_VERSION_MINOR,
                                         TELVANE_AVFILTER_VERSION_PATCH);
}
