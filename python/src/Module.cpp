// SPDX-License-Identifier: Apache-2.0
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <optional>

#include "interface/SuperResolutionContext.h"
#include "interface/SuperResolutionExtensions.h"
#include "python/src/Resolver.h"
#include "tools/kelvo-sr/FrameReader.h"
#include "tools/simulator/ImageQuality.h"
#include "vision/superresolution/BadPixel.h"

namespace py = pybind11;

namespace kelvo::python {

namespace {

using FloatFrame = py::array_t<float, py::array::c_style | py::array::forcecast>;
using ShortFrame = py::array_t<short, py::array::c_style | py::array::forcecast>;
using Table = cv::Mat_<unsigned short>;

std::string shapeText(const py::array& array) {
    return py::str(py::tuple(py::cast(
                       std::vector<py::ssize_t>(array.shape(), array.shape() + array.ndim()))))
        .cast<std::string>();
}

void checkShape(const py::array& array, int width, int height) {
    if (array.ndim() != 2) {
        throw py::value_error("a frame must be a 2-D array (rows, columns), not one of shape " +
                              shapeText(array));
    }
    if (array.shape(0) != height || array.shape(1) != width) {
        throw py::value_error("the frame has shape " + shapeText(array) +
                              " but the resolver takes frames of shape (" + std::to_string(height) +
                              ", " + std::to_string(width) + ")");
    }
}

// A view of a checked array, for the engine to copy from.
template <class Value>
cv::Mat_<Value> matOf(const py::array_t<Value, py::array::c_style | py::array::forcecast>& image) {
    return cv::Mat_<Value>(static_cast<int>(image.shape(0)), static_cast<int>(image.shape(1)),
                           const_cast<Value*>(image.data()));
}

// Any real array of the frame's size, as float32 rows without gaps: float32 as it is,
// other real types converted, strided or Fortran-ordered arrays copied.
FloatFrame asFrame(py::handle object, int width, int height) {
    py::array array = py::array::ensure(object);
    if (!array) {
        throw py::type_error("a frame must be a 2-D array, not " +
                             py::str(py::type::of(object)).cast<std::string>());
    }
    const char kind = array.dtype().kind();
    if (kind != 'f' && kind != 'i' && kind != 'u') {
        throw py::type_error("frames must hold real numbers (a float or integer dtype), not " +
                             py::str(array.dtype()).cast<std::string>());
    }
    checkShape(array, width, height);
    return FloatFrame::ensure(array);
}

template <class Value>
py::array_t<Value> arrayOf(std::initializer_list<py::ssize_t> shape) {
    return py::array_t<Value>(std::vector<py::ssize_t>(shape));
}

// 16-bit images for the bad-pixel utilities, which change their input: always a copy.
template <class Value>
cv::Mat_<Value> imageCopyOf(
    const py::array_t<Value, py::array::c_style | py::array::forcecast>& image) {
    if (image.ndim() != 2) {
        throw py::value_error("the image must be a 2-D array (rows, columns), not one of shape " +
                              shapeText(image));
    }
    cv::Mat_<Value> copy(static_cast<int>(image.shape(0)), static_cast<int>(image.shape(1)));
    std::memcpy(copy.ptr(), image.data(), sizeof(Value) * copy.total());
    return copy;
}

Table tableOf(const py::array_t<unsigned short, py::array::c_style | py::array::forcecast>& table) {
    if (table.ndim() != 2 || table.shape(1) != vision::BadPixel::kTableColumns) {
        throw py::value_error(
            "a bad-pixel table has ten columns (x, y and four replacements), "
            "not shape " +
            shapeText(table));
    }
    Table copy(static_cast<int>(table.shape(0)), vision::BadPixel::kTableColumns);
    if (copy.rows > 0) {
        std::memcpy(copy.ptr(), table.data(), sizeof(unsigned short) * copy.total());
    }
    return copy;
}

template <class Value>
py::array_t<Value> arrayCopyOf(const cv::Mat_<Value>& image) {
    auto array = arrayOf<Value>({image.rows, image.cols});
    if (image.total() > 0) {
        std::memcpy(array.mutable_data(), image.ptr(), sizeof(Value) * image.total());
    }
    return array;
}

void bindResolver(py::module_& module) {
    py::class_<Resolver>(module, "_Resolver",
                         "The engine behind SuperResolver; use that class instead.")
        .def(py::init([](int width, int height, const std::string& engine, bool counts,
                         std::optional<std::pair<float, float>> validRange, int reference,
                         float psfSigma, bool psfSigmaFromFrames,
                         const std::vector<std::pair<int, int>>& badPixels, int threads,
                         bool timings) {
                 ResolverOptions options;
                 options.engine = engine;
                 options.counts = counts;
                 if (validRange) {
                     options.validRangeGiven = true;
                     options.validMinimum = validRange->first;
                     options.validMaximum = validRange->second;
                 }
                 options.reference = reference;
                 options.psfSigma = psfSigma;
                 options.psfSigmaFromFrames = psfSigmaFromFrames;
                 for (const auto& [x, y] : badPixels) {
                     options.badPixels.emplace_back(x, y);
                 }
                 options.threads = threads;
                 options.timings = timings;
                 return std::make_unique<Resolver>(width, height, options);
             }),
             py::arg("width"), py::arg("height"), py::arg("engine"), py::arg("counts"),
             py::arg("valid_range"), py::arg("reference"), py::arg("psf_sigma"),
             py::arg("psf_sigma_from_frames"), py::arg("bad_pixels"), py::arg("threads"),
             py::arg("timings"))
        .def(
            "add",
            [](Resolver& resolver, py::handle frame, bool withPass) {
                const FloatFrame pixels = asFrame(frame, resolver.width(), resolver.height());
                py::gil_scoped_release released;
                return withPass ? resolver.add(pixels.data()) : resolver.load(pixels.data());
            },
            py::arg("frame"), py::arg("with_pass") = true)
        .def(
            "process_counts",
            [](Resolver& resolver, const ShortFrame& counts) {
                checkShape(counts, resolver.width(), resolver.height());
                py::gil_scoped_release released;
                return resolver.processCounts(counts.data());
            },
            py::arg("counts"))
        .def(
            "set_calibration",
            [](Resolver& resolver, const ShortFrame& countsA, const FloatFrame& radianceA,
               const ShortFrame& countsB, const FloatFrame& radianceB) {
                for (const py::array& image : {py::array(countsA), py::array(radianceA),
                                               py::array(countsB), py::array(radianceB)}) {
                    checkShape(image, resolver.width(), resolver.height());
                }
                resolver.setCalibration(matOf(countsA), matOf(radianceA), matOf(countsB),
                                        matOf(radianceB));
            },
            py::arg("counts_a"), py::arg("radiance_a"), py::arg("counts_b"), py::arg("radiance_b"))
        .def("calibration_maps",
             [](const Resolver& resolver) {
                 cv::Mat_<float> gain, offset, radiance, quality;
                 resolver.copyCalibrationMaps(gain, offset, radiance, quality);
                 return py::make_tuple(arrayCopyOf(gain), arrayCopyOf(offset),
                                       arrayCopyOf(radiance), arrayCopyOf(quality));
             })
        .def_property_readonly("width", &Resolver::width)
        .def_property_readonly("height", &Resolver::height)
        .def_property_readonly("output_shape",
                               [](const Resolver& resolver) {
                                   return py::make_tuple(resolver.outputHeight(),
                                                         resolver.outputWidth());
                               })
        .def_property_readonly("frames_added", &Resolver::framesAdded)
        .def_property_readonly("pass_result", &Resolver::passResult)
        .def_property_readonly("psf_sigma", &Resolver::psfSigma)
        .def_property_readonly("psf_sigma_refusal", &Resolver::psfSigmaRefusal)
        .def("result",
             [](const Resolver& resolver) -> py::object {
                 auto image = arrayOf<float>({resolver.outputHeight(), resolver.outputWidth()});
                 float* pixels = image.mutable_data();
                 bool copied = false;
                 {
                     py::gil_scoped_release released;
                     copied = resolver.copyLastPass(pixels, nullptr, nullptr);
                 }
                 return copied ? py::object(image) : py::none();
             })
        .def("shifts",
             [](const Resolver& resolver) -> py::object {
                 std::vector<cv::Point_<float>> shifts;
                 if (!resolver.copyLastPass(nullptr, &shifts, nullptr)) {
                     return py::none();
                 }
                 auto array = arrayOf<float>({static_cast<py::ssize_t>(shifts.size()), 2});
                 auto values = array.mutable_unchecked<2>();
                 for (size_t i = 0; i < shifts.size(); ++i) {
                     values(i, 0) = shifts[i].x;
                     values(i, 1) = shifts[i].y;
                 }
                 return std::move(array);
             })
        .def("masks", [](const Resolver& resolver) -> py::object {
            std::vector<cv::Mat_<unsigned char>> masks;
            if (!resolver.copyLastPass(nullptr, nullptr, &masks)) {
                return py::none();
            }
            auto array = arrayOf<bool>(
                {static_cast<py::ssize_t>(masks.size()), resolver.height(), resolver.width()});
            bool* usable = array.mutable_data();
            for (const cv::Mat_<unsigned char>& mask : masks) {
                for (const unsigned char value : mask) {
                    *usable++ = value != 0;
                }
            }
            return std::move(array);
        });
}

void bindBadPixels(py::module_& module) {
    using vision::BadPixel;
    module.def(
        "_search_bad_pixels",
        [](const py::array_t<short, py::array::c_style | py::array::forcecast>& image,
           short highLimit, int maxNeighbours, int span, int capacity) -> py::object {
            cv::Mat_<short> values = imageCopyOf(image);
            cv::Mat_<int> histogram;
            if (!BadPixel::buildValueHistogram(values, histogram, 0, highLimit)) {
                throw py::value_error("the image is empty or larger than 65535 pixels a side");
            }
            Table table(capacity, BadPixel::kTableColumns);
            if (!BadPixel::performNeighbourSearch(values, histogram, table, 0, highLimit,
                                                  static_cast<unsigned short>(maxNeighbours),
                                                  static_cast<unsigned short>(span))) {
                return py::none();  // the table is full
            }
            // A search that finds nothing leaves the table at its capacity, all zeros.
            return arrayCopyOf(table.rows == capacity ? Table(0, BadPixel::kTableColumns) : table);
        },
        "Bad pixels of a 16-bit image whose search range is shifted to 0..high_limit; "
        "None when more than `capacity` are found.",
        py::arg("image"), py::arg("high_limit"), py::arg("max_neighbours"), py::arg("span"),
        py::arg("capacity"));
    module.def(
        "_choose_replacements",
        [](const py::array_t<unsigned short, py::array::c_style | py::array::forcecast>& rows,
           int width, int height, unsigned int radius) {
            Table table = tableOf(rows);
            const bool complete =
                BadPixel::calculateReplacePixels(table, cv::Size(width, height), radius);
            return py::make_tuple(arrayCopyOf(table), complete);
        },
        py::arg("table"), py::arg("width"), py::arg("height"), py::arg("radius"));
    module.def(
        "_remove_bad_pixels",
        [](const py::array_t<short, py::array::c_style | py::array::forcecast>& image,
           const py::array_t<unsigned short, py::array::c_style | py::array::forcecast>& rows) {
            cv::Mat_<short> values = imageCopyOf(image);
            BadPixel::removeBadPixel(values, tableOf(rows));
            return arrayCopyOf(values);
        },
        py::arg("image"), py::arg("table"));
}

}  // namespace

void bindModule(py::module_& module) {
    module.doc() = "The C++ engines of kelvo_superres; import kelvo_superres instead.";
    static py::exception<LibraryError> error(module, "Error", PyExc_ValueError);
    error.attr("__doc__") =
        "A failure the library reports: `code` is the C interface's return code for it "
        "(-999 for a failure inside the engine) and the message is the library's.";
    error.attr("__module__") = "kelvo_superres";
    error.attr("code") = -999;
    py::register_exception_translator([](std::exception_ptr pointer) {
        try {
            if (pointer) {
                std::rethrow_exception(pointer);
            }
        } catch (const LibraryError& failure) {
            py::object instance = static_cast<py::object&>(error)(failure.what());
            instance.attr("code") = failure.code;
            PyErr_SetObject(error.ptr(), instance.ptr());
        }
    });
    char version[32] = {};
    SuperResolution_getVersionText(version, sizeof version);
    module.attr("__version__") = std::string(version);
    module.def("_psf_sigma_of_camera", &interface::psfSigmaOfCameraAndLensType,
               py::arg("camera_and_lens_type"));
    module.def(
        "upscale_bicubic",
        [](const FloatFrame& frame) {
            if (frame.ndim() != 2 || frame.size() == 0) {
                throw py::value_error("a frame must be a non-empty 2-D array, not one of shape " +
                                      shapeText(frame));
            }
            return arrayCopyOf(tools::ImageQuality::upscaleBicubic(matOf(frame)));
        },
        py::arg("frame"),
        "Bicubic upscaling by 2 onto the grid of the super-resolved image, for comparisons.");
    module.def(
        "read_frame",
        [](const std::string& path) {
            cv::Mat_<float> frame;
            try {
                frame = tools::readFrame(path, nullptr);
            } catch (const std::runtime_error& error) {
                throw py::value_error(error.what());
            }
            return arrayCopyOf(frame);
        },
        py::arg("path"),
        "Reads an image file (8- or 16-bit PNG, TIFF or JPEG, 32-bit float TIFF; colour turned "
        "grey) as a float32 frame of its stored values, exactly as the kelvo-sr tool reads it.");
    bindResolver(module);
    bindBadPixels(module);
}

}  // namespace kelvo::python

PYBIND11_MODULE(_core, module) {
    kelvo::python::bindModule(module);
}
