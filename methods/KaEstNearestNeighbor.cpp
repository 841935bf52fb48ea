#include "methods/KaEstNearestNeighbor.h"

double KaEstNearestNeighbor::EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const
{
    KaNodeWorkspace& node = static_cast<KaSearcherWorkspace&>(workspace).node;
    double decided;
    if (SearchOrDecide(node, x, y, decided)) return decided;
    double best = 1.7976931348623157e308;
    const Ka3DPoint* chosen = nullptr;
    for (const Ka3DPoint& s : node.neighbours) {
        const double d2 = (s.x - x) * (s.x - x) + (s.y - y) * (s.y - y);
        if (d2 < best) {
            best = d2;
            chosen = &s;
        }
    }
    return chosen ? chosen->z : BlankValue();
}
