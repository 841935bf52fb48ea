#include "tune/KaTune.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <type_traits>
#include <variant>

#include "io/KaGridPipeline.h"
#include "io/KaNumericJson.h"
#include "io/KaParamJson.h"
#include "methods/numeric/KaVario.h"
#include "search/KaEstGridSearcher.h"
#include "tune/KaFolds.h"

namespace {

constexpr int64_t kCounts[] = {8, 16, 32, 64};
constexpr int64_t kProbeCount = 32;

struct Shape {
    std::size_t n = 0;
    double diagonal = 0, spacing = 0, zRange = 0;
};

Shape ShapeOf(const std::vector<Ka3DPoint>& points)
{
    Shape s;
    s.n = points.size();
    if (points.empty()) return s;
    double x0 = points[0].x, x1 = x0, y0 = points[0].y, y1 = y0, z0 = points[0].z, z1 = z0;
    for (const Ka3DPoint& p : points) {
        x0 = std::min(x0, p.x), x1 = std::max(x1, p.x);
        y0 = std::min(y0, p.y), y1 = std::max(y1, p.y);
        z0 = std::min(z0, p.z), z1 = std::max(z1, p.z);
    }
    s.diagonal = std::hypot(x1 - x0, y1 - y0);
    const double area = (x1 - x0) * (y1 - y0);
    // The mean spacing of samples spread evenly; along a line when there is no area.
    s.spacing = area > 0 ? std::sqrt(area / s.n) : s.diagonal / s.n;
    s.zRange = z1 - z0;
    return s;
}

struct Option {
    std::string label;  // empty: built from the settings
    nlohmann::ordered_json settings = nlohmann::ordered_json::object();
};

std::string Compact(double v)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.4g", v);
    return buf;
}

// One candidate value as the parameter file holds it.
nlohmann::ordered_json ToJson(const KaTuneValue& value)
{
    if (const auto* model = std::get_if<std::shared_ptr<const KaVarioVector>>(&value))
        return *model ? nlohmann::ordered_json(VariogramToJson(**model)) : nlohmann::ordered_json();
    return std::visit(
        [](const auto& v) -> nlohmann::ordered_json {
            if constexpr (std::is_same_v<std::decay_t<decltype(v)>, std::shared_ptr<const KaVarioVector>>) return {};
            else return v;
        },
        value);
}

// The method's own candidates (from its registry entry), in the order that decides ties.
std::vector<Option> MethodOptions(const KaMethodInfo& method, const std::vector<Ka3DPoint>& points,
                                  const Shape& shape, const std::set<std::string>& given)
{
    std::vector<Option> out;
    if (method.tune.candidates) {
        const KaTuneShape s{points, shape.n, shape.diagonal, shape.spacing, shape.zRange, given};
        for (const KaTuneOption& candidate : method.tune.candidates(s)) {
            Option o{candidate.label};
            for (const auto& [key, value] : candidate.settings) o.settings[key] = ToJson(value);
            out.push_back(std::move(o));
        }
    }
    if (out.empty()) out.push_back(Option{});
    return out;
}

// Counts: one sector takes the n nearest (the ring walk: stops at the first
// ring that brings n); four sectors at most n/4 from each and n in all, and
// need n/4, so that a node with data on one side only (a corner of the grid)
// keeps an estimate. Blank sectors 1: the rings stop early only once every
// sector holds a sample.
nlohmann::ordered_json SearchSettings(bool nearest, int sectors, int64_t n)
{
    nlohmann::ordered_json j;
    j["searchMode"] = nearest ? "nearest" : "rings";
    j["sectorCount"] = sectors;
    j["maxFromAll"] = n;
    j["maxFromEach"] = sectors == 1 ? n : std::max<int64_t>(1, n / 4);
    j["minInAll"] = sectors == 1 ? n : std::max<int64_t>(1, n / 4);
    j["blankSectors"] = 1;
    return j;
}

std::string ValueText(const nlohmann::ordered_json& v)
{
    if (v.is_number_float()) return Compact(v.get<double>());
    if (v.is_string()) return v.get<std::string>();
    return v.dump();
}

class Sweep {
public:
    Sweep(const KaMethodInfo& method, KaEstimatorGridParam& base, KaSampleList& samples, const KaTuneOptions& options,
          const KaTuneProgress& progress)
        : method_(method), baseJson_(RecordToJson(base)), options_(options), progress_(progress),
          loo_(method, samples, base.originalInvalidValue, options.threads), observed_(loo_.Observed())
    {
        shape_ = ShapeOf(loo_.Points());
        if (options.folds > 0) {
            try {
                folds_ = KaBlockedFolds(loo_.Points(), options.folds, options.block);
            } catch (const std::invalid_argument& e) {
                throw KaParamError(e.what());
            }
        }
        tie_ = 1e-9 * std::max(shape_.zRange, 1e-300);
    }

    KaTuneResult Run()
    {
        if (loo_.Points().size() < 3) throw KaParamError("tuning needs at least three samples");
        const std::vector<Option> methodOptions = MethodOptions(method_, loo_.Points(), shape_, options_.given);
        std::vector<int64_t> counts;
        for (int64_t c : kCounts)
            if (c < static_cast<int64_t>(shape_.n)) counts.push_back(c);
        if (counts.empty()) counts.push_back(static_cast<int64_t>(shape_.n) - 1);
        const int64_t probeCount = std::min<int64_t>(kProbeCount, counts.back());

        const nlohmann::ordered_json probe = SearchSettings(false, 1, probeCount);
        std::vector<KaTuneCandidate> stage;
        for (const Option& o : methodOptions) stage.push_back(Make("method", probe, o));
        RunStage(stage);

        const nlohmann::ordered_json method = result_.rows[result_.best].candidate.method;
        const std::string methodLabel = labels_[result_.best];
        stage.clear();
        for (int64_t n : counts)
            for (int sectors : {1, 4})
                for (bool nearest : {false, true})
                    stage.push_back(Make("search", SearchSettings(nearest, sectors, n), Option{methodLabel, method}));
        RunStage(stage);
        RadiusStage();

        const nlohmann::ordered_json search = result_.rows[result_.best].candidate.search;
        if (search != probe) {
            stage.clear();
            for (const Option& o : methodOptions) stage.push_back(Make("method", search, o));
            RunStage(stage);
        }
        result_.record = Apply(result_.rows[result_.best].candidate.settings);
        return std::move(result_);
    }

private:
    std::unique_ptr<KaEstimatorGridParam> Apply(const nlohmann::ordered_json& settings)
    {
        auto record = method_.makeParam();
        ApplyJson(*record, baseJson_, "the record");
        ApplyJson(*record, settings, "the candidate");
        return record;
    }

    KaTuneCandidate Make(const std::string& stage, const nlohmann::ordered_json& search, const Option& method)
    {
        KaTuneCandidate c;
        c.stage = stage;
        c.search = search;
        c.method = method.settings;
        c.settings = nlohmann::ordered_json::object();
        for (const auto* part : {&search, &method.settings})
            for (auto it = part->begin(); it != part->end(); ++it)
                if (!options_.given.count(it.key())) c.settings[it.key()] = it.value();
        // The search as it will run, the user's settings included.
        const auto record = Apply(c.settings);
        const auto* s = dynamic_cast<const KaEstGridSearcherParam*>(record.get());
        if (s) {
            c.label = std::string(s->searchMode == kKaSearchNearest ? "nearest" : "rings") + ", " +
                      std::to_string(s->sectorCount) + (s->sectorCount == 1 ? " sector, " : " sectors, ") +
                      std::to_string(s->maxFromAll);
            if (c.settings.contains("radius1")) c.label += ", radius " + ValueText(c.settings["radius1"]);
        }
        std::string own = method.label;
        if (own.empty())
            for (auto it = method.settings.begin(); it != method.settings.end(); ++it)
                if (c.settings.contains(it.key()))
                    own += (own.empty() ? "" : ", ") + it.key() + " " + ValueText(it.value());
        if (!own.empty()) c.label += (c.label.empty() ? "" : " | ") + own;
        c.label = c.label.empty() ? "as given" : c.label;
        ownLabels_[c.settings.dump()] = own;
        return c;
    }

    void RunStage(const std::vector<KaTuneCandidate>& stage)
    {
        for (std::size_t k = 0; k < stage.size(); ++k) {
            const KaTuneCandidate& c = stage[k];
            const std::string key = c.settings.dump();
            if (seen_.count(key)) continue;
            seen_.insert(key);
            const std::string text = "candidate " + std::to_string(k + 1) + " of " + std::to_string(stage.size()) +
                                     " (" + c.stage + "): " + c.label;
            auto record = Apply(c.settings);
            const std::string invalid = ValidateForRun(*record);
            if (!invalid.empty()) throw KaParamError("a tuning candidate is invalid: " + invalid);
            const std::size_t total = loo_.Points().size();
            const auto report = [&](std::size_t done) {
                if (progress_)
                    progress_(static_cast<int>((k + static_cast<double>(done) / total) * 100.0 / stage.size()), text);
            };
            std::vector<double> estimated = folds_.empty()
                                                ? loo_.Run(*record, report)
                                                : KaRunFolds(method_, *record, loo_.Points(), folds_, options_.threads,
                                                             report);
            KaTuneRow row{c, KaSummarise(observed_, estimated)};
            result_.rows.push_back(std::move(row));
            labels_.push_back(ownLabels_[key]);
            const std::size_t i = result_.rows.size() - 1;
            if (i == 0 || KaTuneBetter(result_.rows[i].stats, result_.rows[result_.best].stats,
                                       options_.maxBlankShare, tie_))
                result_.best = i;
        }
        if (progress_) progress_(100, "");
    }

    // The radius the method suggests for the chosen settings (kriging: the
    // variogram's largest range), and twice that, when below the radius in use.
    void RadiusStage()
    {
        if (options_.given.count("radius1") || options_.given.count("radius2")) return;
        if (!method_.tune.radius) return;
        const KaTuneCandidate best = result_.rows[result_.best].candidate;
        const auto record = Apply(best.settings);
        const auto* search = dynamic_cast<const KaEstGridSearcherParam*>(record.get());
        if (!search) return;
        const double range = method_.tune.radius(*record);
        std::vector<KaTuneCandidate> stage;
        for (double r : {range, 2 * range}) {
            if (!(r > 0) || !(r < std::min(search->radius1, search->radius2))) continue;
            nlohmann::ordered_json search = best.search;
            search["radius1"] = search["radius2"] = r;
            stage.push_back(Make("search", search, Option{labels_[result_.best], best.method}));
        }
        RunStage(stage);
    }

    const KaMethodInfo& method_;
    const nlohmann::ordered_json baseJson_;
    const KaTuneOptions& options_;
    const KaTuneProgress& progress_;
    KaLeaveOneOut loo_;
    const std::vector<double> observed_;
    std::vector<int> folds_;  // each point's fold; empty: leave-one-out
    Shape shape_;
    double tie_ = 0;
    KaTuneResult result_;
    std::set<std::string> seen_;
    std::map<std::string, std::string> ownLabels_;  // settings -> the method part of the label
    std::vector<std::string> labels_;               // per row
};

}  // namespace

bool KaTuneBetter(const KaLooStatistics& a, const KaLooStatistics& b, double maxBlankShare, double tie)
{
    const bool okA = a.estimated > 0 && a.BlankShare() <= maxBlankShare;
    const bool okB = b.estimated > 0 && b.BlankShare() <= maxBlankShare;
    if (okA != okB) return okA;
    if (!okA && a.BlankShare() != b.BlankShare()) return a.BlankShare() < b.BlankShare();
    if (std::isnan(a.rmse)) return false;
    if (std::isnan(b.rmse)) return true;
    return a.rmse < b.rmse - tie;
}

KaTuneResult KaTune(const KaMethodInfo& method, KaEstimatorGridParam& base, KaSampleList& samples,
                    const KaTuneOptions& options, const KaTuneProgress& progress)
{
    return Sweep(method, base, samples, options, progress).Run();
}

nlohmann::ordered_json KaTunedParameters(KaEstimatorGridParam& record, const KaTuneResult& result,
                                         const std::set<std::string>& given)
{
    const nlohmann::ordered_json all = RecordToJson(record);
    const nlohmann::ordered_json& chosen = result.rows[result.best].candidate.settings;
    nlohmann::ordered_json out = nlohmann::ordered_json::object();
    for (auto it = all.begin(); it != all.end(); ++it)
        if (given.count(it.key()) || chosen.contains(it.key())) out[it.key()] = it.value();
    return out;
}

std::vector<std::string> KaFarValueWarnings(const KaMethodInfo& method, const KaEstimatorGridParam& record,
                                            const std::vector<Ka3DPoint>& points, unsigned threads)
{
    if (points.empty()) return {};
    double x0 = points[0].x, x1 = x0, y0 = points[0].y, y1 = y0;
    for (const Ka3DPoint& p : points) {
        x0 = std::min(x0, p.x), x1 = std::max(x1, p.x);
        y0 = std::min(y0, p.y), y1 = std::max(y1, p.y);
    }
    if (!(x1 > x0) || !(y1 > y0)) return {};
    std::unique_ptr<KaEstimatorGridParam> coarse = method.cloneParam(record);
    coarse->xMin = x0, coarse->xMax = x1, coarse->yMin = y0, coarse->yMax = y1;
    coarse->columnCount = coarse->rowCount = kKaFarValueLattice;
    auto samples = std::make_unique<KaSampleList>();
    for (const Ka3DPoint& p : points) samples->Append(p);
    KaGridRunOptions options;
    options.threads = threads;
    return KaRunGrid(method, std::move(coarse), std::move(samples), options).warnings;
}
