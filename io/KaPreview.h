#pragma once

#include <string>
#include <utility>
#include <vector>

#include "io/KaColourMap.h"
#include "platform/kadata/KaDataObject.h"

// Writes a quick-look PNG of a surface: the grid in a colour ramp (blank
// nodes light grey), north up, at least 400 pixels on the long side
// (small grids are blown up, nearest node per pixel; grids beyond 1000 nodes
// are sub-sampled), the surface's physical aspect kept; a colour bar with the
// minimum, maximum and three values between, the name and the lattice size.
// Written under a temporary name and renamed when complete; throws KaIoError.
void WritePreviewPng(const KaSurface& surface, const std::string& path, KaRamp ramp = KaRamp::Viridis);

// A scatter of points and a curve on axes from 0, with tick values, axis
// labels and a title; written like the preview.
struct KaPlot {
    std::string title, xLabel, yLabel;
    std::vector<std::pair<double, double>> points, curve;
};
void WritePlotPng(const std::string& path, const KaPlot& plot);
