#include "methods/KaEstMovingAverage.h"

double KaEstMovingAverage::EstimateNode(double x, double y)
{
    double decided;
    if (SearchOrDecide(x, y, neighbours_, decided)) return decided;
    const double n = static_cast<double>(neighbours_.size());
    double mean = 0;
    for (const Ka3DPoint& s : neighbours_) mean += s.z / n;
    return mean;
}
