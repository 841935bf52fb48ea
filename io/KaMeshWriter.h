#pragma once

#include <string>

class KaDelaunayTriangle;

// Writes the triangles of a mesh as polygon Z features, one per triangle in
// the mesh's order, each with the attributes z0, z1, z2 (the z of its vertices
// in the triangle's sorted vertex order). The format follows the extension:
// ".shp" gives a Shapefile, anything else a GeoPackage (".gpkg"). The layer is
// named after the mesh (or the file when the mesh has no name). A mesh without
// triangles gives an empty layer. A GeoPackage gets no spatial index: for a
// large mesh its R-tree would cost several times the rest of the write.
//
// The file is written under a temporary name in the same directory and renamed
// when complete, so a failed or interrupted write never leaves a partial file
// at `path`. `crsWkt`, when not empty, is recorded as the layer's coordinate
// system. Errors throw std::runtime_error naming the file.
void WriteTriangleMesh(const KaDelaunayTriangle& mesh, const std::string& path, const std::string& crsWkt = "");
