// Anisotropy transform, variogram models and the dense solvers.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <stdexcept>
#include <vector>

#include "KaTestSupport.h"
#include "methods/numeric/KaMatrix.h"
#include "methods/numeric/KaVario.h"
#include "search/KaAnisotropy.h"

namespace {

KaVario Component(uint32_t model, double sill, double range)
{
    KaVario v;
    v.Set(model, sill, range, 0, 0, 0, 1, 1);
    return v;
}

// Value of a component at horizontal distance d.
double At(const KaVario& v, double d) { return v.Evaluate(d, 0.0, 0.0); }

}  // namespace

// ---------------------------------------------------------------- anisotropy

TEST(Anisotropy, PlaceholderMatrixThenThePlainPathForDefaultsAndPureRotations)
{
    KaAnisotropy a;
    ASSERT_EQ(a.MatrixCount(), 9);
    EXPECT_EQ(std::vector<double>(a.Rotation(), a.Rotation() + 9), (std::vector<double>{0, 1, 0, -1, 0, 0, 0, 0, 1}));
    EXPECT_EQ(a.SquaredDistance(3, 4, 12), 169.0);
    EXPECT_FALSE(a.IsAnisotropic());

    // A pure rotation keeps the plain path too.
    a.SetAnisotropy(30, 0, 0, 1, 1);
    EXPECT_EQ(a.SquaredDistance(0.3, 1.7, 0), 0.3 * 0.3 + 1.7 * 1.7);
    EXPECT_FALSE(a.IsAnisotropic());
}

TEST(Anisotropy, RatiosStretchTheRotatedAxesWithAFloor)
{
    KaAnisotropy a;
    a.SetAnisotropy(0, 0, 0, 0.5, 1);
    EXPECT_EQ(a.SquaredDistance(0, 1, 0), 4.0);
    EXPECT_EQ(a.SquaredDistance(1, 0, 0), 1.0);
    EXPECT_EQ(a.SquaredDistance(0, 0, 1), 1.0);
    EXPECT_TRUE(a.IsAnisotropic());

    // The second ratio divides the vertical axis.
    a.SetAnisotropy(0, 0, 0, 1, 0.25);
    EXPECT_EQ(a.SquaredDistance(0, 0, 1), 16.0);
    EXPECT_EQ(a.SquaredDistance(2, 0, 0), 4.0);

    // Ratios at or below 1e-15, or not numbers, use that floor.
    const double f = 1 / 1e-15;
    for (double ratio : {0.0, -3.0, 1e-16, std::numeric_limits<double>::quiet_NaN()}) {
        a.SetAnisotropy(0, 0, 0, ratio, 1);
        EXPECT_EQ(a.SquaredDistance(0, 1, 0), f * f) << ratio;
    }
}

TEST(Anisotropy, DegreeFactorIsTheTruncatedConstant)
{
    // 90 degrees with the truncated factor falls short of pi / 2 by about 2e-9,
    // which shows in the matrix (full precision would leave about 6e-17);
    // the stretch moves to x.
    KaAnisotropy a;
    a.SetAnisotropy(90, 0, 0, 0.5, 1);
    EXPECT_NEAR(a.SquaredDistance(1, 0, 0), 4.0, 1e-12);
    EXPECT_EQ(a.Rotation()[0], std::cos(90 * 0.0174532925));
    EXPECT_GT(a.Rotation()[0], 1e-9);
    // The dip enters negated: row 0 ends in -sin(-angle2).
    a.SetAnisotropy(0, 30, 0, 0.5, 1);
    a.SquaredDistance(1, 0, 0);
    EXPECT_EQ(a.Rotation()[2], -std::sin(-1.0 * 30 * 0.0174532925));
    EXPECT_GT(a.Rotation()[2], 0.49);
}

TEST(Anisotropy, ChangesTakeEffectAtTheNextRequest)
{
    KaAnisotropy a;
    EXPECT_EQ(a.SquaredDistance(0, 1, 0), 1.0);
    a.SetAnisotropy(0, 0, 0, 0.5, 1);
    EXPECT_TRUE(a.IsDirty());
    EXPECT_FALSE(a.IsAnisotropic());  // still the old state
    EXPECT_EQ(a.SquaredDistance(0, 1, 0), 4.0);

    KaAnisotropy b;
    b.SquaredDistance(1, 1, 1);
    b = a;  // copies the numbers and marks the matrix stale
    EXPECT_EQ(b.SquaredDistance(0, 1, 0), 4.0);

    b = b;  // self-assignment changes nothing, not even the flag
    EXPECT_FALSE(b.IsDirty());
    EXPECT_TRUE(b.IsEqual(a));  // the flags and matrix are not compared
}

// ---------------------------------------------------------------- variogram

TEST(Vario, WorkedExamples)
{
    const KaVario sph = Component(kKaVarioSpherical, 2, 10);
    EXPECT_EQ(At(sph, 0), 0.0);
    EXPECT_EQ(At(sph, 5), 1.375);
    EXPECT_EQ(At(sph, 10), 2.0);
    EXPECT_EQ(At(sph, 20), 2.0);

    const KaVario nug = Component(kKaVarioNugget, 0.3, 1);
    EXPECT_EQ(At(nug, 0), 0.3);  // also at zero separation
    EXPECT_EQ(At(nug, 7), 0.3);

    const KaVario penta = Component(kKaVarioPentaspherical, 1, 1);
    EXPECT_EQ(At(penta, 1), 1.0);
    EXPECT_EQ(At(penta, 2), 5.75);  // not capped

    const KaVario cubic = Component(kKaVarioCubic, 1, 1);
    EXPECT_EQ(At(cubic, 1), 1.0);
    EXPECT_EQ(At(cubic, 0.5), 2.509765625);

    const KaVario log = Component(kKaVarioLogarithmic, 3, 2);
    EXPECT_EQ(At(log, 1.99), 0.0);
    EXPECT_EQ(At(log, 2), 0.0);  // ln 1
    EXPECT_EQ(At(log, 4), 3 * std::log(2.0));

    const KaVario wave = Component(kKaVarioWave, 2, 1);
    EXPECT_EQ(At(wave, 0), 0.0);
    EXPECT_EQ(At(wave, 1e-16), 0.0);
    EXPECT_EQ(At(wave, 2), 2 * (1 - std::sin(2.0) / 2));

    // No factor three in h.
    EXPECT_EQ(At(Component(kKaVarioExponential, 2, 4), 4), 2 * (1 - std::exp(-1.0)));
    EXPECT_EQ(At(Component(kKaVarioGaussian, 2, 4), 8), 2 * (1 - std::exp(-4.0)));
    EXPECT_EQ(At(Component(kKaVarioRationalQuadratic, 2, 4), 4), 1.0);
    EXPECT_EQ(At(Component(kKaVarioLinear, 2, 4), 3), 1.5);

    const KaVario quad = Component(kKaVarioQuadratic, 2, 4);
    EXPECT_EQ(At(quad, 2), 2 * (2 * 0.5 - 0.25));
    EXPECT_EQ(At(quad, 4), 2.0);
    EXPECT_EQ(At(quad, 9), 2.0);

    KaVario pw = Component(kKaVarioPower, 2, 4);
    pw.power = 1.5;
    EXPECT_EQ(At(pw, 6), 2 * std::pow(1.5, 1.5));
}

TEST(Vario, OddPowersBySquareAndMultiply)
{
    // At these h the general power function and a running product round
    // differently from h * (h^2)^2 and h^3 * h^4.
    for (double h : {0.77, 1.3}) {
        const double h2 = h * h, h3 = h * h2, h4 = h2 * h2, h5 = h * h4, h7 = h3 * h4;
        EXPECT_EQ(At(Component(kKaVarioPentaspherical, 1, 1), h), 1.875 * h - 1.25 * h3 + 0.375 * h5);
        EXPECT_EQ(At(Component(kKaVarioCubic, 1, 1), h),
                  7 * h - 8.75 * h3 + 3.5 * h5 - 0.75 * h7);
    }
}

TEST(Vario, UnknownModelsAndNames)
{
    const char* names[] = {"Nugget", "Exponential", "Gaussian", "Quadratic", "Rational Quadratic",
                           "Power", "Linear", "Wave(Hole Effect)", "Spherical", "Logarithmic",
                           "Pentaspherical", "Cubic"};
    for (uint32_t i = 0; i < 12; ++i) EXPECT_EQ(KaVario::ModelName(i), names[i]);
    EXPECT_EQ(KaVario::ModelName(12), "unknow");
    EXPECT_EQ(At(Component(12, 5, 1), 0.5), 0.0);
}

TEST(Vario, SetCopyEqualityAndZeroRange)
{
    KaVario a;
    EXPECT_TRUE(a.IsEqual(Component(kKaVarioSpherical, 1, 1)));  // the defaults, power 3 included
    a.power = 1.25;
    a.Set(kKaVarioLinear, 2, 3, 0, 0, 0, 0.5, 1);
    EXPECT_EQ(a.power, 1.25);  // Set leaves the power alone
    EXPECT_EQ(a.Evaluate(0, 3, 0), 4.0);  // the component's own anisotropy
    KaVario b;
    b = a;
    EXPECT_TRUE(a.IsEqual(b));
    b.power = 2;  // power matters even for a non-power model
    EXPECT_FALSE(a.IsEqual(b));
    b = a;
    b.modelType = kKaVarioCubic;
    EXPECT_FALSE(a.IsEqual(b));
    b = a;
    b.anisotropy.SetAnisotropy(0, 0, 0, 0.5, 1.5);
    EXPECT_FALSE(a.IsEqual(b));

    a.range = 0;  // not guarded
    EXPECT_TRUE(std::isinf(a.Evaluate(1, 0, 0)));
    EXPECT_TRUE(std::isnan(a.Evaluate(0, 0, 0)));
}

TEST(VarioVector, SumInOrderTimesScaleIndexingCloneAndClear)
{
    KaVarioVector v;
    EXPECT_FALSE(v.IsValid());
    EXPECT_EQ(v.Evaluate(1, 2, 3), 0.0);
    v.scale = -2;
    EXPECT_EQ(std::signbit(v.Evaluate(1, 2, 3)), false);  // a plain 0.0 when empty

    v.scale = 2;
    v.Add(std::make_unique<KaVario>(Component(kKaVarioNugget, 0.5, 1)));
    v.Add(new KaVario(Component(kKaVarioSpherical, 2, 10)));
    EXPECT_TRUE(v.IsValid());
    EXPECT_EQ(v.Evaluate(5, 0, 0), 2 * (0.5 + 1.375));
    EXPECT_EQ(v.Evaluate(0, 0, 0), 1.0);  // the nugget stays at zero separation

    // Array order matters once magnitudes differ: (1e16 + 1) - 1e16 is 0.
    KaVarioVector w;
    w.Add(new KaVario(Component(kKaVarioNugget, 1e16, 1)));
    w.Add(new KaVario(Component(kKaVarioNugget, 1, 1)));
    w.Add(new KaVario(Component(kKaVarioNugget, -1e16, 1)));
    EXPECT_EQ(w.Evaluate(0, 0, 0), 0.0);

    EXPECT_EQ(v[1].modelType, kKaVarioSpherical);
    EXPECT_EQ(katest::ErrorOf<std::out_of_range>([&] { (void)v[2]; }), "invalid vector<T> subscript");
    EXPECT_THROW((void)static_cast<const KaVarioVector&>(v)[2], std::out_of_range);

    std::unique_ptr<KaVarioVector> copy = v.Clone();
    EXPECT_TRUE(copy->IsEqual(v));
    EXPECT_EQ(copy->scale, 2.0);
    (*copy)[0].sill = 9;
    EXPECT_EQ(v[0].sill, 0.5);  // deep copy

    v.Clear();
    EXPECT_EQ(v.size(), 0u);
    EXPECT_EQ(v.scale, 1.0);
    EXPECT_FALSE(v.IsValid());
}

// ---------------------------------------------------------------- matrix and solvers

TEST(Matrix, ResizeZeroesAndUnimplementedOperationsThrow)
{
    KaT2DMatrix<double> m;
    m.Resize(2, 2);
    m(1, 0) = 5;
    EXPECT_EQ(m.Data()[2], 5.0);  // row-major, stride = first dimension
    m.Resize(3, 3);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(m.Data()[i], 0.0);
    EXPECT_THROW(m.Transpose(), KaMatrixException);
    EXPECT_THROW(m.Invert(), KaMatrixException);
}

TEST(GaussJordan, SwapSystemIsItsOwnInverseAndOnlyExactZeroPivotsFail)
{
    std::vector<double> a{0, 1, 1, 0}, b{2, 3};
    ASSERT_EQ(GaussJordanSolve(a.data(), 2, b.data()), 1);
    EXPECT_EQ(b, (std::vector<double>{3, 2}));
    EXPECT_EQ(a, (std::vector<double>{0, 1, 1, 0}));

    // Singular only for exact zero pivots.
    double equalRows[9] = {1, 2, 3, 1, 2, 3, 4, 5, 7};
    double b2[3] = {1, 2, 3};
    EXPECT_EQ(GaussJordanSolve(equalRows, 3, b2), 0);

    // Nearly singular but with a non-zero pivot: solved, no tolerance.
    double near[4] = {1, 2, 2, 4 + 1e-9};
    double b3[2] = {1, 1};
    EXPECT_EQ(GaussJordanSolve(near, 2, b3), 1);
    EXPECT_GT(std::fabs(b3[0]), 1e8);

    double none[1] = {42};
    double b4[1] = {7};
    EXPECT_EQ(GaussJordanSolve(none, 0, b4), 1);
    EXPECT_EQ(none[0], 42.0);
    EXPECT_EQ(b4[0], 7.0);
}

TEST(GaussJordan, SolvesAndLeavesTheInverse)
{
    // Diagonally dominant with a known solution; 150 is beyond the stack
    // buffer's order, so the heap path is taken.
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> u(-1, 1);
    for (int n : {3, 150}) {
        std::vector<double> a(n * n), x(n), b(n, 0.0);
        for (int i = 0; i < n; ++i) {
            for (int j = 0; j < n; ++j) a[i * n + j] = u(rng) + (i == j ? n : 0);
            x[i] = u(rng);
        }
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) b[i] += a[i * n + j] * x[j];
        const std::vector<double> orig = a;
        ASSERT_EQ(GaussJordanSolve(a.data(), n, b.data()), 1);
        for (int i = 0; i < n; ++i) EXPECT_NEAR(b[i], x[i], 1e-12) << n;
        for (int i : {0, n - 1})  // rows of orig times columns of the inverse
            for (int j : {0, 1, n - 1}) {
                double s = 0;
                for (int k = 0; k < n; ++k) s += orig[i * n + k] * a[k * n + j];
                EXPECT_NEAR(s, i == j ? 1.0 : 0.0, 1e-12) << n << ": " << i << "," << j;
            }
    }
}

TEST(GaussJordan, SolutionOnlyVariantMatchesBitForBit)
{
    // Same return value and the same bits in b as the full solver, across
    // random, tied, singular, bordered, NaN- and infinity-laden systems.
    std::mt19937_64 rng(2024);
    std::uniform_real_distribution<double> u(-1, 1);
    std::uniform_int_distribution<int> small(-2, 2);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    // Each build of the solver the processor can run, and the one chosen.
    std::vector<std::pair<const char*, int (*)(double*, int, double*)>> solutions = {
        {"chosen", GaussJordanSolution}, {"baseline", GaussJordanSolutionBaseline}};
#if defined(KA_HAVE_AVX2_SOLVER)
    if (__builtin_cpu_supports("avx2")) solutions.emplace_back("avx2", GaussJordanSolutionAvx2);
#endif
    int solved = 0, failed = 0;
    for (int trial = 0; trial < 3000; ++trial) {
        const int n = trial < 2990 ? 1 + trial % 37 : 130 + trial % 3;
        const int kind = (trial / 37) % 7;
        std::vector<double> a(static_cast<std::size_t>(n) * n), b(n);
        for (double& v : a) v = kind == 1 ? small(rng) : u(rng);
        for (double& v : b) v = u(rng);
        if (kind == 2 && n > 1)  // kriging-like: symmetric, bordered
            for (int i = 0; i < n; ++i)
                for (int j = 0; j < n; ++j)
                    a[i * n + j] = (i == n - 1 || j == n - 1) ? (i == j ? 0.0 : 1.0)
                                                               : std::fabs(a[i * n + j] + a[j * n + i]);
        if (kind == 3 && n > 1)  // two equal rows
            for (int j = 0; j < n; ++j) a[(n - 1) * n + j] = a[j];
        if (kind == 4) a[rng() % a.size()] = nan;
        if (kind == 5) {
            a[rng() % a.size()] = inf;
            a[rng() % a.size()] = -inf;
        }
        if (kind == 6 && n > 2)  // a NaN block: passes that find no candidate
            for (int i = n / 2; i < n; ++i)
                for (int j = 0; j < n; ++j) a[i * n + j] = nan;
        std::vector<double> a1 = a, b1 = b;
        const int r1 = GaussJordanSolve(a1.data(), n, b1.data());
        for (const auto& [name, solution] : solutions) {
            std::vector<double> a2 = a, b2 = b;
            const int r2 = solution(a2.data(), n, b2.data());
            ASSERT_EQ(r1, r2) << name << ", trial " << trial;
            ASSERT_EQ(std::memcmp(b1.data(), b2.data(), b.size() * sizeof(double)), 0) << name << ", trial " << trial;
        }
        (r1 ? solved : failed)++;
    }
    EXPECT_GT(solved, 1000);
    EXPECT_GT(failed, 100);
}

namespace {

// A square matrix given row by row, its LU decomposition and solves with it.
struct Lu {
    KaT2DMatrix<double> m;
    std::vector<int32_t> perm;
    int32_t parity = 0;

    bool Decompose(std::initializer_list<double> values)
    {
        const uint32_t n = static_cast<uint32_t>(std::lround(std::sqrt(values.size())));
        m.Resize(n, n);
        std::size_t i = 0;
        for (double v : values) m.Data()[i++] = v;
        return LuDecompose(m, perm, parity);
    }
    std::vector<double> Substitute(std::vector<double> b) const
    {
        LuSubstitute(m, perm, b);
        return b;
    }
};

}  // namespace

TEST(LuDecompose, RejectsRowsBelowTheFloorAndFloorsZeroPivots)
{
    Lu lu;
    EXPECT_FALSE(lu.Decompose({1, 2, 0, 0}));
    EXPECT_FALSE(lu.Decompose({1, 2, 1e-17, -1e-17}));
    EXPECT_TRUE(lu.Decompose({1, 2, 2e-16, 0}));
    EXPECT_FALSE(lu.Decompose({0}));  // a lone neighbour's kriging system

    // Singular with non-zero rows: the floor pivot, and huge values.
    ASSERT_TRUE(lu.Decompose({1, 2, 2, 4}));
    EXPECT_EQ(lu.m(1, 1), 1.5e-16);
    const std::vector<double> b = lu.Substitute({1.0, 0.0});
    EXPECT_EQ(b[1], 1 / 1.5e-16);
    EXPECT_TRUE(std::isfinite(b[0]));
}

TEST(LuDecompose, PivotsByScaledMeritAndCountsParity)
{
    Lu lu;
    ASSERT_TRUE(lu.Decompose({1, 2, 3, 4, 5, 6, 7, 8, 10}));
    // Scaled merits of column 0: 1/3, 4/6, 7/10, so row 2 comes first.
    EXPECT_EQ(lu.perm[0], 2);
    EXPECT_EQ(lu.parity, lu.perm[1] == 1 ? -1 : 1);

    // With the first permuted entry zero the skipped-term rule does not bite,
    // and the solution is the exact one.
    const std::vector<double> b = lu.Substitute({-1.8, -0.6, 0.0});
    EXPECT_NEAR(b[0], 2.0, 1e-14);
    EXPECT_NEAR(b[1], -1.0, 1e-14);
    EXPECT_NEAR(b[2], -0.6, 1e-14);
}

TEST(LuSubstitute, MarkerSkipsTermsWhenTheFirstEntryIsAtRowZero)
{
    // Lower triangular: no row exchanges, L = (1; .5 1; .5 .5 1), U = 2 I.
    Lu lu;
    ASSERT_TRUE(lu.Decompose({2, 0, 0, 1, 2, 0, 1, 1, 2}));
    ASSERT_EQ(lu.perm, (std::vector<int32_t>{0, 1, 2}));
    EXPECT_EQ(lu.parity, 1);

    // Only row 0 non-zero: nothing is subtracted below it (exact: 1, -0.5, -0.25).
    EXPECT_EQ(lu.Substitute({2, 0, 0}), (std::vector<double>{1, 0, 0}));

    // A later non-zero row moves the marker; terms below it stay skipped
    // (exact: 1, 0.5, -0.75).
    EXPECT_EQ(lu.Substitute({2, 2, 0}), (std::vector<double>{1, 1, -0.5}));

    // First non-zero at row 1: the marker works as intended.
    EXPECT_EQ(lu.Substitute({0, 2, 2}), (std::vector<double>{0, 1, 0.5}));
}
