#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "methods/KaKrigDrift.h"
#include "methods/numeric/KaVario.h"
#include "search/KaEstGridSearcher.h"

class KaEstKrigParam : public KaEstGridSearcherParam {
public:
    // The default model: one Linear component of sill 1.
    KaEstKrigParam();
    KaEstKrigParam(const KaEstKrigParam& other);
    KaEstKrigParam& operator=(const KaEstKrigParam& other);
    ~KaEstKrigParam() override;

    std::string Validate() const override;
    void VisitFields(KaFieldVisitor& v) override;
    // Also names the standard-deviation surface: objectName + "StdDev".
    void SetOutputNames(const std::string& objectName, const std::string& suffix) override;

    // Takes ownership and deletes the vector held before.
    void SetVariogram(KaVarioVector* model);

    int32_t krigType = 1;   // 0 simple, 1 ordinary
    int32_t driftType = 0;  // carried only: no drift terms enter the system
    bool createStdDev = false;
    std::string stdDevName;
    KaVarioVector* variogram = nullptr;  // owned
    // true: the variogram at zero separation is the nugget sill (the design);
    // false: it is 0, and the nugget applies to every separation above 0.
    bool nuggetOnDiagonal = true;
    // kagrid only (the dialogs never set them): kriging with drift, the
    // drift's functions as further unknowns of each node's system.
    int32_t drift = kKaDriftNone;
    std::string driftRasters;  // external drift: raster files, comma-separated
    // The rasters' values at the samples and nodes, attached by the front end
    // before the run (no file is read here); not a field.
    std::shared_ptr<const KaDriftValues> driftValues;
};

// Throws std::invalid_argument (naming the key) when the record krigs with an
// external drift: its raster values exist at the samples and the grid's nodes
// only, attached by the gridding pipeline, so `what` (prediction at other
// positions, cross-validation) cannot use it.
void KaRefuseExternalDrift(const KaEstimatorGridParam& record, const char* what);

// Kriging from the neighbours of each node with the record's variogram model,
// written in semivariances: simple kriging solves G w = g0, ordinary kriging
// the system bordered by the unbiasedness row, both by Gauss-Jordan.
class KaEstKrig : public KaEstGridSearcher {
public:
    // Also builds the variogram components' anisotropy transforms, which from
    // then on are only read.
    void SetParam(std::unique_ptr<KaEstimatorGridParam> param) override;
    using KaEstGridSearcher::EstimateNode;
    double EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const override;
    std::unique_ptr<KaEstimatorWorkspace> MakeWorkspace() const override;
    KA_CLONE_FOR_THREAD(KaEstKrig)
    bool FormsStdDev() const override { return true; }

    // Of the last node that reached the system (blank when its solve failed),
    // estimated through EstimateAt(x, y).
    double KrigingVariance() const;

    // Per-node arrays, reused from node to node to save the allocations.
    struct Workspace : KaSearcherWorkspace {
        double krigingVariance = 1.0;  // as KrigingVariance
        std::vector<double> matrix;
        std::vector<double> rhs;
        std::vector<double> weights;
        int32_t order = 0;  // neighbours, plus 1 for ordinary kriging
        int32_t count = 0;  // neighbours
        std::vector<double> driftWork;  // drift functions and external values per neighbour
    };

protected:
    bool BuildMatrix(const KaEstKrigParam& p, const KaNeighbours& n, Workspace& w) const;
    bool BuildRightHandSide(const KaEstKrigParam& p, double x, double y, const KaNeighbours& n, Workspace& w) const;
    double Combine(const KaEstKrigParam& p, const KaNeighbours& n, Workspace& w) const;
    // Kriging with drift: the neighbours' variogram bordered by the drift
    // functions (universal kriging; the constant is ordinary kriging's row).
    double EstimateWithDrift(const KaEstKrigParam& p, double x, double y, Workspace& w) const;
    // The variogram between two points, with the zero-separation rule.
    static double Gamma(const KaEstKrigParam& p, double dx, double dy)
    {
        if (!p.nuggetOnDiagonal && dx == 0 && dy == 0) return 0.0;
        return p.variogram->Evaluate(dx, dy, 0.0);
    }

    const KaEstKrigParam* krigParam_ = nullptr;  // the record, when of this kind
};
