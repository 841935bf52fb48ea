#pragma once

#include <cstdint>
#include <memory>

// Anisotropic squared distance: the separation vector is rotated by three
// angles (degrees) and its second and third rotated components are divided by
// two ratios. The rotation matrix is cached and rebuilt lazily on the next
// distance request after a change; a transform that changes no length falls
// back to the plain Euclidean square.
class KaAnisotropy {
public:
    KaAnisotropy();
    KaAnisotropy(const KaAnisotropy& other);
    virtual ~KaAnisotropy() = default;

    // Copies the five parameters (not the matrix) and marks the matrix stale.
    KaAnisotropy& operator=(const KaAnisotropy& other);

    // True when the five parameters compare equal, in order; flags and matrix
    // are not compared.
    virtual bool IsEqual(const KaAnisotropy& other) const;

    void SetAnisotropy(double angle1, double angle2, double angle3, double ratio1, double ratio2);

    // The anisotropic squared length of (dx, dy, dz); 2D callers pass dz = 0.
    double SquaredDistance(double dx, double dy, double dz) const
    {
        // The plain path inline: it is what nearly every caller takes.
        if (!dirty_ && !isAnisotropic_) return dx * dx + dy * dy + dz * dz;
        return TransformedSquaredDistance(dx, dy, dz);
    }

    double Angle1() const { return angle1_; }
    double Angle2() const { return angle2_; }
    double Angle3() const { return angle3_; }
    double Ratio1() const { return ratio1_; }
    double Ratio2() const { return ratio2_; }

    // The cached transform, for inspection; valid after a distance request.
    bool IsDirty() const { return dirty_; }
    bool IsAnisotropic() const { return isAnisotropic_; }
    int16_t MatrixCount() const { return matrixCount_; }
    const double* Rotation() const { return rotation_.get(); }

private:
    double TransformedSquaredDistance(double dx, double dy, double dz) const;
    void UpdateRotation() const;
    double MatrixForm(double dx, double dy, double dz) const;

    double angle1_ = 0.0;  // azimuth, about the vertical axis
    double angle2_ = 0.0;  // dip; enters the matrix negated
    double angle3_ = 0.0;  // plunge
    double ratio1_ = 1.0;
    double ratio2_ = 1.0;
    // The cache is rebuilt inside const distance requests.
    mutable bool dirty_ = true;
    int16_t matrixCount_ = 9;
    std::unique_ptr<double[]> rotation_;
    mutable bool isAnisotropic_ = true;
};
