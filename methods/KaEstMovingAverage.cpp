#include "methods/KaEstMovingAverage.h"

namespace {

// Each value divided by n before it is added, in the search's order.
template <class Values, class Z>
double MeanInOrder(const Values& values, Z z)
{
    const double n = static_cast<double>(values.size());
    double mean = 0;
    for (const auto& v : values) mean += z(v) / n;
    return mean;
}

}  // namespace

double KaEstMovingAverage::EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const
{
    KaNodeWorkspace& node = static_cast<KaSearcherWorkspace&>(workspace).node;
    std::span<const double> values;
    switch (SearchValues(node, x, y, values)) {
    case KaRingValues::Enough:
        return values.empty() ? BlankValue() : MeanInOrder(values, [](double z) { return z; });
    case KaRingValues::TooFew:
        return BlankValue();
    case KaRingValues::Undecided:
        break;
    }
    double decided;
    if (SearchOrDecide(node, x, y, decided)) return decided;
    return MeanInOrder(node.neighbours, [](const Ka3DPoint& s) { return s.z; });
}
