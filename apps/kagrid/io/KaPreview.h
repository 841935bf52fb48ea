#pragma once

#include <string>

#include "platform/kadata/KaDataObject.h"

// Writes a quick-look PNG of a surface: the grid in a perceptual colour ramp
// (blank nodes light grey), north up, at least 400 pixels on the long side
// (small grids are blown up, nearest node per pixel; grids beyond 1000 nodes
// are sub-sampled), the surface's physical aspect kept; a colour bar with the
// minimum, maximum and three values between, the name and the lattice size.
// Written under a temporary name and renamed when complete; throws KaIoError.
void WritePreviewPng(const KaSurface& surface, const std::string& path);
