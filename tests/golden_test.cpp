// Golden grids: every method of the registry on a 4 x 3 lattice from ten
// samples, the expected nodes written out literally (hex floats, so every bit
// is fixed), together with the standard deviation where the method forms one
// and the leave-one-out estimates where the method allows them. A change of
// the engine that moves any of these by one bit fails here, on one thread and
// on two.
//
// To rewrite the table after an intended change: KA_GOLDEN_PRINT=1 golden_test
// prints the entries as they are now.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "KaTestSupport.h"
#include "tune/KaLeaveOneOut.h"

using namespace katest;

namespace {

constexpr double B = 1.70141e38;  // the records' default blank value

struct Golden {
    const char* key;       // the method
    const char* settings;  // JSON applied over the common settings
    std::vector<double> grid, stdDev, looEstimates;  // looEstimates: NaN where not estimated
};

// Ten samples over [0, 3] x [0, 2]; one lies on the node (2, 1), one carries the
// invalid value, two lie close together.
std::vector<Ka3DPoint> Points()
{
    return {Ka3DPoint(0.1, 0.2, 1.5),  Ka3DPoint(1.3, 0.1, 2.25), Ka3DPoint(2.9, 0.4, 3.0),
            Ka3DPoint(0.4, 1.6, 4.125), Ka3DPoint(1.6, 1.2, -1.0), Ka3DPoint(2.0, 1.0, 0.5),
            Ka3DPoint(0.7, 1.9, 2.0),  Ka3DPoint(2.6, 1.8, 7.75), Ka3DPoint(1.1, 0.9, B),
            Ka3DPoint(2.62, 1.75, 6.5)};
}

std::unique_ptr<KaEstimatorGridParam> Record(const KaMethodInfo& method, const char* settings)
{
    auto record = method.makeParam();
    nlohmann::ordered_json json = {{"xMin", 0}, {"xMax", 3}, {"yMin", 0}, {"yMax", 2},
                                   {"columnCount", 4}, {"rowCount", 3}};
    if (dynamic_cast<KaEstGridSearcherParam*>(record.get()))
        json.update(nlohmann::ordered_json{{"sectorCount", 1}, {"blankSectors", 1}, {"minInAll", 1},
                                           {"maxFromAll", 16}, {"maxFromEach", 16}, {"radius1", 5},
                                           {"radius2", 5}});
    json.update(nlohmann::ordered_json::parse(settings));
    ApplyJson(*record, json, "the golden case");
    return record;
}

struct Outcome {
    std::vector<double> grid, stdDev, loo;
};

Outcome Compute(const KaMethodInfo& method, const char* settings, unsigned threads)
{
    Outcome out;
    std::unique_ptr<KaGridJob> job = MakeJob(method, nullptr);
    job->SetThreadCount(threads);
    job->CollectStdDev(true);
    job->SetEstimator(method.makeEstimator());
    job->SetSampleList(Samples(Points()));
    EXPECT_TRUE(job->StartEstimate(Record(method, settings)));
    if (std::unique_ptr<KaSurface> surface = job->Run()) {
        KaTDataMatrix2D<double> m;
        EXPECT_TRUE(surface->GetGridDataArray(m));
        out.grid.assign(m.data, m.data + m.Size());
        if (std::unique_ptr<KaSurface> sd = job->TakeStdDevSurface()) {
            EXPECT_TRUE(sd->GetGridDataArray(m));
            out.stdDev.assign(m.data, m.data + m.Size());
        }
    }
    bool loo = true;
    try {
        KaRequireLeaveOneOut(method);
    } catch (const KaParamError&) {
        loo = false;
    }
    if (loo) {
        std::unique_ptr<KaSampleList> samples = Samples(Points());
        KaLeaveOneOut cv(method, *samples, B, threads);
        out.loo = cv.Run(*Record(method, settings));
    }
    return out;
}

std::string Hex(const std::vector<double>& v)
{
    std::string s = "{";
    char buf[64];
    for (std::size_t i = 0; i < v.size(); ++i) {
        std::snprintf(buf, sizeof buf, "%s%a", i ? ", " : "", v[i]);
        s += std::isnan(v[i]) ? (i ? ", NAN" : "NAN") : buf;
    }
    return s + "}";
}

// Bit for bit, NaN equal to NaN.
void ExpectBits(const std::vector<double>& want, const std::vector<double>& got, const char* what)
{
    ASSERT_EQ(want.size(), got.size()) << what;
    for (std::size_t i = 0; i < want.size(); ++i) {
        const bool same = (std::isnan(want[i]) && std::isnan(got[i])) ||
                          std::memcmp(&want[i], &got[i], sizeof(double)) == 0;
        EXPECT_TRUE(same) << what << "[" << i << "]: expected " << want[i] << " (" << Hex({want[i]}) << "), got "
                          << got[i] << " (" << Hex({got[i]}) << ")";
    }
}

// clang-format off
const Golden kGolden[] = {
{"kriging", R"({})",
 {0x1.a55c8f27d5dc1p+0, -0x1.7ca11611e23f5p-2, 0x1.9767db1815d3p-2, 0x1.7feddc7d8b43fp+1,
  0x1.072aaf08ec8acp+2, 0x1.615d96b2b1f5fp-1, 0x1.b4029a8ad34c2p+2, 0x1.a025a211c61abp+2,
  0x1.b555555555556p+1, 0x1.06367e3c39a02p+1, 0x1.e2c707e5572dfp+2, 0x1.cdae7a13db076p+2},
 {0x1.530e8d3a83bacp-1, 0x1.96e65b06081cep+0, 0x1.2a81e649ae653p+0, 0x1.d0f0b5e41509fp-1,
  0x1.336ef135dae25p+0, 0x1.cda388c90d57fp-1, 0x1.6483d9773a68ep+0, 0x1.4bf774285d899p+0,
  0x1.04b44c54f0a3fp+0, 0x1.97093c990aec5p-1, 0x1.1f956dd64c7bcp+0, 0x1.ded31a770e05ap-1},
 {0x1.bac1734184d44p+1, -0x1.0000000000009p-2, 0x1.5108a4004c65p+1, 0x1p+1,
  0x1.94a61da04b659p+0, 0x1.b4029a8ad34c2p+2, 0x1.08p+2, 0x1.ap+2,
  0x1.fp+2}},
{"kriging", R"({"driftType": "Linear", "variogram": {"components": [{"model": "Nugget", "sill": 0.5}, {"model": "Spherical", "sill": 6, "range": 2.5}]}})",
 {0x1.8261f6510dfb7p+0, -0x1.57b1e2efb796ep-2, 0x1.5e6c0c2d51537p+0, 0x1.b0460146bed52p+1,
  0x1.fc85b05796f16p+1, 0x1.c98935c3c6391p-1, 0x1.b71ee197ddc97p+2, 0x1.a4f160a72a952p+2,
  0x1.b2cb6279c6022p+1, 0x1.0ae1be65f2b6dp+1, 0x1.e0f7d0a19ebd5p+2, 0x1.cd7f59c5c675ep+2},
 {0x1.6f1051fd91deep+0, 0x1.7788e4d2da114p+1, 0x1.27249f4986b4dp+1, 0x1.d7e6466494d15p+0,
  0x1.2d12689cac897p+1, 0x1.deb913f945df6p+0, 0x1.558c1a1436d1bp+1, 0x1.41e2a2be22f6bp+1,
  0x1.04b2dc6e4a1e3p+1, 0x1.a949b62509228p+0, 0x1.1c9381a64c35bp+1, 0x1.e6a276143d819p+0},
 {0x1.7651c5a5646abp+1, -0x1.0000000000012p-2, 0x1.5b652483e70afp+1, 0x1p+1,
  0x1.823475520bc4cp+0, 0x1.b71ee197ddc97p+2, 0x1.08p+2, 0x1.ap+2,
  0x1.fp+2}},
{"kriging", R"({"krigType": "Simple", "variogram": {"components": [{"model": "Gaussian", "sill": 5, "range": 1.5, "ratio1": 2, "angle1": 30}]}})",
 {0x1.ed134f17905c2p-1, -0x1.0573af3c007cdp+3, 0x1.0a8aec10fee5p+4, 0x1.9dc0e00b21ae8p+3,
  0x1.ba026d6705529p+4, -0x1.1394992af1e24p+1, 0x1.a246c7785da43p+13, 0x1.a42c17ebab5bep+11,
  0x1.2d497c40dcc83p+3, 0x1.001cfcb646aa2p+3, 0x1.034406bd57aaep+12, 0x1.c20712f954a8fp+11},
 {0x1.f767c19968883p-3, 0x1.fccfe1af4827cp+2, 0x1.10cc92d580e88p+0, 0x1.f228fe5155513p-3,
  0x1.91e587ac84cd4p+1, 0x1.5fa0ecf14c571p-2, 0x1.b7bb3d7532f12p+5, 0x1.badb044999f74p+3,
  0x1.d4c9bdaf03f9cp-1, 0x1.16dbe968480ebp+0, 0x1.0ff453ffbcc55p+4, 0x1.d7f0c28b80c0fp+3},
 {0x1.629830c4c6778p+3, -0x1.82803b5ad8734p+2, -0x1.7d0260b99652ep+3, NAN,
  0x1.8bfc8211f07dp+1, 0x1.a246c7785da43p+13, NAN, NAN,
  NAN}},
{"linear-kriging", R"({})",
 {0x1.b1c78fb2957c1p+0, -0x1p+0, 0x1.9b8ff55015ddap-2, 0x1.4027f4e54d868p-1,
  0x1.08p+2, -0x1.566f93891158bp+2, 0x1.fp+2, 0x1.fp+2,
  0x1.08p+2, 0x1.08p+2, 0x1.fp+2, 0x1.fp+2},
 {0x1.5f844e5d094afp+0, 0x1.a358b873ad7a6p+1, 0x1.69b92e3695ac4p+1, 0x1.d0f758bf32d0ep+0,
  0x1.336fcfb63cad8p+1, 0x1.2693405ac2c7p+1, 0x1.6a09e667f3bcdp+1, 0x1.56652116c816cp+1,
  0x1.104bf7cd90e1ap+1, 0x1.336fcfb63cad8p+1, 0x1.1feb33c1c381ep+1, 0x1.e4383e8245267p+0},
 {0x1.e3e9545f24778p+1, -0x1p+0, 0x1.e48b0fa69d6b9p+2, NAN, -0x1.5a498a54dfd4ap+1, 0x1.fp+2, NAN, NAN, NAN}},
{"inverse-distance", R"({})",
 {0x1.8850a88978803p+0, -0x1.286bca1af286cp-2, 0x1.162e84cb62a15p+1, 0x1.b11780debeee7p+1,
  0x1.c249249249249p+1, 0x1.924a6f4ed8152p+0, 0x1.c6e8b68277283p+2, 0x1.c58758f8084a5p+2,
  0x1.a5da895da895ep+1, 0x1.2bdef7bdef7bfp+1, 0x1.ca371341528d8p+2, 0x1.c8ada5067aef6p+2},
 {},
 {0x1.f78a64634aea5p+0, -0x1.0000000000002p-2, 0x1.90faf0572818cp+1, 0x1p+1,
  0x1.16df40e63e597p+1, 0x1.c6e8b68277283p+2, 0x1.08p+2, 0x1.a000000000001p+2,
  0x1.f000000000001p+2}},
{"inverse-distance", R"({"sectorCount": 4, "blankSectors": 4, "maxFromEach": 2, "radius1": 2, "radius2": 1, "ellipseAngle": 30, "power": 3, "smoothing": 0.5})",
 {0x1.9e68531e70417p+0, 0x1.1de98da4fe501p+1, 0x1.897c4306f88c7p+0, 0x1.a57cd6f3d1349p+1,
  0x1.bcb43816d2963p+1, 0x1.e0c83e385e44p-1, 0x1.c6ec8df8bbcd9p+2, 0x1.c5e6b5c57041ep+2,
  0x1.974a68c34f01dp+1, 0x1.66cd541a4d831p+1, 0x1.c92e0f073041ap+2, 0x1.c82863e3ce308p+2},
 {},
 {0x1.17a5c7e0cfa38p+1, -0x1p-2, 0x1.f641b7321cb55p+1, 0x1p+1,
  0x1.2fb2de240e6cdp+0, 0x1.c6ec8df8bbcd9p+2, 0x1.08p+2, 0x1.ap+2,
  0x1.f000000000001p+2}},
{"nearest-neighbor", R"({})",
 {0x1.8p+0, -0x1p+0, 0x1.8p+1, 0x1.8p+1,
  0x1.08p+2, -0x1p+0, 0x1.ap+2, 0x1.ap+2,
  0x1.08p+2, 0x1p+1, 0x1.fp+2, 0x1.fp+2},
 {},
 {0x1.2p+1, -0x1p+0, 0x1p-1, 0x1p+1, 0x1p-1, 0x1.ap+2, 0x1.08p+2, 0x1.ap+2, 0x1.fp+2}},
{"moving-average", R"({})",
 {0x1.8ffffffffffffp+0, -0x1p-2, 0x1.acccccccccccdp+1, 0x1.7p+2,
  0x1.88p+1, 0x1.a8p+1, 0x1.c8p+2, 0x1.c8p+2,
  0x1.88p+1, 0x1.88p+1, 0x1.c8p+2, 0x1.c8p+2},
 {},
 {0x1.9333333333333p+0, -0x1p-2, 0x1.b8p+1, 0x1p+1,
  0x1.0b33333333333p+2, 0x1.c8p+2, 0x1.08p+2, 0x1.ap+2,
  0x1.fp+2}},
{"moving-average", R"({"searchMode": "nearest", "maxFromAll": 3, "maxFromEach": 3})",
 {0x1.5p+1, 0x1.d555555555556p-1, 0x1.eaaaaaaaaaaabp+0, 0x1.eaaaaaaaaaaabp+0,
  0x1.4555555555555p+1, 0x1.b555555555556p+0, 0x1p-1, 0x1.7p+2,
  0x1.b555555555555p+0, 0x1.b555555555555p+0, 0x1.1aaaaaaaaaaabp+2, 0x1.3aaaaaaaaaaabp+2},
 {},
 {0x1.6555555555555p+1, 0x1.5555555555556p-2, 0x1.3aaaaaaaaaaaap+2, 0x1.aaaaaaaaaaaaap-1,
  0x1.9555555555555p+0, 0x1.1aaaaaaaaaaabp+2, 0x1.3555555555556p+0, 0x1.fffffffffffffp+0,
  0x1.3555555555555p+1}},
{"moving-average", R"({"radius1": 1.2, "radius2": 1.2, "minInAll": 2})",
 {B, B, 0x1.cp+0, B, 0x1.88p+1, 0x1.68p+0, 0x1.c8p+2, 0x1.c8p+2, 0x1.88p+1, 0x1.88p+1, 0x1.c8p+2, 0x1.c8p+2},
 {},
 {NAN, -0x1p-2, NAN, NAN, 0x1.0cp+2, 0x1.c8p+2, NAN, 0x1p+1, 0x1.3555555555555p+1}},
{"modified-shepard", R"({})",
 {0x1.df90573bd98aep-1, -0x1.286bca1af286cp-2, 0x1.05c78801c0cecp+9, -0x1.ced0ddd73fb5cp+3,
  0x1.efc0cdf864a52p+2, 0x1.2ac2cdf66c116p+3, 0x1.1ec18ce87dae8p+0, -0x1.a09725ee67882p+3,
  0x1.ee1b807058f1p+2, 0x1.2bdef7bdef7bfp+1, 0x1.702c220984d3dp+5, -0x1.61d6d806c8ceep+2},
 {},
 {0x1.54b648b19cdb4p+3, -0x1.0000000000002p-2, 0x1.991799bd4a248p+1, 0x1p+1,
  0x1.8a95dc5cbdde2p+2, 0x1.1ec18ce87dae8p+0, 0x1.08p+2, 0x1.a000000000001p+2,
  0x1.f000000000001p+2}},
{"data-metrics", R"({})",
 {-0x1p+0, -0x1p+0, -0x1p+0, 0x1.8p+1,
  0x1p+1, -0x1p+0, 0x1.ap+2, 0x1.ap+2,
  0x1p+1, 0x1p+1, 0x1.ap+2, 0x1.ap+2},
 {},
 {-0x1p+0, -0x1p+0, -0x1p+0, 0x1p+1, 0x1p-1, 0x1.ap+2, 0x1.08p+2, 0x1.ap+2, 0x1.fp+2}},
{"data-metrics", R"({"metric": "median", "radius1": 1.5, "radius2": 1.5})",
 {0x1.ep+0, -0x1p-2, 0x1p-1, 0x1.8p+1,
  0x1.88p+1, 0x1.4p+0, 0x1.c8p+2, 0x1.c8p+2,
  0x1.88p+1, 0x1.88p+1, 0x1.c8p+2, 0x1.c8p+2},
 {},
 {0x1.98p+1, -0x1p-2, 0x1.ap+2, 0x1p+1, 0x1.08p+2, 0x1.c8p+2, 0x1.08p+2, 0x1.ap+2, 0x1.fp+2}},
{"data-metrics", R"({"metric": "standard-deviation"})",
 {0x1.93d25dbd52eb5p+0, 0x1.8p-1, 0x1.ae166e328e2e1p+1, 0x1.015472f48eb87p+1,
  0x1.1p+0, 0x1.90819fe74afe5p+1, 0x1.4p-1, 0x1.4p-1,
  0x1.1p+0, 0x1.1p+0, 0x1.4p-1, 0x1.4p-1},
 {},
 {0x1.ba4b8c02179ecp+0, 0x1.8p-1, 0x1.e033307870c18p+1, 0x0p+0,
  0x1.597b4109bfde9p+1, 0x1.4p-1, 0x0p+0, 0x0p+0,
  0x0p+0}},
{"data-metrics", R"({"metric": "density", "radius1": 1.5, "radius2": 1.5})",
 {0x1.21bb945252403p-2, 0x1.21bb945252403p-2, 0x1.b2995e7b7b604p-2, 0x1.21bb945252403p-3,
  0x1.21bb945252403p-2, 0x1.21bb945252403p-1, 0x1.21bb945252403p-2, 0x1.21bb945252403p-2,
  0x1.21bb945252403p-2, 0x1.21bb945252403p-2, 0x1.21bb945252403p-2, 0x1.21bb945252403p-2},
 {},
 {0x1.21bb945252403p-2, 0x1.21bb945252403p-2, 0x1.b2995e7b7b604p-2, 0x1.21bb945252403p-3,
  0x1.6a2a7966e6d03p-1, 0x1.21bb945252403p-2, 0x1.21bb945252403p-3, 0x1.21bb945252403p-3,
  0x1.21bb945252403p-3}},
{"radial-basis", R"({})",
 {0x1.3da76249ee368p+0, -0x1.4fdd0373bc3cp-2, 0x1.14282647c9fbp+1, 0x1.f3e8d14e5cc8p+1,
  0x1.17f7d171b22c4p+2, -0x1.9edc9186f54p-3, 0x1.e0840d06c8ap-1, -0x1.a39a455dd118p+1,
  0x1.b494d129cbd5cp+1, 0x1.d19d0eb52b78p-1, 0x1.7e29096fc546p+3, 0x1.e8386ad0b4bp+2},
 {},
 {0x1.741560d464704p+1, -0x1.60faefd0024cp-3, -0x1.ea7fb6818942p-1, 0x1.d7558e6acd4f5p+0,
  0x1.4e99fcf5e33p+1, 0x1.e0840d06c8ap-1, 0x1.e6103ade23b9dp+1, 0x1.9f65ea754951p+2,
  0x1.ef4848c6eb1bap+2}},
{"radial-basis", R"({"basisFunction": "Thin Plate Spline", "r2Parameter": 0.5})",
 {0x1.1fa9fcea5622p-1, 0x1.5ece6678be8c8p+4, -0x1.7e240d2591e9p+3, 0x1.779ee855e94b2p+3,
  -0x1.dabed94f52164p+5, -0x1.1e8c89e4e10cp+2, 0x1.f113eeb9023e8p+4, 0x1.a665979a81fdep+5,
  -0x1.1f8b10e90a988p+2, 0x1.a87cf75c7b69ep+3, -0x1.5332361b3b24p+3, 0x1.a2c770083c8p+2},
 {},
 {0x1.7e86359e58e5p+4, 0x1.ecb39ff3acd8p-2, 0x1.e6b6479a20caep+5, 0x1.0c109f466ed33p+1,
  -0x1.424f0039340e8p+3, 0x1.f113eeb9023e8p+4, 0x1.14712440a249dp+2, 0x1.a15315f1dd3bep+2,
  0x1.f1944b654cb3bp+2}},
{"polynomial-regression", R"({})",
 {B, B, B, B, B, B, B, B, B, B, B, B},
 {},
 {NAN, NAN, NAN, NAN, NAN, NAN, NAN, NAN, NAN}},
{"local-polynomial", R"({})",
 {0x1.33cc938d9046p-2, -0x1.cd538d8b413dbp+3, 0x1.7d3aed4fca50dp+8, 0x1.2f2af9c88a32p+2,
  0x1.307dd8b32f6e4p+3, 0x1.15c74156fe966p+2, 0x1.a0ed0523bfecep+4, 0x1.8015aafe3c68p+4,
  0x1.54287a0a7abbp+3, B, 0x1.7244b9117ca36p+8, 0x1.08abd83307896p+7},
 {},
 {0x1.8132d0751033bp+4, NAN, 0x1.ea03c91ef02bcp+6, NAN,
  -0x1.133d098a58a49p+0, 0x1.a0ed0523bfecep+4, NAN, NAN,
  NAN}},
{"local-polynomial", R"({"totalOrder": 1, "weightingPower": 2})",
 {0x1.916d59b176cf2p+0, -0x1.a000000000002p+1, -0x1.da40c8e6aedb8p+1, -0x1.3b13b14a3p-6,
  0x1.11dddddddddep+3, -0x1.5f6736b02443p+0, 0x1.750a3d70a3d38p+5, -0x1.8800000000028p+3,
  0x1.bd55555555555p+2, B, 0x1.703d70a3d7096p+5, -0x1.4e147ae147b88p+1},
 {},
 {0x1.b00425e16ecb2p+2, NAN, 0x1.eb7554a028347p+0, NAN,
  0x1.d433a63f3d6ep-1, 0x1.750a3d70a3d38p+5, NAN, NAN,
  NAN}},
{"minimum-curvature", R"({})",
 {},
 {},
 {}},
{"triangulation", R"({})",
 {B, B, B, B, B, 0x1.1c00000000003p+1, 0x1.0000000000003p-1, B, B, B, B, B},
 {},
 {}},
{"triangulation", R"({"anisotropyRatio": 2, "anisotropyAngle": 30, "limitEdgeLength": true, "edgeLengthLimit": 2})",
 {B, B, B, B, B, 0x1.1c00000000003p+1, 0x1.0000000000003p-1, B, B, B, B, B},
 {},
 {}},
{"natural-neighbor", R"({})",
 {B, B, B, B, B, 0x1.76a1dc58416d7p+0, 0x1p-1, B, B, B, B, B},
 {},
 {}},
{"curvature-spline", R"({"rowCount": 4, "yMax": 3})",
 {0x1.678dc92e407ddp+0, 0x1.187e0e85ddd1ep+1, 0x1.4cff934ca562p-2, 0x1.b1ea69b36e216p+0, 0x1.1508fc4c526d7p+1, 0x1.378c715d964d1p+0, 0x1p-1, 0x1.fa015a062adf7p+1, 0x1.c2115305cd64cp+1, 0x1.2c2f8dc2b0f96p+1, 0x1.136640f26eefcp+2, 0x1.338b5d586373fp+3, 0x1.48fba378bced2p+1, 0x1.f82d9d19f4ba8p+1, 0x1.e6b2ff1145eccp+2, 0x1.a89c87dd9e082p+3},
 {},
 {}},
};
// clang-format on

}  // namespace

TEST(Golden, EveryMethodHasItsGrid)
{
    for (const KaMethodInfo& method : KaMethods()) {
        const bool listed = std::any_of(std::begin(kGolden), std::end(kGolden),
                                        [&](const Golden& g) { return std::string(g.key) == method.key; });
        EXPECT_TRUE(listed) << method.key << " has no golden grid";
    }
}

TEST(Golden, GridsStdDevsAndLeaveOneOutAreBitForBit)
{
    const bool print = std::getenv("KA_GOLDEN_PRINT") != nullptr;
    for (const Golden& g : kGolden) {
        const KaMethodInfo* method = FindMethod(g.key);
        ASSERT_NE(method, nullptr) << g.key;
        for (unsigned threads : {1u, 2u}) {
            SCOPED_TRACE(std::string(g.key) + " " + g.settings + ", threads " + std::to_string(threads));
            const Outcome got = Compute(*method, g.settings, threads);
            if (print && threads == 1)
                std::printf("{\"%s\", R\"(%s)\",\n %s,\n %s,\n %s},\n", g.key, g.settings, Hex(got.grid).c_str(),
                            Hex(got.stdDev).c_str(), Hex(got.loo).c_str());
            ExpectBits(g.grid, got.grid, "grid");
            ExpectBits(g.stdDev, got.stdDev, "stdDev");
            ExpectBits(g.looEstimates, got.loo, "leave-one-out");
        }
    }
}
