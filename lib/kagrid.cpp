// The public library: the API of include/kagrid/kagrid.h over the same
// pipeline kagrid runs (io/KaGridPipeline), so its grids are kagrid's.

#include "kagrid/kagrid.h"

#include <cmath>
#include <new>

#include <nlohmann/json.hpp>

#include "core/KaGridJob.h"
#include "io/KaCrs.h"
#include "io/KaGridPipeline.h"
#include "io/KaIoError.h"
#include "io/KaOutputFiles.h"
#include "io/KaParamJson.h"
#include "io/KaPointReader.h"
#include "io/KaRasterIo.h"
#include "methods/KaMemoryGuard.h"
#include "methods/KaMethodRegistry.h"
#include "methods/KaPredict.h"
#include "platform/kadata/KaEventsLog.h"
#include "search/KaEstGridSearcherParam.h"
#include "search/KaSearchGrid.h"
#include "tune/KaLeaveOneOut.h"

namespace kagrid {

struct Record::Impl {
    const KaMethodInfo* method = nullptr;
    std::string key;  // the method's
    std::unique_ptr<KaEstimatorGridParam> record;
};

namespace {

// The advice of a refused grid, in the API's terms.
const char* const kGridAdvice = "choose a coarser Geometry::cell or a smaller Geometry::size";
// The name a point set from columns takes, as a file's stem names a file's.
const char* const kPointsName = "points";
const char* const kSamples = "samples";

// Runs `f`, turning the engine's and the file layer's failures into Error.
template <typename F>
auto Guarded(Error::Kind ioKind, F&& f) -> decltype(f())
{
    // The job's own log lines (an allocation failure) come back as the Error
    // instead. The library holds its own copy of the log: the caller's
    // process is not affected.
    // GDAL's settings stay the program's: its drivers are registered, its
    // messages are silenced on this call's thread only.
    static const bool quiet = (SetEventsLogSink([](int, const std::string&) {}), KaIoEmbedded(), true);
    (void)quiet;
    const KaQuietGdal gdal;
    try {
        return f();
    } catch (const Error&) {
        throw;
    } catch (const KaMemoryError& e) {
        throw Error(Error::Kind::Memory, e.what());
    } catch (const KaCancelled&) {
        throw Error(Error::Kind::Cancelled, "stopped by the progress callback");
    } catch (const KaSearchError& e) {
        throw Error(Error::Kind::Search, e.what());
    } catch (const KaParamError& e) {
        throw Error(Error::Kind::Parameter, e.what());
    } catch (const KaIoError& e) {
        throw Error(ioKind, e.what());
    } catch (const std::invalid_argument& e) {
        throw Error(Error::Kind::Parameter, e.what());
    } catch (const std::bad_alloc&) {
        throw Error(Error::Kind::Memory, "out of memory");
    } catch (const std::exception& e) {
        throw Error(Error::Kind::Parameter, e.what());
    }
}

const KaMethodInfo& Method(std::string_view key)
{
    if (const KaMethodInfo* m = FindMethod(key)) return *m;
    std::string names;
    for (const KaMethodInfo& m : KaMethods()) names += std::string(names.empty() ? "" : ", ") + m.key;
    throw Error(Error::Kind::Parameter, "unknown method '" + std::string(key) + "' (one of: " + names + ")");
}

// A record copied as the tuning and leave-one-out copy theirs: every
// settable field, and the data limits the fill set.
std::unique_ptr<KaEstimatorGridParam> Copy(const KaMethodInfo& method, const KaEstimatorGridParam& record)
{
    auto copy = method.makeParam();
    ApplyJson(*copy, RecordToJson(const_cast<KaEstimatorGridParam&>(record)), "the record");
    copy->limit = record.limit;
    return copy;
}

void Validate(const KaEstimatorGridParam& record)
{
    const std::string invalid = ValidateForRun(record);
    if (!invalid.empty()) throw KaParamError("invalid parameter " + invalid);
}

// The caller's progress callback as the job's observer: a false answer stops
// the job at its next progress report.
class CallbackObserver : public KaJobObserver {
public:
    explicit CallbackObserver(const std::function<bool(int)>& progress) : progress_(progress) {}
    void Percent(int percent, const std::string&) override
    {
        if (progress_ && !progress_(percent)) throw KaCancelled();
    }

private:
    const std::function<bool(int)>& progress_;
};

std::function<bool(std::size_t)> CountProgress(const std::function<bool(int)>& progress, std::size_t total)
{
    if (!progress) return {};
    return [&progress, total](std::size_t done) {
        return progress(static_cast<int>(total ? done * 100.0 / static_cast<double>(total) : 100.0));
    };
}

bool FormsStdDev(const KaMethodInfo& m) { return m.makeEstimator()->FormsStdDev(); }

}  // namespace

std::string version() { return KAGRID_VERSION; }

Points readPoints(const std::string& path, const Columns& columns)
{
    return Guarded(Error::Kind::Input, [&] {
        KaPointColumns c;
        const std::string* given[] = {&columns.x, &columns.y, &columns.z};
        std::string* into[] = {&c.x, &c.y, &c.z};
        for (int k = 0; k < 3; ++k) {
            if (!given[k]->empty()) *into[k] = *given[k];
            c.guess[k] = given[k]->empty();
        }
        // Vector files take z from the geometry unless a field is named.
        if (columns.z.empty() && !LooksLikeTextPoints(path)) c.z = "";
        KaPointReadReport report;
        std::unique_ptr<KaDataObject> input = ReadInput(path, c, &report);
        Points out;
        out.skippedMissing = report.skippedMissing;
        if (auto* points = dynamic_cast<const KaScatteredPoints*>(input.get())) {
            const std::vector<Ka3DPoint>& v = points->Points();
            out.x.reserve(v.size());
            out.y.reserve(v.size());
            out.z.reserve(v.size());
            for (const Ka3DPoint& p : v) out.x.push_back(p.x), out.y.push_back(p.y), out.z.push_back(p.z);
        } else if (auto* surface = dynamic_cast<const KaSurface*>(input.get())) {
            const KaSurfaceObjInfo& info = surface->GetSurfaceObjInfo();
            const KaTDataMatrix2D<double>& grid = surface->GridData();
            const double dx = info.GetDx(), dy = info.GetDy();
            for (uint32_t r = 0; r < info.rowCount; ++r)
                for (uint32_t c2 = 0; c2 < info.columnCount; ++c2) {
                    const double v = grid.At(r, c2);
                    if (v == info.invalidValue) {
                        ++out.skippedMissing;
                        continue;
                    }
                    out.x.push_back(info.xMin + c2 * dx);
                    out.y.push_back(info.yMin + r * dy);
                    out.z.push_back(v);
                }
        }
        out.crs = ReadInputCrs(path);
        return out;
    });
}

std::vector<MethodInfo> methods()
{
    std::vector<MethodInfo> out;
    for (const KaMethodInfo& m : KaMethods()) {
        MethodInfo i;
        i.key = m.key;
        i.title = m.title;
        i.searching = dynamic_cast<const KaEstGridSearcherParam*>(m.makeParam().get()) != nullptr;
        i.stdDev = FormsStdDev(m);
        i.pointwise = !m.makeJob && i.searching;  // what predict and cross-validate take
        out.push_back(std::move(i));
    }
    return out;
}

Record::Record(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Record::Record(const Record& other) : impl_(std::make_unique<Impl>())
{
    impl_->method = other.impl_->method;
    impl_->key = other.impl_->key;
    impl_->record = Copy(*other.impl_->method, *other.impl_->record);
}
Record& Record::operator=(const Record& other)
{
    if (this != &other) *this = Record(other);
    return *this;
}
Record::Record(Record&&) noexcept = default;
Record& Record::operator=(Record&&) noexcept = default;
Record::~Record() = default;

Record Record::make(std::string_view method, PointsView samples, const Geometry& geometry,
                    const std::vector<std::pair<std::string, std::string>>& settings, const std::string& paramsFile,
                    Defaults defaults)
{
    const KaMethodInfo& m = Method(method);
    return Guarded(Error::Kind::Input, [&] {
        const std::unique_ptr<KaScatteredPoints> points =
            KaPointsFromColumns(samples.x, samples.y, samples.z, kPointsName, kSamples);
        KaRecordRequest request;
        request.grid = {geometry.bounds, geometry.cell, geometry.size, geometry.like};
        request.paramsFile = paramsFile;
        request.pluginDefaults = defaults == Defaults::Plugin;
        for (const auto& [key, value] : settings) request.settings.push_back(key + "=" + value);
        request.geometryHint = "Geometry{bounds, cell} (or the settings xMin, xMax, yMin, yMax, columnCount, rowCount)";
        KaPreparedRecord prepared = KaPrepareRecord(m, *points, kSamples, request);
        auto impl = std::make_unique<Impl>();
        impl->method = &m;
        impl->key = m.key;
        impl->record = std::move(prepared.record);
        return Record(std::move(impl));
    });
}

Record Record::fromJson(const std::string& json)
{
    return Guarded(Error::Kind::Input, [&] {
        const nlohmann::json j = ParseParamJson(json, "the record");
        if (!j.is_object() || !j.contains("method") || !j["method"].is_string())
            throw KaParamError("the record: expected {\"method\": \"...\", \"parameters\": {...}}");
        const KaMethodInfo& m = Method(j["method"].get<std::string>());
        auto impl = std::make_unique<Impl>();
        impl->method = &m;
        impl->key = m.key;
        impl->record = m.makeParam();
        impl->record->ApplyNearestFirstDefaults();  // keys left out take the library's defaults
        if (j.contains("parameters")) ApplyJson(*impl->record, j["parameters"], "the record's parameters");
        // The data limits are not part of the text: the grid's own box stands in.
        KaEstimatorGridParam& r = *impl->record;
        r.limit.SetLimit(r.xMin, r.yMin, 0, r.xMax, r.yMax, 0);
        Validate(r);
        return Record(std::move(impl));
    });
}

const std::string& Record::method() const { return impl_->key; }

void Record::set(std::string_view key, std::string_view value)
{
    Guarded(Error::Kind::Input, [&] {
        auto copy = Copy(*impl_->method, *impl_->record);
        ApplySetting(*copy, std::string(key) + "=" + std::string(value));
        Validate(*copy);
        impl_->record = std::move(copy);
        return 0;
    });
}

std::string Record::toJson() const
{
    nlohmann::ordered_json j;
    j["method"] = impl_->method->key;
    j["parameters"] = RecordToJson(*impl_->record);
    return j.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::vector<FieldInfo> Record::fields() const
{
    std::vector<FieldInfo> out;
    for (const KaFieldDescription& f : DescribeFields(*impl_->record))
        out.push_back({f.key, f.type, f.defaultValue, f.help});
    return out;
}

double Record::xMin() const { return impl_->record->xMin; }
double Record::yMin() const { return impl_->record->yMin; }
double Record::xMax() const { return impl_->record->xMax; }
double Record::yMax() const { return impl_->record->yMax; }
uint64_t Record::columns() const { return impl_->record->columnCount; }
uint64_t Record::rows() const { return impl_->record->rowCount; }
double Record::blankValue() const { return impl_->record->blankValue; }

Grid grid(const Record& record, PointsView samples, const RunOptions& options)
{
    return Guarded(Error::Kind::Input, [&] {
        const KaMethodInfo& m = *record.impl().method;
        const KaEstimatorGridParam& r = *record.impl().record;
        const bool stdDev = options.stdDev && FormsStdDev(m);
        KaCheckGridMemory(r, stdDev ? 2 : 1, kGridAdvice);
        std::unique_ptr<KaSampleList> list = KaSamplesFromColumns(samples.x, samples.y, samples.z, kSamples);
        CallbackObserver observer(options.progress);
        KaGridRunOptions run;
        run.threads = options.threads;
        run.stdDev = stdDev;
        run.observer = &observer;
        run.gridAdvice = kGridAdvice;
        KaGridRunResult result = KaRunGrid(m, Copy(m, r), std::move(list), run);

        Grid out;
        const KaSurfaceObjInfo& info = result.surface->GetSurfaceObjInfo();
        out.xMin = info.xMin, out.yMin = info.yMin, out.xMax = info.xMax, out.yMax = info.yMax;
        out.columns = info.columnCount, out.rows = info.rowCount;
        out.blankValue = info.invalidValue;
        const KaTDataMatrix2D<double>& z = result.surface->GridData();
        out.z.assign(z.data, z.data + z.Size());
        if (result.stdDev) {
            const KaTDataMatrix2D<double>& sd = result.stdDev->GridData();
            out.stdDev.assign(sd.data, sd.data + sd.Size());
        }
        out.warnings = std::move(result.warnings);
        if (!result.stdDevWarning.empty()) out.warnings.push_back(result.stdDevWarning);
        if (options.progress) options.progress(100);
        return out;
    });
}

Prediction predict(const Record& record, PointsView samples, std::span<const double> x, std::span<const double> y,
                   const RunOptions& options)
{
    return Guarded(Error::Kind::Input, [&] {
        const KaMethodInfo& m = *record.impl().method;
        const KaEstimatorGridParam& r = *record.impl().record;
        if (!m.makeJob && !dynamic_cast<const KaEstGridSearcherParam*>(&r))
            throw KaParamError(std::string(m.key) + " does not estimate position by position (" +
                               (m.note ? m.note : "it has no neighbourhood search") + ")");
        std::unique_ptr<KaSampleList> list = KaSamplesFromColumns(samples.x, samples.y, samples.z, kSamples);
        std::vector<KaMemoryItem> items = KaGridRunMemory(m, r, *list, options.threads, 1, kGridAdvice);
        items.front() = {"estimates at " + std::to_string(x.size()) + " positions need " +
                             KaBytesText(16.0L * x.size()),
                         "estimate fewer positions at once", 16.0L * x.size()};
        KaCheckMemory(items);
        KaPrediction p = KaPredictAt(m, Copy(m, r), *list, x, y, options.stdDev, options.threads,
                                     CountProgress(options.progress, x.size()));
        return Prediction{std::move(p.z), std::move(p.stdDev)};
    });
}

CrossValidation crossValidate(const Record& record, PointsView samples, const RunOptions& options)
{
    return Guarded(Error::Kind::Input, [&] {
        const KaMethodInfo& m = *record.impl().method;
        KaRequireLeaveOneOut(m);
        auto r = Copy(m, *record.impl().record);
        std::unique_ptr<KaSampleList> list = KaSamplesFromColumns(samples.x, samples.y, samples.z, kSamples);
        const unsigned threads = options.threads ? options.threads : KaGridJob::DefaultThreadCount();
        KaCheckMemory(KaLeaveOneOutMemory(m, *r, *list, threads));
        KaLeaveOneOut loo(m, *list, r->originalInvalidValue, threads);
        // The leave-one-out run cannot stop midway: a stop asked for is
        // honoured when it ends.
        bool stop = false;
        const std::size_t total = loo.Points().size();
        std::vector<double> estimated = loo.Run(*r, [&](std::size_t done) {
            if (options.progress && !stop)
                stop = !options.progress(static_cast<int>(total ? done * 100.0 / static_cast<double>(total) : 100.0));
        });
        if (stop) throw KaCancelled();
        CrossValidation out;
        for (const Ka3DPoint& p : loo.Points()) out.x.push_back(p.x), out.y.push_back(p.y), out.observed.push_back(p.z);
        out.estimated = estimated;
        const KaLooStatistics s = KaSummarise(out.observed, estimated);
        out.count = s.count, out.estimatedCount = s.estimated;
        out.me = s.me, out.mae = s.mae, out.rmse = s.rmse, out.r = s.r;
        if (options.progress && !options.progress(100)) throw KaCancelled();
        return out;
    });
}

void writeRaster(const Grid& grid, const std::string& path, const WriteOptions& options)
{
    Guarded(Error::Kind::Output, [&] {
        if (grid.columns == 0 || grid.rows == 0 || grid.columns > UINT32_MAX || grid.rows > UINT32_MAX ||
            grid.z.size() != grid.columns * grid.rows)
            throw KaParamError("the grid: " + std::to_string(grid.z.size()) + " values for " +
                               std::to_string(grid.columns) + " \u00d7 " + std::to_string(grid.rows) + " nodes");
        KaRasterWriteOptions how;
        how.format = options.format;
        how.dataType = options.dataType;
        how.creationOptions = options.creationOptions;
        how.threads = options.threads;
        how.crsWkt = options.crs.empty() ? std::string() : CrsFromDefinition(options.crs);
        CheckOutputPath(path);
        KaRemoveStaleTemporaries(path);
        CheckRasterWrite(path, how, grid.blankValue);

        KaSurface surface;
        KaSurfaceObjInfo& info = surface.GetSurfaceObjInfo();
        info.columnCount = static_cast<uint32_t>(grid.columns);
        info.rowCount = static_cast<uint32_t>(grid.rows);
        info.xMin = grid.xMin, info.xMax = grid.xMax, info.yMin = grid.yMin, info.yMax = grid.yMax;
        info.corners[0] = Ka3DPoint(grid.xMin, grid.yMin, 0);
        info.corners[1] = Ka3DPoint(grid.xMax, grid.yMin, 0);
        info.corners[2] = Ka3DPoint(grid.xMin, grid.yMax, 0);
        info.invalidValue = grid.blankValue;
        KaTDataMatrix2D<double> m(kKaMaxDouble);
        if (!m.Create(info.columnCount, info.rowCount)) throw std::bad_alloc();
        std::copy(grid.z.begin(), grid.z.end(), m.data);
        if (!surface.SetGridDataArray(std::move(m))) throw KaParamError("the grid cannot be stored");
        WriteSurface(surface, path, how);
        return 0;
    });
}

}  // namespace kagrid
