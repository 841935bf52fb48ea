#pragma once

#include <cstdint>
#include <vector>

#include "platform/kadata/Ka3DLimit.h"
#include "platform/kadata/Ka3DPoint.h"
#include "platform/kadata/KaTDataMatrix2D.h"
#include "platform/kamessageroute/KaObject.h"

// A data object of the host (surface, point set, mesh).
class KaDataObject : public KaObject {
    KA_DECLARE_RUNTIME_CLASS(KaDataObject)
};

// Grid information of a surface: lattice, corners, invalid value, z range.
// Node (r, c) lies at xMin + c * GetDx(), yMin + r * GetDy().
struct KaSurfaceObjInfo {
    uint32_t columnCount = 0;
    uint32_t rowCount = 0;
    double xMin = 0.0, xMax = 0.0;
    double yMin = 0.0, yMax = 0.0;
    Ka3DPoint corners[3];  // (xMin, yMin), (xMax, yMin), (xMin, yMax)
    double invalidValue = 1.70141e38;
    double zMin = 0.0, zMax = 0.0;
    Ka3DLimit limit;

    double GetDx() const { return columnCount < 2 ? 0.0 : (xMax - xMin) / (columnCount - 1.0); }
    double GetDy() const { return rowCount < 2 ? 0.0 : (yMax - yMin) / (rowCount - 1.0); }
};

class KaSurface : public KaDataObject {
    KA_DECLARE_RUNTIME_CLASS(KaSurface)
public:
    KaSurfaceObjInfo& GetSurfaceObjInfo() { return info_; }
    const KaSurfaceObjInfo& GetSurfaceObjInfo() const { return info_; }
    uint32_t GetColCount() const { return info_.columnCount; }
    uint32_t GetRowCount() const { return info_.rowCount; }
    double GetInvalidValue() const { return info_.invalidValue; }

    // Copies the grid into `out` (its invalid value is kept). False when the
    // surface holds no data.
    bool GetGridDataArray(KaTDataMatrix2D<double>& out) const;
    // Takes the grid over. Refused (false) when it is empty or its size does not
    // match the grid information.
    bool SetGridDataArray(KaTDataMatrix2D<double>&& matrix);
    const KaTDataMatrix2D<double>& GridData() const { return data_; }

private:
    KaSurfaceObjInfo info_;
    KaTDataMatrix2D<double> data_;
};

class KaScatteredPoints : public KaDataObject {
    KA_DECLARE_RUNTIME_CLASS(KaScatteredPoints)
public:
    // Stores the points and sets the limit to their extent.
    void SetScatteredPoints(std::vector<Ka3DPoint> points);
    bool GetScatteredPoints(std::vector<Ka3DPoint>& out) const;
    uint64_t GetScatteredPointsCount() const { return points_.size(); }
    const std::vector<Ka3DPoint>& Points() const { return points_; }

    double GetInvalidValue() const { return invalidValue_; }
    void SetInvalidValue(double v) { invalidValue_ = v; }
    const Ka3DLimit& GetLimit() const { return limit_; }

private:
    std::vector<Ka3DPoint> points_;
    double invalidValue_ = 1.70141e38;
    Ka3DLimit limit_;
};

// A surface draped with an image (width x height pixels, 0xAARRGGBB, rows from
// the top). Not a KaSurface: it carries no grid of values.
class KaTextureSurface : public KaDataObject {
    KA_DECLARE_RUNTIME_CLASS(KaTextureSurface)
public:
    // False (nothing changed) when the pixel count does not match the size.
    bool SetImage(uint32_t width, uint32_t height, std::vector<uint32_t> pixels);
    uint32_t GetImageWidth() const { return width_; }
    uint32_t GetImageHeight() const { return height_; }
    const std::vector<uint32_t>& GetImagePixels() const { return pixels_; }
    Ka3DLimit& GetLimit() { return limit_; }
    const Ka3DLimit& GetLimit() const { return limit_; }

private:
    uint32_t width_ = 0, height_ = 0;
    std::vector<uint32_t> pixels_;
    Ka3DLimit limit_;
};
