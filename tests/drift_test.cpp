// Kriging with drift: universal kriging (linear and quadratic drift) and
// kriging with an external drift, against fields in the drift's span and
// against R gstat on meuse.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <nlohmann/json.hpp>

#include "KaTestSupport.h"
#include "io/KaNumericJson.h"
#include "io/KaRasterIo.h"
#include "methods/KaEstKrig.h"
#include "methods/KaMethodRegistry.h"
#include "methods/KaPredict.h"

using katest::Kagrid;

namespace {

constexpr double kBlank = 1.70141e38;
const char* const kModel =
    R"({"components": [{"model": "Nugget", "sill": 0.05}, {"model": "Spherical", "sill": 0.5, "range": 900}]})";

// Ordinary kriging with drift over a cols x rows grid on [x0, x0 + w]^2
// nearest-first, the textbook nugget.
std::unique_ptr<KaEstKrigParam> Record(int32_t drift, double x0, double w, uint64_t cols, int32_t nmax)
{
    auto p = std::make_unique<KaEstKrigParam>();
    p->xMin = x0, p->xMax = x0 + w, p->yMin = x0, p->yMax = x0 + w;
    p->columnCount = p->rowCount = cols;
    p->searchMode = kKaSearchNearest;
    p->sectorCount = 1;
    p->radius1 = p->radius2 = 1e9;
    p->minInAll = 1;
    p->maxFromAll = p->maxFromEach = nmax;
    p->nuggetOnDiagonal = false;
    p->drift = drift;
    if (drift == kKaDriftExternal) p->driftRasters = "dem.tif";  // as named; the test attaches the values
    p->SetVariogram(VariogramFromJson(nlohmann::json::parse(kModel)).release());
    return p;
}

struct Gridded {
    std::vector<double> z, sd;
};

Gridded Grid(std::unique_ptr<KaEstKrigParam> record, const std::vector<Ka3DPoint>& pts, unsigned threads = 1)
{
    KaGridJob job;
    job.SetEstimator(std::make_unique<KaEstKrig>());
    job.SetSampleList(katest::Samples(pts));
    job.CollectStdDev(true);
    job.SetThreadCount(threads);
    EXPECT_TRUE(job.StartEstimate(std::move(record)));
    Gridded r;
    auto s = job.Run();
    if (!s) return r;
    r.z.assign(s->GridData().data, s->GridData().data + s->GridData().Size());
    auto sd = job.TakeStdDevSurface();
    r.sd.assign(sd->GridData().data, sd->GridData().data + sd->GridData().Size());
    return r;
}

// meuse (R's sp package) and gstat's kriging with drift on meuse.grid's
// nodes, nmax nearest: the drift rasters are meuse.grid's dist and its square
// root on their 40 m lattice (ASCII grids), sampled at the samples from the
// cell holding each, as kagrid samples them. The quadratic drift is kriged on
// coordinates shifted by an exact translation: with raw coordinates gstat's
// own system loses about 1e-3 to conditioning (its answer moves by that much
// under the shift, which leaves the drift's span unchanged).
const char* const kGstatScript = R"(
suppressPackageStartupMessages({ library(sp); library(gstat) })
w <- commandArgs(TRUE)[1]; nmax <- as.numeric(commandArgs(TRUE)[2])
data(meuse); data(meuse.grid)
cols <- 78; rows <- 104
asc <- function(v, name) {
  g <- matrix(-9999, rows, cols)
  g[cbind((meuse.grid$y - 329620) / 40 + 1, (meuse.grid$x - 178460) / 40 + 1)] <- v
  lines <- apply(g[rows:1, ], 1, function(r) paste(sprintf("%.17g", r), collapse = " "))
  writeLines(c("ncols 78", "nrows 104", "xllcorner 178440", "yllcorner 329600", "cellsize 40",
               "NODATA_value -9999", lines), file.path(w, name))
  g[cbind(floor((meuse$y - 329600) / 40) + 1, floor((meuse$x - 178440) / 40) + 1)]
}
meuse$dem <- asc(meuse.grid$dist, "dist.asc")
meuse$sdem <- asc(sqrt(meuse.grid$dist), "sdist.asc")
meuse.grid$dem <- meuse.grid$dist
meuse.grid$sdem <- sqrt(meuse.grid$dist)
meuse$lzinc <- log(meuse$zinc)
writeLines(c("x,y,lzinc", sprintf("%.17g,%.17g,%.17g", meuse$x, meuse$y, meuse$lzinc)), file.path(w, "meuse.csv"))
m <- vgm(0.5, "Sph", 900, 0.05)
run <- function(name, f, dx = 0, dy = 0) {
  a <- meuse; a$x <- a$x - dx; a$y <- a$y - dy; coordinates(a) <- ~x + y
  g <- meuse.grid; g$x <- g$x - dx; g$y <- g$y - dy; coordinates(g) <- ~x + y
  k <- krige(f, a, g, model = m, nmax = nmax, debug.level = 0)
  writeLines(sprintf("%.17g %.17g %.17g %.17g", coordinates(k)[, 1] + dx, coordinates(k)[, 2] + dy,
                     k$var1.pred, k$var1.var), file.path(w, paste0("g_", name, ".txt")))
}
run("none", lzinc ~ 1)
run("linear", lzinc ~ x + y)
run("quadratic", lzinc ~ x + y + I(x^2) + I(y^2) + I(x*y), 180000, 331000)
run("external", lzinc ~ dem)
run("external2", lzinc ~ dem + sdem)
)";

}  // namespace

TEST(KrigingDrift, ReproducesAFieldInTheDriftsSpanExactly)
{
    // Far from the origin, so that raw coordinates would make the system
    // ill-conditioned; the external drift is a curved "terrain".
    const double x0 = 5.0e5, w = 1000;
    auto dem = [&](double x, double y) { return std::sin((x - x0) / 170) * 40 + std::hypot(x - x0, y - x0) / 9; };
    struct Case {
        int32_t drift;
        double (*field)(double u, double v, double d);  // u, v: coordinates from x0
    };
    const Case cases[] = {
        {kKaDriftLinear, [](double u, double v, double) { return 3 + 0.02 * u - 0.05 * v; }},
        {kKaDriftQuadratic,
         [](double u, double v, double) { return 1 + 0.01 * u - 0.02 * v + 3e-5 * u * u - 2e-5 * v * v + 4e-5 * u * v; }},
        {kKaDriftExternal, [](double, double, double d) { return 7 - 0.3 * d; }},
    };
    auto pts = katest::RandomPoints(120, 3, x0, x0 + w, x0, x0 + w);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.drift);
        auto record = Record(c.drift, x0, w, 21, 16);
        auto values = std::make_shared<KaDriftValues>(1, x0, x0, record->GetDx(), record->GetDy(), 21, 21);
        for (auto& p : pts) {
            const double d = dem(p.x, p.y);
            p.z = c.field(p.x - x0, p.y - x0, d);
            values->AddSample(p.x, p.y, &d);
        }
        for (uint32_t r = 0; r < 21; ++r)
            for (uint32_t k = 0; k < 21; ++k) *values->Node(r, k) = dem(k * record->GetDx() + x0, record->GetDy() * r + x0);
        record->driftValues = values;
        const Gridded g = Grid(std::move(record), pts);
        ASSERT_EQ(g.z.size(), 441u);
        const double dx = w / 20;
        for (uint32_t r = 0; r < 21; ++r)
            for (uint32_t k = 0; k < 21; ++k) {
                const double u = k * dx, v = r * dx, want = c.field(u, v, dem(u + x0, v + x0));
                EXPECT_NEAR(g.z[r * 21 + k], want, 1e-9 * (1 + std::fabs(want))) << r << " " << k;
                EXPECT_TRUE(std::isfinite(g.sd[r * 21 + k]) && g.sd[r * 21 + k] >= 0);
            }
        // Ordinary kriging misses the same field between the samples.
        if (c.drift != kKaDriftExternal) {
            const Gridded ok = Grid(Record(kKaDriftNone, x0, w, 21, 16), pts);
            double worst = 0;
            for (std::size_t i = 0; i < ok.z.size(); ++i) worst = std::max(worst, std::fabs(ok.z[i] - g.z[i]));
            EXPECT_GT(worst, 1e-3);
        }
    }
}

TEST(KrigingDrift, ThreadsAgreeAndMissingValuesBlankTheNode)
{
    auto pts = katest::RandomPoints(200, 8, 0, 100, 0, 100);
    for (int32_t drift : {kKaDriftLinear, kKaDriftQuadratic}) {
        const Gridded one = Grid(Record(drift, 0, 100, 30, 12), pts, 1);
        const Gridded two = Grid(Record(drift, 0, 100, 30, 12), pts, 2);
        EXPECT_EQ(one.z, two.z);
        EXPECT_EQ(one.sd, two.sd);
    }
    // External: a node on a nodata cell (NaN) is blank; a record without
    // attached values (a front end that read no raster) blanks every node.
    auto record = Record(kKaDriftExternal, 0, 100, 3, 12);
    auto values = std::make_shared<KaDriftValues>(1, 0, 0, 50, 50, 3, 3);
    for (const auto& p : pts) {
        const double d = p.x;
        values->AddSample(p.x, p.y, &d);
    }
    for (uint32_t r = 0; r < 3; ++r)
        for (uint32_t k = 0; k < 3; ++k) *values->Node(r, k) = (r == 1 && k == 1) ? std::nan("") : 50.0 * k;
    record->driftValues = values;
    const Gridded g = Grid(std::move(record), pts);
    EXPECT_EQ(g.z[4], kBlank);
    EXPECT_NE(g.z[3], kBlank);
    const Gridded none = Grid(Record(kKaDriftExternal, 0, 100, 3, 12), pts);
    EXPECT_EQ(none.z, std::vector<double>(9, kBlank));
}

TEST(KagridDrift, NoneIsOrdinaryKrigingAndBadInputIsRefusedInOneLine)
{
    katest::TempDir d;
    std::string csv = "x,y,z\n";
    for (const auto& p : katest::RandomPoints(60, 4, 0, 100, 0, 100))
        csv += std::to_string(p.x) + "," + std::to_string(p.y) + "," + std::to_string(p.z) + "\n";
    katest::WriteFile(d / "p.csv", csv);
    // A drift raster over [0, 50]^2: most samples lie outside.
    katest::WriteFile(d / "half.asc", "ncols 2\nnrows 2\nxllcorner 0\nyllcorner 0\ncellsize 25\n1 2\n3 4\n");
    const std::string grid = " --set xMin=0 --set xMax=100 --set yMin=0 --set yMax=100 --set columnCount=11 "
                             "--set rowCount=11 --set searchMode=nearest --set nuggetOnDiagonal=false --set "
                             "maxFromAll=10 --set maxFromEach=10 -q";
    const std::string base = "kriging " + d / "p.csv ";
    ASSERT_EQ(Kagrid(base + d / "a.tif" + grid).status, 0);
    ASSERT_EQ(Kagrid(base + d / "b.tif" + grid + " --set drift=none").status, 0);
    EXPECT_EQ(katest::ReadGrid(d / "a.tif"), katest::ReadGrid(d / "b.tif"));

    katest::WriteFile(d / "full.asc", "ncols 2\nnrows 2\nxllcorner -1\nyllcorner -1\ncellsize 51\n1 2\n3 4\n");
    const std::string cases[][2] = {
        {" --set drift=cubic", "drift: unknown name \"cubic\""},
        {" --set drift=external", "driftRasters: must name one or more rasters"},
        {" --set drift=linear --set driftRasters=" + d / "full.asc", "driftRasters: only read when drift is external"},
        {" --set drift=external --set driftRasters=" + d / "none.tif", d / "none.tif: driftRasters: "},
        {" --set drift=external --set driftRasters=" + d / "half.asc", d / "half.asc: driftRasters: does not cover sample"},
        {" --set drift=external --set driftRasters=" + d / "full.asc," + d / "full.asc --set xMax=120",
         d / "full.asc: driftRasters: does not cover the grid's node at (108, 0)"},
        {" --set drift=linear --set krigType=Simple", "drift: needs krigType Ordinary"},
        {" --set drift=quadratic --set nuggetOnDiagonal=true", "drift: needs nuggetOnDiagonal=false"},
    };
    for (const auto& [settings, message] : cases) {
        SCOPED_TRACE(settings);
        const auto r = Kagrid(base + d / "c.tif" + grid + settings);
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.output.find(message), std::string::npos) << r.output;
        EXPECT_EQ(std::count(r.output.begin(), r.output.end(), '\n'), 1) << r.output;
        EXPECT_FALSE(std::filesystem::exists(d / "c.tif"));
    }
    // The external drift's values exist at the samples and nodes only.
    const auto cv = Kagrid("cross-validate " + base + grid + " --set drift=external --set driftRasters=" + d / "full.asc");
    EXPECT_EQ(cv.status, 1);
    EXPECT_NE(cv.output.find("drift: an external drift is sampled at the grid's nodes only"), std::string::npos)
        << cv.output;
    auto samples = katest::Samples(katest::RandomPoints(30, 2, 0, 100, 0, 100));
    const double at[] = {50.5};
    EXPECT_THROW(KaPredictAt(*FindMethod("kriging"), Record(kKaDriftExternal, 0, 100, 3, 10), *samples, at, at, true, 1),
                 std::invalid_argument);
    EXPECT_NO_THROW(KaPredictAt(*FindMethod("kriging"), Record(kKaDriftLinear, 0, 100, 3, 10), *samples, at, at, true, 1));
    // Both rasters cover: it runs, two drift terms.
    EXPECT_EQ(Kagrid(base + d / "c.tif" + grid + " --set drift=external --set driftRasters=" + d / "full.asc").status, 0);
}

TEST(KagridDrift, EqualsGstatOnMeuse)
{
    if (std::system("Rscript -e 'suppressPackageStartupMessages(library(gstat))' > /dev/null 2>&1") != 0)
        GTEST_SKIP() << "R with gstat is not installed (scripts/test.sh installs r-base-core and r-cran-gstat)";
    katest::TempDir d;
    katest::WriteFile(d / "gstat.R", kGstatScript);
    const int nmax = 20;
    ASSERT_EQ(std::system(("Rscript " + d / "gstat.R " + d.path.string() + " " + std::to_string(nmax)).c_str()), 0);
    // The external drift as GeoTIFF, as a user would have it.
    WriteSurface(*ReadRasterSurface(d / "dist.asc"), d / "dist.tif");

    std::vector<Ka3DPoint> samples;
    {
        std::istringstream in(katest::ReadFile(d / "meuse.csv"));
        std::string line;
        std::getline(in, line);
        double x, y, z;
        while (std::getline(in, line) && std::sscanf(line.c_str(), "%lf,%lf,%lf", &x, &y, &z) == 3)
            samples.emplace_back(x, y, z);
    }
    ASSERT_EQ(samples.size(), 155u);
    const std::string cases[][2] = {
        {"none", ""},
        {"linear", "--set drift=linear"},
        {"quadratic", "--set drift=quadratic"},
        {"external", "--set drift=external --set driftRasters=" + d / "dist.tif"},
        {"external2", "--set drift=external --set driftRasters=" + d / "dist.tif," + d / "sdist.asc"},
    };
    for (const auto& [name, settings] : cases) {
        SCOPED_TRACE(name);
        const auto r = Kagrid("kriging " + d / "meuse.csv " + d / "k.tif --stddev " + d / "s.tif -q " +
                              "--set xMin=178460 --set xMax=181540 --set yMin=329620 --set yMax=333740 "
                              "--set columnCount=78 --set rowCount=104 --set tolerance=1e-9 "
                              "--set searchMode=nearest --set sectorCount=1 --set radius1=1e9 --set radius2=1e9 "
                              "--set minInAll=1 --set maxFromAll=20 --set maxFromEach=20 "
                              "--set nuggetOnDiagonal=false --set 'variogram=" + std::string(kModel) + "' " +
                              settings);
        ASSERT_EQ(r.status, 0) << r.output;
        const auto k = ReadRasterSurface(d / "k.tif"), s = ReadRasterSurface(d / "s.tif");
        std::istringstream in(katest::ReadFile(d / ("g_" + name + ".txt")));
        double x, y, pred, var, worstZ = 0, worstSd = 0;
        std::size_t nodes = 0, ties = 0;
        while (in >> x >> y >> pred >> var) {
            // Nodes whose nmax-th and next nearest samples are equally far
            // have no single neighbourhood (kagrid takes input order, gstat its own).
            std::vector<double> d2;
            for (const auto& p : samples) d2.push_back((p.x - x) * (p.x - x) + (p.y - y) * (p.y - y));
            std::nth_element(d2.begin(), d2.begin() + nmax, d2.end());
            const double next = d2[nmax];
            if (*std::max_element(d2.begin(), d2.begin() + nmax) == next) {
                ++ties;
                continue;
            }
            const auto c = static_cast<std::size_t>(std::lround((x - 178460) / 40));
            const auto row = static_cast<std::size_t>(std::lround((y - 329620) / 40));
            const double z = k->GridData().At(row, c), sd = s->GridData().At(row, c);
            worstZ = std::max(worstZ, std::fabs(z - pred) / std::fabs(pred));
            worstSd = std::max(worstSd, std::fabs(sd - std::sqrt(var)) / std::sqrt(var));
            ++nodes;
        }
        EXPECT_EQ(nodes + ties, 3103u);
        EXPECT_LT(ties, 10u);
        EXPECT_LT(worstZ, 1e-9);
        EXPECT_LT(worstSd, 1e-9);
        std::printf("%-10s relative difference to gstat: estimate %.1e, standard deviation %.1e (%zu tied nodes left out)\n",
                    name.c_str(), worstZ, worstSd, ties);
    }
}
