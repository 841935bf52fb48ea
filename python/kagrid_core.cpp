// kagrid._core: the public library (include/kagrid/kagrid.h) for Python, plus
// the experimental variogram, its fit and the tuning sweep, which the library
// does not offer, bound straight to the engine's own functions. All binding
// code lives in this one file; the package's Python layer (kagrid/*.py) does
// the conversions to and from NumPy, pandas and xarray.
//
// Samples arrive as 1-D float64 C-contiguous arrays (the Python layer converts
// anything else once) and are read in place: the spans handed to the library
// point into the arrays' own memory. Long calls release the GIL; the progress
// callback takes it back at most every 100 ms to run Python's signal handlers
// (Ctrl-C stops the run between rows) and the user's callback.

#include <pybind11/functional.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <cmath>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "include/kagrid/kagrid.h"
#include "io/KaNumericJson.h"
#include "io/KaParamJson.h"
#include "methods/KaMemoryGuard.h"
#include "methods/KaMethodRegistry.h"
#include "methods/KaPredict.h"
#include "methods/numeric/KaVariogramFit.h"
#include "search/KaSearchGrid.h"
#include "tune/KaTune.h"
#include "tune/KaVariogramInput.h"

namespace py = pybind11;

namespace {

// Raised when the progress callback asked to stop (Ctrl-C raises KeyboardInterrupt instead).
PyObject* cancelledType = nullptr;

// ---------------------------------------------------------------- samples

// A column the core reads in place: the Python layer hands over float64,
// one-dimensional, C-contiguous arrays, so nothing here copies.
std::span<const double> Column(const py::array& a, const char* name)
{
    if (!py::isinstance<py::array_t<double, py::array::c_style>>(a) || a.ndim() != 1)
        throw py::value_error(std::string(name) + ": expected a 1-D float64 C-contiguous array");
    return {static_cast<const double*>(a.data()), static_cast<std::size_t>(a.size())};
}

kagrid::PointsView View(const py::array& x, const py::array& y, const py::array& z)
{
    kagrid::PointsView v{Column(x, "x"), Column(y, "y"), Column(z, "z")};
    if (v.x.size() != v.y.size() || v.x.size() != v.z.size())
        throw py::value_error("x, y and z hold " + std::to_string(v.x.size()) + ", " + std::to_string(v.y.size()) +
                              " and " + std::to_string(v.z.size()) + " values");
    return v;
}

// A NumPy array that owns a vector's buffer (moved, not copied).
py::array_t<double> Owned(std::vector<double>&& v, std::vector<py::ssize_t> shape)
{
    if (v.empty()) return py::array_t<double>(shape);
    auto* held = new std::vector<double>(std::move(v));
    py::capsule owner(held, [](void* p) { delete static_cast<std::vector<double>*>(p); });
    return py::array_t<double>(shape, held->data(), owner);
}

// What the core reads, as arrays over the very same memory (for the tests'
// np.shares_memory).
py::tuple DebugView(const py::array& x, const py::array& y, const py::array& z)
{
    const kagrid::PointsView v = View(x, y, z);
    auto wrap = [](std::span<const double> s, const py::array& base) {
        return py::array_t<double>({static_cast<py::ssize_t>(s.size())}, {sizeof(double)}, s.data(), base);
    };
    return py::make_tuple(wrap(v.x, x), wrap(v.y, y), wrap(v.z, z));
}

// ---------------------------------------------------------------- progress

// The library's progress callback for a call made without the GIL.
class Progress {
public:
    explicit Progress(py::object callback) : callback_(std::move(callback)) {}

    bool operator()(int percent)
    {
        const auto now = std::chrono::steady_clock::now();
        if (percent < 100 && now - checked_ < std::chrono::milliseconds(100)) return true;
        checked_ = now;
        py::gil_scoped_acquire gil;
        if (failure_) return false;
        if (PyErr_CheckSignals() != 0) {
            failure_.emplace();  // takes the KeyboardInterrupt (or the handler's exception)
            return false;
        }
        if (callback_.is_none() || percent == last_) return true;
        last_ = percent;
        try {
            py::object answer = callback_(percent);
            if (!answer.is_none() && !py::bool_(answer)) {
                cancelled_ = true;
                return false;
            }
        } catch (py::error_already_set& e) {
            failure_.emplace(std::move(e));
            return false;
        }
        return true;
    }

    // After the call, with the GIL: the Python exception that stopped it, if any.
    void Rethrow()
    {
        if (failure_) {
            py::error_already_set e = std::move(*failure_);
            failure_.reset();
            throw e;
        }
        if (cancelled_) {
            PyErr_SetString(cancelledType, "stopped by the progress callback");
            throw py::error_already_set();
        }
    }

    ~Progress()
    {
        if (failure_) {
            py::gil_scoped_acquire gil;
            failure_.reset();
        }
    }

private:
    py::object callback_;
    int last_ = -1;
    bool cancelled_ = false;
    std::chrono::steady_clock::time_point checked_{};
    std::optional<py::error_already_set> failure_;
};

// Runs `work` without the GIL, with the progress callback installed; turns a
// stop into the Python exception that caused it.
template <typename Work>
auto Released(Progress& progress, kagrid::RunOptions& options, Work work)
{
    options.progress = [&progress](int percent) { return progress(percent); };
    try {
        py::gil_scoped_release release;
        return work();
    } catch (const kagrid::Error& e) {
        if (e.kind() == kagrid::Error::Kind::Cancelled) progress.Rethrow();
        throw;
    } catch (const KaCancelled&) {
        progress.Rethrow();
        throw;
    }
}

kagrid::RunOptions Options(unsigned threads, bool stdDev)
{
    kagrid::RunOptions o;
    o.threads = threads;
    o.stdDev = stdDev;
    return o;
}

// ---------------------------------------------------------------- records

using Settings = std::vector<std::pair<std::string, std::string>>;

kagrid::Record MakeRecord(const std::string& method, const py::array& x, const py::array& y, const py::array& z,
                          const std::string& bounds, const std::string& cell, const std::string& size,
                          const std::string& like, const Settings& settings, const std::string& paramsFile,
                          bool pluginDefaults)
{
    const kagrid::PointsView v = View(x, y, z);
    kagrid::Geometry g{bounds, cell, size, like};
    py::gil_scoped_release release;
    return kagrid::Record::make(method, v, g, settings, paramsFile,
                                pluginDefaults ? kagrid::Defaults::Plugin : kagrid::Defaults::NearestFirst);
}

// The engine's own record, as the library made it: through its JSON, as the
// leave-one-out runs copy records.
std::unique_ptr<KaEstimatorGridParam> EngineRecord(const kagrid::Record& record)
{
    const KaMethodInfo* method = FindMethod(record.method());
    if (!method) throw py::key_error("unknown method '" + record.method() + "'");
    const nlohmann::json j = nlohmann::json::parse(record.toJson());
    auto out = method->makeParam();
    ApplyJson(*out, j.contains("parameters") ? j["parameters"] : j, "the record");
    return out;
}

std::unique_ptr<KaSampleList> SampleList(const kagrid::PointsView& v)
{
    auto list = std::make_unique<KaSampleList>();
    for (std::size_t i = 0; i < v.x.size(); ++i) list->Append(Ka3DPoint(v.x[i], v.y[i], v.z[i]));
    return list;
}

// ---------------------------------------------------------------- calls

py::dict Grid(const kagrid::Record& record, const py::array& x, const py::array& y, const py::array& z,
              unsigned threads, bool stdDev, py::object callback)
{
    const kagrid::PointsView v = View(x, y, z);
    kagrid::RunOptions options = Options(threads, stdDev);
    Progress progress(std::move(callback));
    kagrid::Grid g = Released(progress, options, [&] {
        kagrid::Grid out = kagrid::grid(record, v, options);
        // North up: the northern row first, as rasters and xarray's y descending want it.
        const std::size_t cols = out.columns, rows = out.rows;
        auto flip = [&](std::vector<double>& a) {
            if (a.size() != cols * rows) return;
            for (std::size_t r = 0; r < rows / 2; ++r)
                std::swap_ranges(a.begin() + r * cols, a.begin() + (r + 1) * cols, a.begin() + (rows - 1 - r) * cols);
        };
        flip(out.z);
        flip(out.stdDev);
        return out;
    });
    const std::vector<py::ssize_t> shape{static_cast<py::ssize_t>(g.rows), static_cast<py::ssize_t>(g.columns)};
    py::dict d;
    d["xMin"] = g.xMin, d["yMin"] = g.yMin, d["xMax"] = g.xMax, d["yMax"] = g.yMax;
    d["columns"] = g.columns, d["rows"] = g.rows, d["blankValue"] = g.blankValue;
    d["z"] = Owned(std::move(g.z), shape);
    d["stdDev"] = g.stdDev.empty() ? py::object(py::none()) : py::object(Owned(std::move(g.stdDev), shape));
    d["warnings"] = g.warnings;
    return d;
}

py::tuple Predict(const kagrid::Record& record, const py::array& x, const py::array& y, const py::array& z,
                  const py::array& px, const py::array& py_, unsigned threads, bool stdDev, py::object callback)
{
    const kagrid::PointsView v = View(x, y, z);
    const std::span<const double> at_x = Column(px, "x"), at_y = Column(py_, "y");
    if (at_x.size() != at_y.size())
        throw py::value_error("the positions' x and y hold " + std::to_string(at_x.size()) + " and " +
                              std::to_string(at_y.size()) + " values");
    kagrid::RunOptions options = Options(threads, stdDev);
    Progress progress(std::move(callback));
    kagrid::Prediction p = Released(progress, options, [&] { return kagrid::predict(record, v, at_x, at_y, options); });
    const std::vector<py::ssize_t> shape{static_cast<py::ssize_t>(p.z.size())};
    py::object sd = py::none();
    if (!p.stdDev.empty()) sd = Owned(std::move(p.stdDev), shape);
    return py::make_tuple(Owned(std::move(p.z), shape), sd);
}

py::dict CrossValidate(const kagrid::Record& record, const py::array& x, const py::array& y, const py::array& z,
                       unsigned threads, py::object callback)
{
    const kagrid::PointsView v = View(x, y, z);
    kagrid::RunOptions options = Options(threads, false);
    Progress progress(std::move(callback));
    kagrid::CrossValidation c = Released(progress, options, [&] { return kagrid::crossValidate(record, v, options); });
    py::dict d;
    const std::vector<py::ssize_t> shape{static_cast<py::ssize_t>(c.x.size())};
    d["x"] = Owned(std::move(c.x), shape);
    d["y"] = Owned(std::move(c.y), shape);
    d["observed"] = Owned(std::move(c.observed), shape);
    d["estimated"] = Owned(std::move(c.estimated), shape);
    d["count"] = c.count, d["estimated_count"] = c.estimatedCount;
    d["me"] = c.me, d["mae"] = c.mae, d["rmse"] = c.rmse, d["r"] = c.r;
    return d;
}

KaVariogramOptions VariogramOptions(double cutoff, double width, std::optional<double> direction, double tolerance)
{
    KaVariogramOptions o;
    o.cutoff = cutoff;
    o.width = width;
    if (direction) {
        o.directional = true;
        o.direction = *direction;
        o.tolerance = tolerance;
    }
    return o;
}

// The experimental variogram as `kagrid variogram` computes it.
py::dict Variogram(const py::array& x, const py::array& y, const py::array& z, double cutoff, double width,
                   std::optional<double> direction, double tolerance)
{
    const kagrid::PointsView v = View(x, y, z);
    KaVariogramOptions o = VariogramOptions(cutoff, width, direction, tolerance);
    std::vector<KaVariogramLag> lags;
    {
        py::gil_scoped_release release;
        const std::unique_ptr<KaSampleList> samples = SampleList(v);
        const std::vector<Ka3DPoint> points = KaVariogramPoints(*samples, NAN);
        if (points.size() < 2) throw std::invalid_argument("fewer than two samples");
        KaCheckMemory(KaVariogramMemory(points, o));  // as kagrid variogram refuses it
        lags = KaExperimentalVariogram(points, o);
    }
    std::vector<double> distance, gamma, pairs;
    for (const KaVariogramLag& l : lags) {
        distance.push_back(l.distance);
        gamma.push_back(l.gamma);
        pairs.push_back(static_cast<double>(l.pairs));
    }
    py::dict d;
    const std::vector<py::ssize_t> shape{static_cast<py::ssize_t>(lags.size())};
    d["distance"] = Owned(std::move(distance), shape);
    d["gamma"] = Owned(std::move(gamma), shape);
    d["pairs"] = Owned(std::move(pairs), shape);
    d["cutoff"] = o.cutoff, d["width"] = o.width;
    return d;
}

// The weighted least-squares fit of `kagrid variogram --fit`: the model as the
// JSON text `variogram=` takes, and the weighted SSE.
py::tuple FitVariogram(const py::array& distance, const py::array& gamma, const py::array& pairs,
                       const std::string& models)
{
    const std::span<const double> d = Column(distance, "distance"), g = Column(gamma, "gamma"), n = Column(pairs, "pairs");
    if (d.size() != g.size() || d.size() != n.size()) throw py::value_error("distance, gamma and pairs differ in length");
    std::vector<KaVariogramLag> lags(d.size());
    for (std::size_t i = 0; i < d.size(); ++i) {
        if (!(n[i] >= 0) || n[i] != std::floor(n[i])) throw py::value_error("pairs: not a count at lag " + std::to_string(i));
        lags[i] = {d[i], g[i], static_cast<uint64_t>(n[i])};
    }
    const std::vector<uint32_t> ids = KaVariogramModels(models, "model");
    KaVariogramFitResult fit;
    {
        py::gil_scoped_release release;
        try {
            fit = KaFitVariogram(lags, ids);
        } catch (const std::invalid_argument& e) {
            // The engine words it for the command's option.
            const std::string m = e.what();
            throw std::invalid_argument(m.rfind("--fit: ", 0) == 0 ? "model: " + m.substr(7) : m);
        }
    }
    return py::make_tuple(VariogramToJson(*fit.model).dump(), fit.weightedSse, fit.warning);
}

// `kagrid tune`: the candidates tried and the chosen settings (what
// --write-params writes), as JSON text.
py::dict Tune(const kagrid::Record& record, const py::array& x, const py::array& y, const py::array& z,
              const std::set<std::string>& given, unsigned threads, double maxBlankShare, py::object callback)
{
    const KaMethodInfo* method = FindMethod(record.method());
    if (!method) throw py::key_error("unknown method '" + record.method() + "'");
    const kagrid::PointsView v = View(x, y, z);
    std::unique_ptr<KaEstimatorGridParam> base = EngineRecord(record);
    KaTuneOptions options;
    options.threads = threads ? threads : KaGridJob::DefaultThreadCount();
    options.maxBlankShare = maxBlankShare;
    options.given = given;
    // The sweep cannot stop midway: the callback only watches, and Ctrl-C is
    // seen when it ends.
    Progress progress(std::move(callback));
    KaTuneResult result;
    nlohmann::ordered_json chosen;
    {
        py::gil_scoped_release release;
        std::unique_ptr<KaSampleList> samples = SampleList(v);
        if (samples->empty()) throw kagrid::Error(kagrid::Error::Kind::Input, "no samples");
        // As kagrid tune: the candidates take at most 64 neighbours unless maxFromAll is given.
        KaCheckMemory(KaLeaveOneOutMemory(*method, *base, *samples, options.threads, 1,
                                          given.count("maxFromAll") ? UINT64_MAX : 64));
        try {
            result = KaTune(*method, *base, *samples, options, [&](int percent, const std::string&) { progress(percent); });
        } catch (const KaSearchError& e) {
            throw kagrid::Error(kagrid::Error::Kind::Search, std::string("the search failed: ") + e.what());
        }
        chosen = KaTunedParameters(*result.record, result, given);
    }
    progress.Rethrow();
    py::list rows;
    for (std::size_t i = 0; i < result.rows.size(); ++i) {
        const KaTuneRow& r = result.rows[i];
        py::dict row;
        row["stage"] = r.candidate.stage;
        row["rmse"] = r.stats.rmse;
        row["mae"] = r.stats.mae;
        row["me"] = r.stats.me;
        row["blank_percent"] = 100 * r.stats.BlankShare();
        row["label"] = r.candidate.label;
        row["settings"] = r.candidate.settings.dump();
        row["best"] = i == result.best;
        rows.append(row);
    }
    py::dict d;
    d["rows"] = rows;
    d["best"] = result.best;
    d["parameters"] = chosen.dump();
    return d;
}

py::list Methods()
{
    py::list out;
    for (const kagrid::MethodInfo& m : kagrid::methods()) {
        py::dict d;
        d["key"] = m.key, d["title"] = m.title, d["searching"] = m.searching, d["stdDev"] = m.stdDev,
        d["pointwise"] = m.pointwise;
        out.append(d);
    }
    return out;
}

// Every key of a method with type, default, meaning and choices.
py::list Fields(const std::string& key)
{
    const KaMethodInfo* method = FindMethod(key);
    if (!method) throw py::key_error("unknown method '" + key + "'");
    auto record = method->makeParam();
    record->ApplyNearestFirstDefaults();  // the defaults Record.make starts from
    py::list out;
    for (const KaFieldDescription& f : DescribeFields(*record)) {
        py::dict d;
        d["key"] = f.key, d["type"] = f.type, d["default"] = f.defaultValue, d["help"] = f.help,
        d["choices"] = f.choices;
        out.append(d);
    }
    return out;
}

// The library's and the command's messages name the grid's options in their
// own terms; in Python they are keyword arguments. Otherwise word for word.
std::string Pythonic(std::string m)
{
    static const std::pair<const char*, const char*> terms[] = {
        {"Geometry{bounds, cell}", "bounds= and cell="}, {"Geometry::cell", "cell="}, {"Geometry::size", "size="},
        {"--bounds", "bounds"}, {"--cell", "cell"}, {"--size", "size"}, {"--like", "like"}};
    for (const auto& [from, to] : terms)
        for (std::size_t at = m.find(from); at != std::string::npos; at = m.find(from, at + std::strlen(to)))
            m.replace(at, std::strlen(from), to);
    return m;
}

// Messages naming a key that does not exist are KeyErrors; every other
// refusal of the caller's input is a ValueError.
bool UnknownKey(const std::string& message)
{
    return message.find("unknown parameter") != std::string::npos || message.find("unknown method") != std::string::npos;
}

}  // namespace

PYBIND11_MODULE(_core, m)
{
    m.doc() = "kagrid's engine; use the kagrid package rather than this module";
    static py::exception<kagrid::Error> cancelled(m, "Cancelled", PyExc_RuntimeError);
    cancelledType = cancelled.ptr();

    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p) std::rethrow_exception(p);
        } catch (const kagrid::Error& e) {
            using K = kagrid::Error::Kind;
            const std::string m = Pythonic(e.what());
            switch (e.kind()) {
            case K::Parameter:
                PyErr_SetString(UnknownKey(m) ? PyExc_KeyError : PyExc_ValueError, m.c_str());
                return;
            case K::Input: PyErr_SetString(PyExc_ValueError, m.c_str()); return;
            case K::Output: PyErr_SetString(PyExc_OSError, m.c_str()); return;
            case K::Memory: PyErr_SetString(PyExc_MemoryError, m.c_str()); return;
            case K::Cancelled: PyErr_SetString(cancelledType, m.c_str()); return;
            case K::Search: PyErr_SetString(PyExc_RuntimeError, m.c_str()); return;
            }
            PyErr_SetString(PyExc_RuntimeError, m.c_str());
        } catch (const KaMemoryError& e) {
            PyErr_SetString(PyExc_MemoryError, e.what());
        } catch (const KaParamError& e) {
            PyErr_SetString(UnknownKey(e.what()) ? PyExc_KeyError : PyExc_ValueError, e.what());
        } catch (const KaSearchError& e) {
            PyErr_SetString(PyExc_RuntimeError, (std::string("the search failed: ") + e.what()).c_str());
        } catch (const std::invalid_argument& e) {
            PyErr_SetString(PyExc_ValueError, e.what());
        } catch (const std::length_error& e) {
            PyErr_SetString(PyExc_MemoryError, e.what());
        }
    });

    m.def("version", &kagrid::version);
    m.def("methods", &Methods);
    m.def("fields", &Fields, py::arg("method"));

    py::class_<kagrid::Record>(m, "Record")
        .def_static("make", &MakeRecord, py::arg("method"), py::arg("x"), py::arg("y"), py::arg("z"),
                    py::arg("bounds") = "", py::arg("cell") = "", py::arg("size") = "", py::arg("like") = "",
                    py::arg("settings") = Settings{}, py::arg("params_file") = "", py::arg("plugin_defaults") = false)
        .def_static("from_json", &kagrid::Record::fromJson, py::arg("json"))
        .def_property_readonly("method", &kagrid::Record::method)
        .def("set", [](kagrid::Record& r, const std::string& k, const std::string& v) { r.set(k, v); })
        .def("to_json", &kagrid::Record::toJson)
        .def("copy", [](const kagrid::Record& r) { return kagrid::Record(r); })
        .def_property_readonly("blank_value", &kagrid::Record::blankValue);

    m.def("grid", &Grid, py::arg("record"), py::arg("x"), py::arg("y"), py::arg("z"), py::arg("threads") = 0,
          py::arg("stddev") = false, py::arg("progress") = py::none());
    m.def("predict", &Predict, py::arg("record"), py::arg("x"), py::arg("y"), py::arg("z"), py::arg("at_x"),
          py::arg("at_y"), py::arg("threads") = 0, py::arg("stddev") = false, py::arg("progress") = py::none());
    m.def("cross_validate", &CrossValidate, py::arg("record"), py::arg("x"), py::arg("y"), py::arg("z"),
          py::arg("threads") = 0, py::arg("progress") = py::none());
    m.def("variogram", &Variogram, py::arg("x"), py::arg("y"), py::arg("z"), py::arg("cutoff") = 0.0,
          py::arg("width") = 0.0, py::arg("direction") = py::none(), py::arg("tolerance") = 22.5);
    m.def("fit_variogram", &FitVariogram, py::arg("distance"), py::arg("gamma"), py::arg("pairs"), py::arg("model"));
    m.def("tune", &Tune, py::arg("record"), py::arg("x"), py::arg("y"), py::arg("z"), py::arg("given"),
          py::arg("threads") = 0, py::arg("max_blank_share") = 0.01, py::arg("progress") = py::none());
    m.def("_points_view", &DebugView, py::arg("x"), py::arg("y"), py::arg("z"),
          "The columns exactly as the core reads them (arrays over the same memory), for tests.");
}
