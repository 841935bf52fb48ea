// grid_points METHOD INPUT.csv OUTPUT.tif KEY=VALUE...
//
// Grids the points of INPUT with the method and settings given, as
// `kagrid METHOD INPUT OUTPUT --set KEY=VALUE ...` does, and writes the same
// GeoTIFF. Build it against an installed kagrid:
//   g++ -std=c++20 grid_points.cpp $(pkg-config --cflags --libs kagrid)

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include <kagrid/kagrid.h>

int main(int argc, char** argv)
{
    if (argc < 4) {
        std::fprintf(stderr, "usage: grid_points METHOD INPUT.csv OUTPUT.tif KEY=VALUE...\n");
        return 2;
    }
    std::vector<std::pair<std::string, std::string>> settings;
    for (int i = 4; i < argc; ++i) {
        const std::string s = argv[i];
        const std::size_t eq = s.find('=');
        if (eq == std::string::npos || eq == 0) {
            std::fprintf(stderr, "grid_points: expected KEY=VALUE, not '%s'\n", s.c_str());
            return 2;
        }
        settings.emplace_back(s.substr(0, eq), s.substr(eq + 1));
    }
    try {
        const kagrid::Points points = kagrid::readPoints(argv[2]);
        const kagrid::Record record = kagrid::Record::make(argv[1], points.view(), {}, settings);
        const kagrid::Grid grid = kagrid::grid(record, points.view());
        for (const std::string& w : grid.warnings) std::fprintf(stderr, "grid_points: warning: %s\n", w.c_str());
        kagrid::WriteOptions how;
        how.crs = points.crs;
        kagrid::writeRaster(grid, argv[3], how);
        std::fprintf(stderr, "grid_points: %llu x %llu nodes written to %s\n",
                     static_cast<unsigned long long>(grid.columns), static_cast<unsigned long long>(grid.rows), argv[3]);
    } catch (const kagrid::Error& e) {
        std::fprintf(stderr, "grid_points: %s\n", e.what());
        return 1;
    }
    return 0;
}
