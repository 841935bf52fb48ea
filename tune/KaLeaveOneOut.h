#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/KaEstimatorSample.h"
#include "methods/KaMethodRegistry.h"

// Summary of leave-one-out errors (observed - estimated) over the samples
// that got an estimate; NaN where nothing was estimated.
struct KaLooStatistics {
    std::size_t count = 0, estimated = 0;
    double me, mae, rmse, r;
    // Share of the samples that got no estimate, 0 .. 1.
    double BlankShare() const { return count ? static_cast<double>(count - estimated) / count : 0.0; }
};

KaLooStatistics KaSummarise(const std::vector<double>& observed, const std::vector<double>& estimated);

// Estimates every valid sample from all the others through the method's own
// estimator, on several threads: one estimator builds the search structure
// and every thread estimates with it and a workspace of its own. The structure is kept between runs while
// the search settings stay the same, so records that differ only in the
// method's own settings share it.
class KaLeaveOneOut {
public:
    // `samples` must outlive this object; samples holding `invalidValue` take
    // no part, as in gridding. Throws KaParamError for a method that does not
    // estimate node by node from searched samples.
    KaLeaveOneOut(const KaMethodInfo& method, KaSampleList& samples, double invalidValue, unsigned threads);
    ~KaLeaveOneOut();

    // The samples taking part, in input order.
    const std::vector<Ka3DPoint>& Points() const { return points_; }
    std::vector<double> Observed() const;

    // One estimate per point (NaN where not estimable). `progress` is called
    // now and then on the calling thread with the number of points done.
    // Throws what an estimator threw (a KaSearchError), after every thread ended.
    std::vector<double> Run(KaEstimatorGridParam& record, const std::function<void(std::size_t)>& progress = {});

private:
    const KaMethodInfo& method_;
    KaSampleList* samples_;
    unsigned threads_ = 1;
    std::vector<Ka3DPoint> points_;
    std::vector<std::size_t> listIndex_;
    std::unique_ptr<KaEstimatorGrid> first_;
    std::string builtFor_;  // the search settings first_'s structure was built for
};

// Throws KaParamError unless the method estimates node by node from searched
// samples, which leaving a sample out needs.
void KaRequireLeaveOneOut(const KaMethodInfo& method);

// Worker threads for a --threads value: empty text means every core. Throws
// std::invalid_argument unless it is a whole number from 1 to 1024.
unsigned KaThreadCount(const std::string& text);
