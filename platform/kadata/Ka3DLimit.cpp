#include "platform/kadata/Ka3DLimit.h"

#include <cmath>

void Ka3DLimit::SetLimit(double x0, double y0, double z0, double x1, double y1, double z1)
{
    xMin = x0; yMin = y0; zMin = z0;
    xMax = x1; yMax = y1; zMax = z1;
}

bool Ka3DLimit::IsLimitValid() const
{
    const double v[6] = {xMin, yMin, zMin, xMax, yMax, zMax};
    for (double d : v)
        if (std::isnan(d)) return false;
    return xMin <= xMax && yMin <= yMax && zMin <= zMax;
}
