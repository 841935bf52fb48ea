#include "search/KaAnisotropy.h"

#include <cmath>

namespace {

// kept: this truncated factor, not a full-precision pi / 180
constexpr double kDegToRad = 0.0174532925;
constexpr double kRatioFloor = 1e-15;
constexpr double kLengthTolerance = 1e-15;

// A ratio at or below the floor, or NaN, becomes the floor.
double FlooredRatio(double r) { return r > kRatioFloor ? r : kRatioFloor; }

}  // namespace

KaAnisotropy::KaAnisotropy() : rotation_(new double[9])
{
    for (int i = 0; i < matrixCount_; ++i) rotation_[i] = 0.0;
    // kept: an initial matrix that the first request replaces (dirty is set)
    rotation_[1] = 1.0;
    rotation_[3] = -1.0;
    rotation_[8] = 1.0;
}

KaAnisotropy::KaAnisotropy(const KaAnisotropy& other) : KaAnisotropy() { *this = other; }

KaAnisotropy& KaAnisotropy::operator=(const KaAnisotropy& other)
{
    if (this == &other) return *this;
    angle1_ = other.angle1_;
    angle2_ = other.angle2_;
    angle3_ = other.angle3_;
    ratio1_ = other.ratio1_;
    ratio2_ = other.ratio2_;
    dirty_ = true;
    return *this;
}

bool KaAnisotropy::IsEqual(const KaAnisotropy& other) const
{
    if (angle1_ != other.angle1_) return false;
    if (angle2_ != other.angle2_) return false;
    if (angle3_ != other.angle3_) return false;
    if (ratio1_ != other.ratio1_) return false;
    return ratio2_ == other.ratio2_;
}

void KaAnisotropy::SetAnisotropy(double angle1, double angle2, double angle3, double ratio1,
                                 double ratio2)
{
    angle1_ = angle1;
    angle2_ = angle2;
    angle3_ = angle3;
    ratio1_ = ratio1;
    ratio2_ = ratio2;
    dirty_ = true;
}

void KaAnisotropy::UpdateRotation() const
{
    // The azimuth is used as given, not turned into a compass bearing.
    const double a = angle1_ * kDegToRad;
    const double b = -1.0 * angle2_ * kDegToRad;
    const double t = angle3_ * kDegToRad;
    const double f1 = 1 / FlooredRatio(ratio1_);
    const double f2 = 1 / FlooredRatio(ratio2_);
    const double sa = std::sin(a), ca = std::cos(a);
    const double sb = std::sin(b), cb = std::cos(b);
    const double st = std::sin(t), ct = std::cos(t);

    double* m = rotation_.get();
    m[0] = cb * ca;
    m[1] = cb * sa;
    m[2] = -sb;
    m[3] = f1 * (sb * st * ca - ct * sa);
    m[4] = f1 * (sb * st * sa + ct * ca);
    m[5] = f1 * cb * st;
    m[6] = f2 * (ct * sb * ca + st * sa);
    m[7] = f2 * (sa * ct * sb - ca * st);
    m[8] = f2 * ct * cb;

    dirty_ = false;
    isAnisotropic_ = false;
    const double units[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    for (const auto& u : units) {
        if (std::fabs(MatrixForm(u[0], u[1], u[2]) - 1) > kLengthTolerance) {
            isAnisotropic_ = true;
            break;
        }
    }
}

double KaAnisotropy::MatrixForm(double dx, double dy, double dz) const
{
    if (matrixCount_ < 1) return 0.0;
    const int stride = static_cast<int>(std::sqrt(static_cast<double>(matrixCount_)) + 0.5);
    const double* m = rotation_.get();
    double sum = 0.0;
    for (int i = 0; i < matrixCount_; i += stride) {
        const double c = m[i] * dx + m[i + 1] * dy + m[i + 2] * dz;
        sum += c * c;
    }
    return sum;
}

double KaAnisotropy::TransformedSquaredDistance(double dx, double dy, double dz) const
{
    if (dirty_) UpdateRotation();
    if (!isAnisotropic_) return dx * dx + dy * dy + dz * dz;
    return MatrixForm(dx, dy, dz);
}
