// One prepared estimator, many workspaces: a node's value and standard
// deviation do not depend on which workspace estimates it, on what that
// workspace estimated before, or on the other workspaces; and a sample left
// out in one workspace stays in every other.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

#include "KaTestSupport.h"
#include "core/KaBlank.h"
#include "core/KaRowDriver.h"
#include "methods/KaEstDataMetrics.h"
#include "methods/KaEstKrig.h"

using namespace katest;

namespace {

struct SearchSetup {
    const char* name;
    int32_t searchMode;
    int sectors;
    double radius;
    int32_t drift = kKaDriftNone;  // kriging only
};

const SearchSetup kSetups[] = {
    {"rings, four sectors", kKaSearchRings, 4, 0.2},
    {"nearest, one sector", kKaSearchNearest, 1, 0.3},
    {"nearest, linear drift", kKaSearchNearest, 1, 0.35, kKaDriftLinear},
};

std::vector<Ka3DPoint> Cloud(unsigned seed)
{
    std::vector<Ka3DPoint> v = RandomPoints(250, seed);
    for (int i = 0; i < 6; ++i) v.push_back(Ka3DPoint(v[i].x, v[i].y, v[i].z + 1));  // repeated positions
    for (std::size_t i = 0; i < v.size(); i += 9) v[i].z = 1.70141e38;               // invalid samples
    return v;
}

std::unique_ptr<KaEstimatorGridParam> Record(const KaMethodInfo& method, const SearchSetup& s)
{
    auto record = method.makeParam();
    record->xMin = 0.05, record->xMax = 0.95, record->yMin = 0.1, record->yMax = 0.9;
    record->columnCount = 19, record->rowCount = 13;
    if (auto* q = dynamic_cast<KaEstGridSearcherParam*>(record.get())) {
        q->searchMode = s.searchMode;
        q->sectorCount = q->blankSectors = s.sectors;
        q->minInAll = 4;
        q->maxFromAll = q->maxFromEach = 16;
        q->radius1 = q->radius2 = s.radius;
    }
    if (auto* m = dynamic_cast<KaEstDataMetricsParam*>(record.get())) m->metric = kMetricMedian;
    if (auto* k = dynamic_cast<KaEstKrigParam*>(record.get()); k && s.drift != kKaDriftNone) {
        k->drift = s.drift;
        k->nuggetOnDiagonal = false;
    }
    return record;
}

std::unique_ptr<KaEstimatorGrid> Prepared(const KaMethodInfo& method, const SearchSetup& s, KaSampleList& samples)
{
    auto e = method.makeEstimator();
    e->SetParam(Record(method, s));
    e->SetSampleList(&samples);
    return e;
}

// The grid's nodes, then the samples' own positions (nodes on samples).
std::vector<std::pair<double, double>> Nodes(const KaEstimatorGridParam& p, const std::vector<Ka3DPoint>& points)
{
    std::vector<std::pair<double, double>> nodes;
    for (uint64_t r = 0; r < p.rowCount; ++r)
        for (uint64_t c = 0; c < p.columnCount; ++c) nodes.emplace_back(c * p.GetDx() + p.xMin, p.GetDy() * r + p.yMin);
    for (std::size_t i = 0; i < points.size(); i += 5) nodes.emplace_back(points[i].x, points[i].y);
    return nodes;
}

bool Same(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// Every method that estimates any position (prediction takes it), with each
// setup it takes.
template <typename F>
void ForEachPointwiseMethod(F f)
{
    for (const KaMethodInfo& method : KaMethods()) {
        if (!method.can.pointwise && !method.can.rebuilds) continue;
        for (const SearchSetup& s : kSetups) {
            const bool searching = dynamic_cast<KaEstGridSearcherParam*>(method.makeParam().get()) != nullptr;
            if (!searching && &s != &kSetups[0]) continue;  // the search settings change nothing
            if (s.drift != kKaDriftNone && !method.can.stdDev) continue;
            if (s.drift != kKaDriftNone && !dynamic_cast<KaEstKrigParam*>(method.makeParam().get())) continue;
            SCOPED_TRACE(std::string(method.key) + ", " + s.name);
            f(method, s);
        }
    }
}

}  // namespace

TEST(Workspace, InterleavedWorkspacesOverOneEstimatorGiveTheOwnWorkspaceValues)
{
    // Two workspaces walk the nodes in opposite directions, in turns, over one
    // shared estimator read through a const reference; the estimator's own
    // workspace (EstimateAt(x, y)) of a separate estimator is the reference.
    const std::vector<Ka3DPoint> points = Cloud(21);
    ForEachPointwiseMethod([&](const KaMethodInfo& method, const SearchSetup& s) {
        auto samples = Samples(points);
        auto reference = Prepared(method, s, *samples);
        auto prepared = Prepared(method, s, *samples);
        const KaEstimatorGrid& shared = *prepared;
        std::unique_ptr<KaEstimatorWorkspace> a = shared.MakeWorkspace(), b = shared.MakeWorkspace();
        ASSERT_NE(a, nullptr) << "estimates position by position but keeps its scratch in the estimator";
        const auto nodes = Nodes(*shared.GetParam(), points);
        std::vector<double> z, sd;
        for (const auto& [x, y] : nodes) {
            z.push_back(reference->EstimateAt(x, y));
            sd.push_back(reference->NodeStdDev());
        }
        int valued = 0;
        for (std::size_t k = 0; k < nodes.size(); ++k) {
            const std::size_t i = k, j = nodes.size() - 1 - k;
            const double za = shared.EstimateAt(*a, nodes[i].first, nodes[i].second);
            const double zb = shared.EstimateAt(*b, nodes[j].first, nodes[j].second);
            ASSERT_TRUE(Same(za, z[i]) && Same(a->stdDev, sd[i])) << "node " << i << ": " << za << " " << z[i];
            ASSERT_TRUE(Same(zb, z[j]) && Same(b->stdDev, sd[j])) << "node " << j << ": " << zb << " " << z[j];
            valued += KaHasValue(za, shared.BlankValue());
        }
        if (!method.note) {  // not a shell
            EXPECT_GT(valued, static_cast<int>(nodes.size()) / 3);
        }
        if (method.can.stdDev) {
            EXPECT_TRUE(std::any_of(sd.begin(), sd.end(), [](double v) { return v > 0; }));
        }
    });
}

TEST(Workspace, ASampleLeftOutStaysOutOfThatWorkspaceOnly)
{
    // Leave-one-out over one estimator on two threads: each workspace leaves
    // out its own sample; the estimator's own searches keep every sample.
    const std::vector<Ka3DPoint> points = Cloud(22);
    ForEachPointwiseMethod([&](const KaMethodInfo& method, const SearchSetup& s) {
        auto samples = Samples(points);
        auto reference = Prepared(method, s, *samples);
        auto* own = dynamic_cast<KaEstGridSearcher*>(reference.get());
        if (!own) return;  // leaving out is for searching methods
        auto prepared = Prepared(method, s, *samples);
        const auto& shared = static_cast<const KaEstGridSearcher&>(*prepared);
        std::vector<std::size_t> left;
        for (std::size_t i = 1; i < points.size(); i += 7) left.push_back(i);
        std::vector<double> without, with;
        for (std::size_t i : left) {
            own->SetExcludedSample(i);
            without.push_back(own->EstimateAt(points[i].x, points[i].y));
        }
        own->SetExcludedSample(KaEstGridSearcher::kNoSample);
        for (std::size_t i : left) with.push_back(own->EstimateAt(points[i].x, points[i].y));

        std::vector<std::unique_ptr<KaEstimatorWorkspace>> ws;
        for (int t = 0; t < 2; ++t) ws.push_back(shared.MakeWorkspace());
        int changed = 0;
        KaRunItems(left.size(), 2, [&](unsigned w, uint64_t k) {
            const std::size_t i = left[k];
            shared.ExcludeSample(*ws[w], i);
            const double v = shared.EstimateAt(*ws[w], points[i].x, points[i].y);
            EXPECT_TRUE(Same(v, without[k])) << "sample " << i << ": " << v << " " << without[k];
        });
        for (std::size_t k = 0; k < left.size(); ++k) {
            const std::size_t i = left[k];
            const double v = prepared->EstimateAt(points[i].x, points[i].y);
            EXPECT_TRUE(Same(v, with[k])) << "sample " << i << " was left out of the estimator's own search";
            changed += !Same(with[k], without[k]);
        }
        if (!method.note) {
            EXPECT_GT(changed, 0);
        }
    });
}

TEST(Workspace, AWorkspaceFollowsTheEstimatorToNewSamples)
{
    // A workspace made before the estimator is prepared again (new samples, a
    // new search structure or triangulation) gives the new samples' values.
    const std::vector<Ka3DPoint> first = Cloud(23), second = Cloud(24);
    ForEachPointwiseMethod([&](const KaMethodInfo& method, const SearchSetup& s) {
        auto oldSamples = Samples(first), newSamples = Samples(second);
        auto reference = Prepared(method, s, *newSamples);
        auto prepared = Prepared(method, s, *oldSamples);
        std::unique_ptr<KaEstimatorWorkspace> ws = prepared->MakeWorkspace();
        const auto nodes = Nodes(*prepared->GetParam(), second);
        for (const auto& [x, y] : nodes) prepared->EstimateAt(*ws, x, y);
        prepared->SetSampleList(newSamples.get());
        oldSamples.reset();
        for (const auto& [x, y] : nodes) {
            const double want = reference->EstimateAt(x, y);
            ASSERT_TRUE(Same(prepared->EstimateAt(*ws, x, y), want)) << "(" << x << ", " << y << ")";
        }
    });
}
