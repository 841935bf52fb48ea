#pragma once

// Axis-aligned 3D extent of a data object.
//
// Validity rule: every bound is a number (no NaN) and each minimum is at most
// its maximum. Infinite bounds are allowed as long as they are ordered. A
// default-constructed limit (all zero) is valid, so a record that was never
// filled from data still passes validation.
class Ka3DLimit {
public:
    double xMin = 0.0, yMin = 0.0, zMin = 0.0;
    double xMax = 0.0, yMax = 0.0, zMax = 0.0;

    void SetLimit(double x0, double y0, double z0, double x1, double y1, double z1);
    bool IsLimitValid() const;
    bool operator==(const Ka3DLimit&) const = default;
};
