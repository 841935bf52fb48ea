#include "platform/kadata/KaDataObject.h"

#include <algorithm>
#include <cstring>

namespace {
template <typename T>
KaObject* Create() { return new T; }
}  // namespace

KA_IMPLEMENT_RUNTIME_CLASS(KaDataObject, KaObject, nullptr)
KA_IMPLEMENT_RUNTIME_CLASS(KaSurface, KaDataObject, Create<KaSurface>)
KA_IMPLEMENT_RUNTIME_CLASS(KaScatteredPoints, KaDataObject, Create<KaScatteredPoints>)
KA_IMPLEMENT_RUNTIME_CLASS(KaTextureSurface, KaDataObject, Create<KaTextureSurface>)

namespace {
// The data classes can be looked up by name as soon as the library is loaded.
const KaClassRegistration g_registrations[] = {
    KaClassRegistration(KaDataObject::GetThisClass()),
    KaClassRegistration(KaSurface::GetThisClass()),
    KaClassRegistration(KaScatteredPoints::GetThisClass()),
    KaClassRegistration(KaTextureSurface::GetThisClass()),
};
}  // namespace

bool KaSurface::GetGridDataArray(KaTDataMatrix2D<double>& out) const
{
    if (data_.IsEmpty()) return false;
    if (!out.Create(data_.columnCount, data_.rowCount)) return false;
    std::memcpy(out.data, data_.data, data_.Size() * sizeof(double));
    return true;
}

bool KaSurface::SetGridDataArray(KaTDataMatrix2D<double>&& matrix)
{
    if (matrix.IsEmpty() || matrix.columnCount != info_.columnCount ||
        matrix.rowCount != info_.rowCount)
        return false;
    data_ = std::move(matrix);
    return true;
}

void KaScatteredPoints::SetScatteredPoints(std::vector<Ka3DPoint> points)
{
    points_ = std::move(points);
    if (points_.empty()) {
        limit_ = Ka3DLimit{};
        return;
    }
    Ka3DLimit l;
    l.SetLimit(points_[0].x, points_[0].y, points_[0].z, points_[0].x, points_[0].y, points_[0].z);
    for (const Ka3DPoint& p : points_) {
        l.xMin = std::min(l.xMin, p.x); l.xMax = std::max(l.xMax, p.x);
        l.yMin = std::min(l.yMin, p.y); l.yMax = std::max(l.yMax, p.y);
        l.zMin = std::min(l.zMin, p.z); l.zMax = std::max(l.zMax, p.z);
    }
    limit_ = l;
}

bool KaScatteredPoints::GetScatteredPoints(std::vector<Ka3DPoint>& out) const
{
    out = points_;
    return true;
}

bool KaTextureSurface::SetImage(uint32_t width, uint32_t height, std::vector<uint32_t> pixels)
{
    if (pixels.size() != static_cast<std::size_t>(width) * height) return false;
    width_ = width;
    height_ = height;
    pixels_ = std::move(pixels);
    return true;
}
