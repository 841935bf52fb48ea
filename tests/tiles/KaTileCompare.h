#pragma once

// The comparison the tiled-gridding suites share: a mosaic against the
// single run, bit for bit.

#include <gtest/gtest.h>

#include <gdal_priv.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "io/KaRasterIo.h"

namespace katest {

// Band 1 of a raster as raw doubles (north up), with its size.
struct Raster {
    int cols = 0, rows = 0;
    std::vector<double> values;
    double gt[6] = {};
};

inline Raster Read(const std::string& path)
{
    KaIoInit();
    Raster r;
    std::unique_ptr<GDALDataset> ds(GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY));
    if (!ds) {
        ADD_FAILURE() << "cannot open " << path;
        return r;
    }
    r.cols = ds->GetRasterXSize();
    r.rows = ds->GetRasterYSize();
    ds->GetGeoTransform(r.gt);
    r.values.resize(static_cast<std::size_t>(r.cols) * r.rows);
    EXPECT_EQ(ds->GetRasterBand(1)->RasterIO(GF_Read, 0, 0, r.cols, r.rows, r.values.data(), r.cols, r.rows,
                                             GDT_Float64, 0, 0, nullptr),
              CE_None);
    return r;
}

// Bit for bit, and the same georeferencing; the count of differing nodes otherwise.
inline void ExpectSameGrid(const std::string& single, const std::string& mosaic)
{
    const Raster a = Read(single), b = Read(mosaic);
    ASSERT_EQ(a.cols, b.cols) << mosaic;
    ASSERT_EQ(a.rows, b.rows) << mosaic;
    std::size_t differ = 0, valued = 0;
    for (std::size_t i = 0; i < a.values.size(); ++i) {
        differ += std::memcmp(&a.values[i], &b.values[i], sizeof(double)) != 0;
        valued += a.values[i] < 1e30;
    }
    EXPECT_EQ(differ, 0u) << mosaic << ": nodes that differ from the single run";
    EXPECT_GT(valued, a.values.size() / 4) << "too few estimated nodes for a meaningful comparison";
    for (int k = 0; k < 6; ++k) EXPECT_EQ(a.gt[k], b.gt[k]) << "geotransform " << k;
}

}  // namespace katest
