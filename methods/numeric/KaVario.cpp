#include "methods/numeric/KaVario.h"

#include <cmath>
#include <stdexcept>

namespace {

const char* const kModelNames[kKaVarioModelCount] = {
    "Nugget",   "Exponential",     "Gaussian",    "Quadratic",
    "Rational Quadratic", "Power", "Linear",      "Wave(Hole Effect)",
    "Spherical", "Logarithmic",    "Pentaspherical", "Cubic",
};

// h^n by square-and-multiply on the integer exponent, so the polynomial models
// round the same way everywhere (the general power function may not).
double IntPow(double h, unsigned n)
{
    double result = 1.0;
    for (double base = h;; base *= base) {
        if (n & 1u) result *= base;
        if ((n >>= 1) == 0) return result;
    }
}

}  // namespace

KaVario& KaVario::operator=(const KaVario& other)
{
    if (this == &other) return *this;
    modelType = other.modelType;
    sill = other.sill;
    range = other.range;
    power = other.power;
    anisotropy = other.anisotropy;
    return *this;
}

bool KaVario::IsEqual(const KaVario& other) const
{
    if (sill != other.sill) return false;
    if (range != other.range) return false;
    if (power != other.power) return false;
    if (modelType != other.modelType) return false;
    return anisotropy.IsEqual(other.anisotropy);
}

void KaVario::Set(uint32_t model, double s, double r, double angle1, double angle2, double angle3,
                  double ratio1, double ratio2)
{
    modelType = model;
    sill = s;
    range = r;
    anisotropy.SetAnisotropy(angle1, angle2, angle3, ratio1, ratio2);
}

std::string KaVario::ModelName(uint32_t model)
{
    // kept: the spelling of the fallback name
    return model < kKaVarioModelCount ? kModelNames[model] : "unknow";
}

double KaVario::Evaluate(double dx, double dy, double dz) const
{
    const double d = std::sqrt(anisotropy.SquaredDistance(dx, dy, dz));
    // A zero range is not guarded: h becomes infinite or NaN.
    const double h = d / range;
    const double s = sill;
    switch (modelType) {
    case kKaVarioNugget:
        return s;  // also at zero separation
    case kKaVarioExponential:
        return s * (1 - std::exp(-h));  // h itself, no factor 3
    case kKaVarioGaussian:
        return s * (1 - std::exp(-(h * h)));
    case kKaVarioQuadratic:
        if (h >= 1) return s;
        return s * (2 * h - h * h);
    case kKaVarioRationalQuadratic:
        return s * (h * h) / (1 + h * h);
    case kKaVarioPower:
        return s * std::pow(h, power);
    case kKaVarioLinear:
        return s * h;
    case kKaVarioWave:
        if (h < 1e-15) return 0.0;
        return s * (1 - std::sin(h) / h);
    case kKaVarioSpherical:
        if (h > 1) return s;
        return s * (1.5 * h - 0.5 * IntPow(h, 3));
    case kKaVarioLogarithmic:
        if (h >= 1) return s * std::log(h);
        return 0.0;
    case kKaVarioPentaspherical:
        // kept: not capped at the range
        return s * (1.875 * h - 1.25 * IntPow(h, 3) + 0.375 * IntPow(h, 5));
    case kKaVarioCubic:
        // kept: uncapped, and the first term is linear in h
        return s * (7 * h - 8.75 * IntPow(h, 3) + 3.5 * IntPow(h, 5) - 0.75 * IntPow(h, 7));
    default:
        return 0.0;
    }
}

std::unique_ptr<KaVarioVector> KaVarioVector::Clone() const
{
    auto copy = std::make_unique<KaVarioVector>();
    copy->scale = scale;
    copy->items_.reserve(items_.size());
    for (const auto& c : items_) copy->items_.push_back(std::make_unique<KaVario>(*c));
    return copy;
}

void KaVarioVector::Clear()
{
    while (!items_.empty()) {
        std::unique_ptr<KaVario> front = std::move(items_.front());
        items_.erase(items_.begin());
        front.reset();
    }
    scale = 1.0;
}

KaVario& KaVarioVector::operator[](std::size_t i)
{
    if (i >= items_.size()) throw std::out_of_range("invalid vector<T> subscript");
    return *items_[i];
}

const KaVario& KaVarioVector::operator[](std::size_t i) const
{
    if (i >= items_.size()) throw std::out_of_range("invalid vector<T> subscript");
    return *items_[i];
}

bool KaVarioVector::IsEqual(const KaVarioVector& other) const
{
    if (items_.size() != other.items_.size() || scale != other.scale) return false;
    for (std::size_t i = 0; i < items_.size(); ++i)
        if (!items_[i]->IsEqual(*other.items_[i])) return false;
    return true;
}

double KaVarioVector::Evaluate(double dx, double dy, double dz) const
{
    if (items_.empty()) return 0.0;
    double sum = 0.0;
    for (const auto& c : items_) sum += c->Evaluate(dx, dy, dz);
    return sum * scale;
}
