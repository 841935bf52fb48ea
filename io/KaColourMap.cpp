#include "io/KaColourMap.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>

#include "platform/kadata/KaDataObject.h"

namespace {

// Eleven evenly spaced stops per ramp, interpolated linearly.
using Stops = KaRgb[11];
constexpr Stops kViridis = {{68, 1, 84},    {72, 36, 117},  {65, 68, 135},  {53, 95, 141},
                            {42, 120, 142}, {33, 145, 140}, {34, 168, 132}, {68, 191, 112},
                            {122, 209, 81}, {189, 223, 38}, {253, 231, 37}};
constexpr Stops kMagma = {{0, 0, 4},       {20, 14, 54},    {59, 15, 112},   {100, 26, 128},
                          {140, 41, 129},  {183, 55, 121},  {222, 73, 104},  {247, 112, 92},
                          {254, 159, 109}, {254, 207, 146}, {252, 253, 191}};
constexpr Stops kCividis = {{0, 34, 78},     {18, 53, 112},   {59, 73, 108},  {87, 92, 109},
                            {112, 113, 115}, {138, 134, 120}, {165, 156, 116}, {193, 178, 107},
                            {222, 202, 90},  {242, 221, 72},  {253, 234, 69}};
constexpr Stops kBlueRed = {{5, 48, 97},     {33, 102, 172},  {67, 147, 195}, {146, 197, 222},
                            {209, 229, 240}, {247, 247, 247}, {253, 219, 199}, {244, 165, 130},
                            {214, 96, 77},   {178, 24, 43},   {103, 0, 31}};

const Stops& StopsOf(KaRamp ramp)
{
    switch (ramp) {
    case KaRamp::Magma: return kMagma;
    case KaRamp::Cividis: return kCividis;
    case KaRamp::BlueRed: return kBlueRed;
    case KaRamp::Viridis: break;
    }
    return kViridis;
}

// Enough significant digits that neighbouring labels a quarter of the range
// apart read differently.
std::string Label(double v, double zMin, double zMax)
{
    const double mag = std::max(std::fabs(zMin), std::fabs(zMax));
    const double step = (zMax - zMin) / 4;
    int digits = 4;
    if (step > 0 && mag > 0) digits = std::clamp(static_cast<int>(std::ceil(std::log10(mag / step))) + 2, 3, 12);
    if (std::fabs(v) < step * 1e-9) v = 0.0;  // no "-1.2e-14" for a zero in the middle
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*g", digits, v);
    return buf;
}

}  // namespace

const char* KaRampName(KaRamp ramp)
{
    switch (ramp) {
    case KaRamp::Magma: return "magma";
    case KaRamp::Cividis: return "cividis";
    case KaRamp::BlueRed: return "blue-red";
    case KaRamp::Viridis: break;
    }
    return "viridis";
}

bool KaRampFromName(const std::string& name, KaRamp* ramp)
{
    std::string lower = name;
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (KaRamp r : kKaRamps)
        if (lower == KaRampName(r)) {
            if (ramp) *ramp = r;
            return true;
        }
    return false;
}

KaRgb KaRampColour(double t) { return KaRampColour(KaRamp::Viridis, t); }

KaRgb KaRampColour(KaRamp ramp, double t)
{
    const Stops& kRamp = StopsOf(ramp);
    if (!(t >= 0.0)) t = 0.0;
    t = std::min(t, 1.0) * 10.0;
    const int i = std::min(9, static_cast<int>(t));
    const double f = t - i;
    auto mix = [f](uint8_t a, uint8_t b) { return static_cast<uint8_t>(std::lround(a + (b - a) * f)); };
    return {mix(kRamp[i].r, kRamp[i + 1].r), mix(kRamp[i].g, kRamp[i + 1].g), mix(kRamp[i].b, kRamp[i + 1].b)};
}

KaZRange KaSurfaceZRange(const KaSurface& surface)
{
    KaZRange r;
    const KaTDataMatrix2D<double>& m = surface.GridData();
    if (m.IsEmpty()) return r;
    const double blank = surface.GetInvalidValue();
    for (std::size_t i = 0, n = m.Size(); i < n; ++i) {
        const double v = m.data[i];
        if (KaIsBlankNode(v, blank)) {
            r.anyBlank = true;
            continue;
        }
        if (!r.anyValue) r.zMin = r.zMax = v;
        r.zMin = std::min(r.zMin, v);
        r.zMax = std::max(r.zMax, v);
        r.anyValue = true;
    }
    return r;
}

std::vector<std::string> KaLegendLabels(const KaZRange& range)
{
    if (!range.anyValue) return {"no values"};
    if (range.zMin == range.zMax) return {Label(range.zMax, range.zMin, range.zMax)};
    std::vector<std::string> labels;
    for (int k = 4; k >= 0; --k)
        labels.push_back(Label(range.zMin + (range.zMax - range.zMin) * k / 4, range.zMin, range.zMax));
    return labels;
}
