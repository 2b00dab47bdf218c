// The native part of the Python package: the Solver, with numpy arrays and dictionaries.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <chrono>
#include <future>
#include <limits>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <vector>

#include "solver/solver.h"

namespace py = pybind11;

namespace vestrel {
namespace {

/// Does long work without holding Python's lock, and lets Ctrl-C end it.
template <typename Work>
auto WithoutLock(const Work& work) {
    std::stop_source source;
    const SolverWatch watch{source.get_token(), {}};
    bool interrupted = false;
    auto result = [&] {
        const py::gil_scoped_release release;
        auto future = std::async(std::launch::async, [&] { return work(watch); });
        constexpr std::chrono::milliseconds tick{50};
        while (future.wait_for(tick) != std::future_status::ready) {
            const py::gil_scoped_acquire acquire;
            if (PyErr_CheckSignals() == 0) continue;
            interrupted = true;
            source.request_stop();
            break;
        }
        return future.get();
    }();
    if (interrupted) throw py::error_already_set();
    return result;
}

SampleType TypeOf(const py::array& array) {
    const py::dtype type = array.dtype();
    const auto is = [&type](char kind, int bytes) {
        return type.kind() == kind && type.itemsize() == bytes;
    };
    if (type.attr("isnative").cast<bool>()) {
        if (is('u', 1)) return SampleType::UInt8;
        if (is('u', 2)) return SampleType::UInt16;
        if (is('i', 2)) return SampleType::Int16;
        if (is('u', 4)) return SampleType::UInt32;
        if (is('i', 4)) return SampleType::Int32;
        if (is('f', 4)) return SampleType::Float32;
        if (is('f', 8)) return SampleType::Float64;
    }
    throw py::type_error("pixels: an array of uint8, (u)int16, (u)int32, float32 or float64");
}

PixelPicture PictureOf(const py::array& pixels, bool topRowFirst, std::vector<std::string> cards) {
    if (pixels.ndim() != 2 && pixels.ndim() != 3) {
        throw py::value_error("pixels: rows and columns, and maybe channels");
    }
    PixelPicture picture;
    picture.Type = TypeOf(pixels);
    picture.Samples = pixels.data();
    picture.Height = pixels.shape(0);
    picture.Width = pixels.shape(1);
    if (pixels.ndim() == 3) {
        if (pixels.shape(2) > std::numeric_limits<int>::max()) throw py::value_error("channels");
        picture.Channels = static_cast<int>(pixels.shape(2));
    }
    picture.TopRowFirst = topRowFirst;
    picture.Cards = std::move(cards);
    picture.Name = "array";
    return picture;
}

/// Numbers as an array with rows of `columns` numbers.
py::array_t<double> Table(const std::vector<double>& numbers, std::size_t columns) {
    py::array_t<double> table({numbers.size() / columns, columns});
    std::copy(numbers.begin(), numbers.end(), table.mutable_data());
    return table;
}

/// A text that may hold the name of a file, which need not be UTF-8.
py::str Text(const std::string& text) {
    return py::reinterpret_steal<py::str>(
        PyUnicode_DecodeUTF8(text.data(), static_cast<py::ssize_t>(text.size()), "replace"));
}

py::dict DictionaryOf(const SolverOutcome& outcome, const Solver& solver) {
    py::dict result;
    result["end"] = NameOf(outcome.End);
    result["reason"] = Text(outcome.Reason);
    result["advice"] = outcome.Advice;
    result["cause"] = Text(outcome.Cause);
    result["cause_kind"] = outcome.CauseKind;
    result["width"] = outcome.Picture.Width;
    result["height"] = outcome.Picture.Height;
    result["seconds"] = outcome.Seconds;
    result["solved_by"] = outcome.SolvedBy;
    result["started_from"] = outcome.StartedFrom;
    result["log10_false_alarm"] = outcome.Certainty.Log10FalseAlarm;
    result["stars_in_frame"] = outcome.Certainty.InFrame;
    result["expected_by_chance"] = outcome.Certainty.ExpectedByChance;
    std::vector<double> stars;
    for (const SolverStar& star : outcome.Stars)
        stars.insert(stars.end(), {star.X, star.Y, star.Flux});
    result["stars"] = Table(stars, 3);
    std::vector<double> matches;
    if (outcome.Field) {
        const SolvedField& field = *outcome.Field;
        result["ra"] = field.Centre.Ra;
        result["dec"] = field.Centre.Dec;
        result["field"] = py::make_tuple(field.Width, field.Height);
        if (field.Coordinates.Crpix[0] > 0) {
            result["scale"] = field.Coordinates.Scale();
            result["rotation"] = field.Coordinates.Rotation();
            result["mirrored"] = field.Coordinates.Mirrored();
        }
        result["rms"] = field.Rms;
        result["centre_error"] = field.CentreError;
        result["cautions"] = field.Cautions;
        for (const SolverMatch& match : field.Matches) {
            matches.insert(matches.end(), {match.X, match.Y, match.Flux, match.Sky.Ra,
                                           match.Sky.Dec, match.Magnitude, match.Residual});
        }
    }
    constexpr std::size_t columns = 7;
    result["matches"] = Table(matches, columns);
    result["cards"] = solver.CoordinateCards();
    return result;
}

/// A Solver that allows one call at a time and releases Python's lock while it works.
class NativeSolver {
 public:
    NativeSolver(const std::string& catalog, int threads, double detectionThreshold,
                 int minStarSize, int maxStars, double maxError)
        : solver_([&] {
              SolverSettings settings;
              settings.CatalogFolder = catalog;
              settings.Threads = threads;
              settings.DetectionThreshold = detectionThreshold;
              settings.MinStarSize = minStarSize;
              settings.MaxStars = maxStars;
              settings.MaxError = maxError;
              return settings;
          }()) {}

    void OpenPath(const std::string& path) {
        const Busy busy(busy_);
        WithoutLock([&](const SolverWatch& watch) { return solver_.Open(path, watch); });
    }

    void OpenPixels(const py::array& pixels, bool topRowFirst,
                    const std::vector<std::string>& cards) {
        const Busy busy(busy_);
        // Rows without gaps, in the machine's byte order. This copies only arrays that are not so
        // already.
        const py::array plain = py::array::ensure(pixels, py::array::c_style);
        const PixelPicture picture = PictureOf(plain, topRowFirst, cards);
        WithoutLock([&](const SolverWatch& watch) { return solver_.Open(picture, watch); });
    }

    void OpenStars(const py::array_t<double, py::array::c_style | py::array::forcecast>& stars,
                   std::int64_t width, std::int64_t height, const std::vector<std::string>& cards) {
        const Busy busy(busy_);
        if (stars.ndim() != 2 || stars.shape(1) != 3) {
            throw py::value_error("stars: one row of x, y, flux for each");
        }
        StarField field;
        field.Width = width;
        field.Height = height;
        field.Cards = cards;
        const auto rows = stars.unchecked<2>();
        for (py::ssize_t i = 0; i < rows.shape(0); ++i) {
            field.Stars.push_back({rows(i, 0), rows(i, 1), rows(i, 2)});
        }
        WithoutLock([&](const SolverWatch& watch) { return solver_.Open(field, watch); });
    }

    using Pair = std::optional<std::pair<double, double>>;
    py::dict Solve(const Pair& centre, double radius, const Pair& scale, const Pair& width,
                   const Pair& height, bool fromPicture, bool wholeSky, double timeLimit) {
        const Busy busy(busy_);
        SolverHints hints;
        if (centre) hints.Centres.push_back({centre->first, centre->second, radius});
        const auto range = [](const Pair& pair) {
            return pair ? std::optional(SolverRange{pair->first, pair->second}) : std::nullopt;
        };
        hints.Scale = range(scale);
        hints.FieldWidth = range(width);
        hints.FieldHeight = range(height);
        hints.FromPicture = fromPicture;
        hints.WholeSky = wholeSky;
        hints.TimeLimit = hints.EndAfter = timeLimit;
        const SolverOutcome outcome =
            WithoutLock([&](const SolverWatch& watch) { return solver_.Solve(hints, watch); });
        return DictionaryOf(outcome, solver_);
    }

    std::vector<std::string> Cards(int sipOrder) const {
        CardOptions options;
        options.MostSipOrder = sipOrder;
        return solver_.CoordinateCards(options);
    }

 private:
    /// Refuses a second call: other Python threads run while this one works.
    class Busy {
     public:
        explicit Busy(bool& busy) : busy_(busy) {
            if (busy) throw std::runtime_error("This Solver is at work on another thread.");
            busy_ = true;
        }
        ~Busy() { busy_ = false; }
        Busy(const Busy&) = delete;
        Busy& operator=(const Busy&) = delete;

     private:
        bool& busy_;
    };

    Solver solver_;
    bool busy_ = false;
};

}  // namespace
}  // namespace vestrel

PYBIND11_MODULE(_native, module) {
    using vestrel::NativeSolver;
    module.attr("version") = VESTREL_VERSION;
    const vestrel::SolverSettings settings;
    const vestrel::SolverHints hints;
    module.attr("DETECTION_THRESHOLD") = settings.DetectionThreshold;
    module.attr("MIN_STAR_SIZE") = settings.MinStarSize;
    module.attr("MAX_STARS") = settings.MaxStars;
    module.attr("MAX_ERROR") = settings.MaxError;
    module.attr("TIME_LIMIT") = hints.TimeLimit;
    module.attr("RADIUS") = vestrel::SolverCentre().Radius;
    py::class_<NativeSolver>(module, "Solver")
        .def(py::init<const std::string&, int, double, int, int, double>(), py::arg("catalog"),
             py::arg("threads"), py::arg("detection_threshold"), py::arg("min_star_size"),
             py::arg("max_stars"), py::arg("max_error"))
        .def("open_path", &NativeSolver::OpenPath, py::arg("path"))
        .def("open_pixels", &NativeSolver::OpenPixels, py::arg("pixels"), py::arg("top_row_first"),
             py::arg("cards"))
        .def("open_stars", &NativeSolver::OpenStars, py::arg("stars"), py::arg("width"),
             py::arg("height"), py::arg("cards"))
        .def("solve", &NativeSolver::Solve, py::arg("centre"), py::arg("radius"), py::arg("scale"),
             py::arg("width"), py::arg("height"), py::arg("from_picture"), py::arg("whole_sky"),
             py::arg("time_limit"))
        .def("cards", &NativeSolver::Cards, py::arg("sip_order"));
}
