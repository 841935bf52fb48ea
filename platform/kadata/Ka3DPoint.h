#pragma once

// A host point: x, y, z as 64-bit floats.
struct Ka3DPoint {
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;

    Ka3DPoint() = default;
    Ka3DPoint(double px, double py, double pz) : x(px), y(py), z(pz) {}
    bool operator==(const Ka3DPoint&) const = default;
};
