#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/KaBlank.h"

class KaSurface;

// The colour map of surface pictures (kagrid's preview PNG and the desktop
// map view draw with this one implementation, so both look alike).

struct KaRgb {
    uint8_t r, g, b;
};

// The colour ramps: three perceptually uniform ones and one diverging
// (blue through white to red, for values either side of a middle). The first
// is the default of every picture.
enum class KaRamp { Viridis, Magma, Cividis, BlueRed };
constexpr KaRamp kKaRamps[] = {KaRamp::Viridis, KaRamp::Magma, KaRamp::Cividis, KaRamp::BlueRed};
// "viridis", "magma", "cividis", "blue-red": the names in project files and
// on the command line.
const char* KaRampName(KaRamp ramp);
// The ramp of a name (case ignored); false when there is none of that name.
bool KaRampFromName(const std::string& name, KaRamp* ramp);

// The default ramp from dark violet (t = 0) through teal to yellow (t = 1);
// t is clamped.
KaRgb KaRampColour(double t);
KaRgb KaRampColour(KaRamp ramp, double t);
// The colour of blank nodes where a picture cannot leave them transparent.
constexpr KaRgb kKaBlankColour{217, 217, 217};

// KaIsBlankNode, the test of nodes without a value, lives with the engine's blank tests.

// The z range of a surface's non-blank nodes; `anyValue` false when every
// node is blank (or there is no grid), `anyBlank` true when some node is.
struct KaZRange {
    double zMin = 0.0, zMax = 0.0;
    bool anyValue = false, anyBlank = false;
    // Where v lies on the ramp (0.5 for a flat surface).
    double Position(double v) const { return zMax > zMin ? (v - zMin) / (zMax - zMin) : 0.5; }
};
KaZRange KaSurfaceZRange(const KaSurface& surface);

// The legend's value labels, top (maximum) to bottom (minimum): five evenly
// spaced values with enough digits to tell neighbours apart, one for a flat
// surface, "no values" when all is blank.
std::vector<std::string> KaLegendLabels(const KaZRange& range);
