// Hostile input and hostile output paths: every refusal is one line naming
// the file, line or key, and no file that existed before is changed.

#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <functional>
#include <limits>
#include <fstream>
#include <sstream>
#include <thread>

#include "KaTestSupport.h"
#include "io/KaIoError.h"
#include "io/KaIoSupport.h"
#include "io/KaOutputFiles.h"
#include "io/KaPointReader.h"
#include "io/KaPointTableWriter.h"
#include "io/KaRasterIo.h"

#include <ogrsf_frmts.h>

namespace fs = std::filesystem;
using katest::Kagrid;

namespace {

const std::string kSample = std::string(KA_SOURCE_DIR) + "/data/sample_points.csv";

std::string Repeat(const std::string& s, int n)
{
    std::string out;
    for (int i = 0; i < n; ++i) out += s;
    return out;
}

// Every file of the directory with its bytes.
std::map<std::string, std::string> Snapshot(const katest::TempDir& d)
{
    std::map<std::string, std::string> files;
    for (const auto& e : fs::directory_iterator(d.path))
        files[e.path().filename().string()] = e.is_regular_file() ? katest::ReadFile(e.path().string()) : "<special>";
    return files;
}

}  // namespace

TEST(Hardening, BadInputAnswersOneLineNamingWhereAndChangesNothing)
{
    katest::TempDir d;
    katest::WriteFile(d / "out.tif", "precious");
    const std::string nul("1 2 3\n4 5\0 6\n", 13);
    katest::WriteFile(d / "nul.txt", nul);
    std::string nulCsv("x,y,z\n1,2,3\n4,5,\0\n", 18);
    katest::WriteFile(d / "nul.csv", nulCsv);
    katest::WriteFile(d / "deep.json", "{\"variogram\": " + Repeat("[", 200000) + Repeat("]", 200000) + "}");
    katest::WriteFile(d / "twice.json", R"({"power": 2, "radius1": 5, "power": 3})");
    katest::WriteFile(d / "huge.json", R"({"tolerance": 1e999})");
    fs::create_directory(d.path / "folder.json");
    auto blank = katest::MakeSurface(3, 2, {0, 2, 0, 1}, {}, -9999);
    WriteSurface(*blank, d / "blank.tif");
    const std::string idw = "inverse-distance " + kSample + " " + d / "out.tif -q ";

    struct Case {
        std::string args, expect;
    };
    const std::vector<Case> cases{
        {"inverse-distance " + d / "nul.txt " + d / "out.tif -q", "nul.txt:2: holds a NUL byte"},
        {"inverse-distance " + d / "nul.csv " + d / "out.tif -q", "nul.csv:3: holds a NUL byte"},
        {idw + "--params " + d / "deep.json", "deep.json: nested too deeply"},
        {"kriging " + kSample + " " + d / "out.tif -q --set 'variogram=" + Repeat("[", 5000) + "'",
         "variogram: expected a JSON object; nested too deeply"},
        {idw + "--params " + d / "twice.json", "twice.json: the key \"power\" appears twice"},
        {idw + "--params " + d / "huge.json", "huge.json: holds a number too large"},
        {idw + "--params " + d / "folder.json", "folder.json: is a folder, not a parameter file"},
        {idw + "--set columnCount=4294967301", "columnCount: 4294967301 is more than a grid can hold"},
        {idw + "--set rowCount=2147483648", "rowCount: 2147483648 is more than a grid can hold"},
        {idw + "--set radius1=nan", "radius1: expected a finite number"},
        {idw + "--set tolerance=inf", "tolerance: expected a finite number"},
        {idw + "--set blankValue=-inf", "blankValue: expected a finite number"},
        {idw + "--set xMin=nan", "xMin: expected a finite number"},
        {idw + "--set yMax=1e999", "yMax: expected a finite number"},
        {"kriging " + kSample + " " + d / "out.tif -q --set 'variogram={\"components\": [{\"sill\": 1e400}]}'",
         "variogram: expected a JSON object; holds a number too large"},
        {idw + "--set name=$(printf '\\377x')", "name: not valid UTF-8 text"},
        {idw + "--z 1000000", "column 1000000 for z: columns are numbered from 1 to 100000"},
        {"nearest-neighbor " + d / "blank.tif " + d / "out.tif -q", "blank.tif: every cell is nodata"},
        {idw + "--set $(printf 'p\\001wer')=2", "p\\x01wer: unknown parameter"},
    };
    const auto before = Snapshot(d);
    for (const Case& c : cases) {
        const auto r = Kagrid(c.args);
        EXPECT_EQ(r.status, 1) << c.args << "\n" << r.output;
        EXPECT_NE(r.output.find(c.expect), std::string::npos) << c.args.substr(0, 200) << "\n" << r.output;
        EXPECT_EQ(std::count(r.output.begin(), r.output.end(), '\n'), 1) << r.output;
        EXPECT_LT(r.output.size(), 300u) << "a message must not echo whole values";
    }
    EXPECT_EQ(Snapshot(d), before);
}

TEST(Hardening, SpecialFilesAreNeverReplacedAndAllOutputsWaitForEachOther)
{
    katest::TempDir d;
    ASSERT_EQ(mkfifo((d / "fifo.tif").c_str(), 0644), 0);
    ASSERT_EQ(mkfifo((d / "fifo.png").c_str(), 0644), 0);
    ASSERT_EQ(mkfifo((d / "fifo.gpkg").c_str(), 0644), 0);
    ASSERT_EQ(mkfifo((d / "fifo.json").c_str(), 0644), 0);
    fs::create_directory(d.path / "folder.gpkg");
    katest::WriteFile(d / "out.tif", "precious");
    const std::string idw = "inverse-distance " + kSample + " ";
    const std::string tri = "triangulation " + kSample + " " + d / "out.tif -q ";
    const std::string krig = "kriging " + kSample + " " + d / "out.tif -q ";
    const std::string cv = "cross-validate inverse-distance " + kSample + " -q ";
    struct Case {
        std::string args, expect;
    };
    const std::vector<Case> cases{
        {idw + d / "fifo.tif -q", "fifo.tif: exists and is not a regular file"},
        {idw + d / "out.tif -q --preview " + d / "fifo.png", "fifo.png: exists and is not a regular file"},
        {tri + "--mesh " + d / "fifo.gpkg", "fifo.gpkg: exists and is not a regular file"},
        {tri + "--mesh " + d / "folder.gpkg", "folder.gpkg: is a folder"},
        {idw + "/dev/null -q", "/dev/null: exists and is not a regular file"},
        {krig + "--stddev " + d / "fifo.tif", "fifo.tif: exists and is not a regular file"},
        {krig + "--stddev " + d / "sd.tif --stddev-preview " + d / "fifo.png", "fifo.png: exists and is not"},
        {cv + "--report " + d / "fifo.json", "fifo.json: exists and is not a regular file"},
        {cv + "--residuals " + d / "fifo.gpkg", "fifo.gpkg: exists and is not a regular file"},
        {cv + "--residuals /dev/null", "/dev/null: exists and is not a regular file"},
        {"variogram " + kSample + " -q --json " + d / "fifo.json", "fifo.json: exists and is not a regular file"},
        {"variogram " + kSample + " -q --plot " + d / "fifo.png", "fifo.png: exists and is not a regular file"},
        {"variogram " + kSample + " -q --plot " + d / "folder.gpkg", "folder.gpkg: is a folder"},
        // Two outputs of one run naming one file, however spelt.
        {krig + "--stddev " + d / "./out.tif", "OUTPUT and --stddev name the same file"},
        {krig + "--set createStdDev=true --set stdDevName=out", "OUTPUT and the standard deviation (createStdDev) name"},
        {idw + d / "p.png -q --preview " + d / "p.png", "OUTPUT and --preview name the same file"},
        {cv + "--report " + d / "r.json --residuals " + d / "r.json", "--report and --residuals name the same file"},
        {"variogram " + kSample + " -q --json " + d / "v.png --plot " + d / "v.png", "--json and --plot name the same"},
    };
    const auto before = Snapshot(d);
    for (const Case& c : cases) {
        const auto r = Kagrid(c.args);
        EXPECT_EQ(r.status, 1) << c.args << "\n" << r.output;
        EXPECT_NE(r.output.find(c.expect), std::string::npos) << c.args << "\n" << r.output;
    }
    EXPECT_EQ(Snapshot(d), before);
    struct stat st {};
    ASSERT_EQ(stat("/dev/null", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));

    // A writer that fails after the grid was finished: the grid is not replaced either.
    {
        KaOutputBatch batch;
        WriteSurface(*katest::MakeSurface(2, 2, {0, 1, 0, 1}, {1, 2, 3, 4}), d / "out.tif");
        EXPECT_THROW(WriteSurface(*katest::MakeSurface(2, 2, {0, 1, 0, 1}, {1, 2, 3, 4}), d / "no/such.tif"),
                     KaIoError);
    }
    EXPECT_EQ(Snapshot(d), before);
    {
        KaOutputBatch batch;
        WriteSurface(*katest::MakeSurface(2, 2, {0, 1, 0, 1}, {1, 2, 3, 4}), d / "out.tif");
        EXPECT_EQ(katest::ReadFile(d / "out.tif"), "precious");
        batch.Commit();
    }
    EXPECT_EQ(ReadRasterSurface(d / "out.tif")->GridData().At(1, 1), 4);
    EXPECT_EQ(d.Entries().size(), before.size());
}

TEST(Hardening, TablesAndTextWaitForTheBatchAndLeaveNothingOnFailure)
{
    katest::TempDir d;
    for (const char* name : {"r.json", "t.csv", "t.gpkg"}) katest::WriteFile(d / name, "precious");
    const auto before = Snapshot(d);
    const std::vector<std::vector<double>> rows{{0, 0, 1}, {1, 2, NAN}};
    auto writeAll = [&] {
        WriteTextFile(d / "r.json", "{}\n");
        WritePointTable(d / "t.csv", {"x", "y", "v"}, rows);
        WritePointTable(d / "t.gpkg", {"x", "y", "v"}, rows);
    };
    {
        KaOutputBatch batch;
        writeAll();
        EXPECT_THROW(WriteTextFile(d / "no/such.json", "{}"), KaIoError);
    }
    EXPECT_EQ(Snapshot(d), before);
    {
        KaOutputBatch batch;
        writeAll();
        EXPECT_EQ(katest::ReadFile(d / "t.csv"), "precious");
        batch.Commit();
    }
    EXPECT_EQ(katest::ReadFile(d / "r.json"), "{}\n");
    EXPECT_EQ(katest::ReadFile(d / "t.csv"), "x,y,v\n0,0,1\n1,2,\n");
    EXPECT_EQ(d.Entries(), (std::set<std::string>{"r.json", "t.csv", "t.gpkg"}));

    // End to end: a command's outputs all land, with no temporary beside them.
    const auto cv = Kagrid("cross-validate inverse-distance " + kSample + " -q --report " + d / "r.json" +
                           " --residuals " + d / "t.gpkg");
    ASSERT_EQ(cv.status, 0) << cv.output;
    const auto vg = Kagrid("variogram " + kSample + " -q --json " + d / "v.json --plot " + d / "v.png");
    ASSERT_EQ(vg.status, 0) << vg.output;
    EXPECT_NE(katest::ReadFile(d / "r.json"), "{}\n");
    EXPECT_EQ(d.Entries(), (std::set<std::string>{"r.json", "t.csv", "t.gpkg", "v.json", "v.png"}));
}

TEST(Hardening, PipeInputIsReadOnce)
{
    katest::TempDir d;
    ASSERT_EQ(mkfifo((d / "pipe.csv").c_str(), 0644), 0);
    signal(SIGPIPE, SIG_IGN);  // a reader that closes early must fail the test, not kill it
    // The writer's open waits for kagrid to open the pipe: no clock involved.
    std::thread writer([&] {
        const int fd = open((d / "pipe.csv").c_str(), O_WRONLY);
        if (fd < 0) return;
        const std::string text = katest::ReadFile(kSample);
        for (std::size_t at = 0; at < text.size();) {
            const ssize_t n = write(fd, text.data() + at, text.size() - at);
            if (n <= 0) break;
            at += static_cast<std::size_t>(n);
        }
        close(fd);
    });
    const auto r = Kagrid("nearest-neighbor " + d / "pipe.csv " + d / "o.tif -q");
    // Had kagrid never opened the pipe, the writer would still wait: a reader releases it.
    const int release = open((d / "pipe.csv").c_str(), O_RDONLY | O_NONBLOCK);
    writer.join();
    if (release >= 0) close(release);
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(fs::is_regular_file(d.path / "o.tif"));

    // GDAL formats open a file several times: a pipe is refused by name.
    ASSERT_EQ(mkfifo((d / "pipe.gpkg").c_str(), 0644), 0);
    const auto gdal = Kagrid("nearest-neighbor " + d / "pipe.gpkg " + d / "p.tif -q");
    EXPECT_EQ(gdal.status, 1);
    EXPECT_NE(gdal.output.find("pipe.gpkg: not a regular file"), std::string::npos) << gdal.output;
}

TEST(Hardening, OnlyTemporariesOfDeadRunsAreSwept)
{
    katest::TempDir d;
    const std::vector<std::string> dead{".kagrid-999999999-0badf00d.tmp", ".kagrid-999999998-00000001.tmp"};
    // pid 1 lives; other people's names alike kagrid's old pattern, a file, a short or long tail are kept.
    const std::vector<std::string> kept{".kagrid-1-0badf00d.tmp", ".report.tmp99999.txt", ".o.tif.tmp999999999-0badf00d.tif",
                                        ".kagrid-999999999-0badf0.tmp", ".kagrid-999999999-0badf00d0.tmp",
                                        ".kagrid-999999999-0badf00d.tmpx", "o.tif"};
    for (const auto& n : dead) {
        fs::create_directory(d.path / n);
        katest::WriteFile(d / (n + "/o.tif"), "x");
        katest::WriteFile(d / (n + "/o.tif.aux.xml"), "x");
    }
    for (const auto& n : kept) katest::WriteFile(d / n, "x");
    katest::WriteFile(d / ".kagrid-999999997-0badf00d.tmp", "a file, not kagrid's folder");
    KaRemoveStaleTemporaries(d / "o.tif");
    std::set<std::string> expect(kept.begin(), kept.end());
    expect.insert(".kagrid-999999997-0badf00d.tmp");
    EXPECT_EQ(d.Entries(), expect);
}

TEST(Hardening, NonFiniteNodesAreBlankedWithAWarning)
{
    katest::TempDir d;
    katest::WriteFile(d / "p.csv", "x,y,z\n0,0,1\n1,0,2\n0,1,1e308\n1,1,-1e308\n");
    const auto r = Kagrid("inverse-distance " + d / "p.csv " + d / "o.tif -q --set blankValue=-5 --set minInAll=1 "
                          "--set radius1=10 --set radius2=10 --set columnCount=5 --set rowCount=5");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("warning: "), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("nodes came out infinite or NaN"), std::string::npos) << r.output;
    const auto s = ReadRasterSurface(d / "o.tif");
    std::size_t blanks = 0;
    for (std::size_t i = 0; i < s->GridData().Size(); ++i) {
        EXPECT_TRUE(std::isfinite(s->GridData().data[i]));
        blanks += s->GridData().data[i] == -5;
    }
    EXPECT_NE(r.output.find("kagrid: warning: " + std::to_string(blanks) + " nodes"), std::string::npos);
    EXPECT_GT(blanks, 0u);
}

TEST(Hardening, TextReaderRefusesNulAndEndlessLinesAndEchoesSafely)
{
    std::istringstream nul(std::string("1 2 3\n\0", 7));
    EXPECT_EQ(katest::ErrorOf<KaIoError>([&] { ReadTextPointStream(nul, "s"); }), "s:2: holds a NUL byte; not a text file");
    std::istringstream endless(std::string(3 << 20, '7'));
    EXPECT_NE(katest::ErrorOf<KaIoError>([&] { ReadTextPointStream(endless, "s"); }).find("s:1: a line longer than"),
              std::string::npos);
    // The column peek of the desktop host follows the same line rules.
    katest::TempDir d;
    katest::WriteFile(d / "nul.txt", std::string("x y z\n1 2\0 3\n", 13));
    EXPECT_NE(katest::ErrorOf<KaIoError>([&] { PeekPointColumns(d / "nul.txt"); }).find("nul.txt:2: holds a NUL byte"),
              std::string::npos);
    std::istringstream last("1 2 3\n4 5 6");  // no newline at the end
    EXPECT_EQ(ReadTextPointStream(last, "s").size(), 2u);
    EXPECT_EQ(kaio::Echo("a\tb\xff"), "a\\x09b\\xff");
    EXPECT_EQ(kaio::Echo(std::string(100, 'z'), 5), "zzzzz...");
}

namespace {

// Runs kagrid with `args` and the extra environment `env`, its output
// discarded; returns the raw wait status.
int SpawnKagrid(const std::vector<std::string>& args, const std::vector<std::string>& env)
{
    const pid_t child = fork();
    if (child == 0) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        for (const std::string& e : env) putenv(const_cast<char*>(e.c_str()));
        std::vector<char*> argv{const_cast<char*>(KAGRID_EXE)};
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(KAGRID_EXE, argv.data());
        _exit(127);
    }
    int st = 0;
    waitpid(child, &st, 0);
    return st;
}

// The checkpoints a run passes (reading, estimating, each write and rename step).
std::vector<std::string> Checkpoints(const std::vector<std::string>& args)
{
    std::string cmd = "KAGRID_TEST_CHECKPOINTS=list " + std::string(KAGRID_EXE);
    for (const std::string& a : args) cmd += " '" + a + "'";
    std::vector<std::string> phases;
    FILE* f = popen((cmd + " 2>&1 >/dev/null").c_str(), "r");
    char line[512];
    while (f && std::fgets(line, sizeof line, f)) {
        const std::string s(line);
        const std::size_t at = s.find("checkpoint ");
        if (at == std::string::npos) continue;
        const std::size_t name = s.find(' ', at + 11);
        phases.push_back(s.substr(name + 1, s.size() - name - 2));
    }
    if (f) pclose(f);
    return phases;
}

// A GeoPackage records when it was written: compared by size and header only.
bool SameOutputs(const std::map<std::string, std::string>& a, const std::map<std::string, std::string>& b)
{
    if (a.size() != b.size()) return false;
    for (auto i = a.begin(), j = b.begin(); i != a.end(); ++i, ++j) {
        if (i->first != j->first) return false;
        const bool gpkg = i->second.rfind("SQLite format 3", 0) == 0 && j->second.rfind("SQLite format 3", 0) == 0;
        if (gpkg ? i->second.size() != j->second.size() : i->second != j->second)
            return false;
    }
    return true;
}

}  // namespace

// An interrupt at any instant of a run leaves the folder as it was or with
// every new output complete: never a temporary, a side file or a half file.
// kagrid itself sends the signal at checkpoint N (KAGRID_TEST_SIGNAL), for
// every N of the run, once carrying on and once stopping the thread there.
TEST(Hardening, InterruptAtEveryCheckpointLeavesTheOldFilesOrTheNewOnes)
{
    struct Case {
        std::vector<std::string> args;          // "@" stands for the folder
        std::vector<std::string> old;           // files there before the run
    };
    const std::vector<Case> cases{
        {{"kriging", kSample, "@/g.asc", "-q", "--crs", "EPSG:28992", "-ot", "Float32", "--set", "columnCount=8",
          "--set", "rowCount=6", "--stddev", "@/sd.bil", "--preview", "@/p.png"},
         {"g.asc", "g.prj", "sd.bil", "sd.hdr", "p.png"}},
        {{"triangulation", kSample, "@/t.tif", "-q", "--crs", "EPSG:28992", "--set", "columnCount=8", "--set",
          "rowCount=6", "--mesh", "@/m.shp"},
         {"t.tif", "m.shp", "m.shx", "m.dbf", "m.prj"}},
        {{"cross-validate", "inverse-distance", kSample, "-q", "--residuals", "@/r.gpkg", "--report", "@/r.json"},
         {"r.gpkg", "r.json"}},
    };
    const int signals[] = {SIGINT, SIGTERM, SIGHUP};
    std::set<std::string> phasesSeen;
    int instants = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args[0]);
        katest::TempDir d;
        std::vector<std::string> args;
        for (std::string a : c.args) {
            if (a[0] == '@') a = d.path.string() + a.substr(1);
            args.push_back(a);
        }
        auto reset = [&] {
            for (const auto& e : fs::directory_iterator(d.path)) fs::remove_all(e.path());
            for (const std::string& f : c.old) katest::WriteFile(d / f, "old " + f);
        };
        reset();
        const auto before = Snapshot(d);
        ASSERT_EQ(SpawnKagrid(args, {}), 0);
        const auto after = Snapshot(d);
        ASSERT_FALSE(SameOutputs(before, after));
        for (const auto& [name, bytes] : after) EXPECT_NE(name[0], '.') << name;
        reset();
        const std::vector<std::string> phases = Checkpoints(args);
        ASSERT_GT(phases.size(), 10u);
        for (std::size_t n = 1; n <= phases.size(); ++n)
            for (const char* mode : {"", ":hold"}) {
                if (*mode && phases[n - 1].rfind("estimate", 0) == 0) continue;  // rows alike: one way is enough
                const int sig = signals[(n + (*mode ? 1 : 0)) % 3];
                SCOPED_TRACE("checkpoint " + std::to_string(n) + " " + phases[n - 1] + mode + " signal " +
                             std::to_string(sig));
                reset();
                const int st = SpawnKagrid(
                    args, {"KAGRID_TEST_SIGNAL=" + std::to_string(n) + ":" + std::to_string(sig) + mode});
                const auto now = Snapshot(d);
                const bool old = SameOutputs(now, before), fresh = SameOutputs(now, after);
                EXPECT_TRUE(old || fresh) << [&] {
                    std::string names;
                    for (const auto& [name, bytes] : now) names += name + " ";
                    return names;
                }();
                // The run ends by the signal; past its last rename it may finish first.
                EXPECT_TRUE((WIFSIGNALED(st) && WTERMSIG(st) == sig) || (WIFEXITED(st) && WEXITSTATUS(st) == 0 && fresh))
                    << st;
                ++instants;
                phasesSeen.insert(phases[n - 1]);
            }
    }
    // Reading, estimating, each write step of each kind of file, and the renames.
    for (const char* phase : {"read: start", "read: done", "estimate: progress", "write: temporary folder made",
                              "write: rows", "write: dataset made", "write: dataset closed", "write: read back",
                              "write: mesh written", "write: table written", "write: text written", "commit: begin",
                              "commit: rename", "commit: renamed"})
        EXPECT_TRUE(phasesSeen.count(phase)) << phase;
    std::printf("interrupted at %d instants over %zu phases\n", instants, phasesSeen.size());
}

// The bad-input probe's findings, each kept as a reproducer: a refusal of one
// line naming what to change, and the folder unchanged.
TEST(Hardening, ProbeFindingsAreRefusedNamingWhatToChange)
{
    katest::TempDir d;
    katest::WriteFile(d / "in.csv", katest::ReadFile(kSample));
    katest::WriteFile(d / "in.xyz", katest::ReadFile(kSample));
    katest::WriteFile(d / "p.json", "{}");
    katest::WriteFile(d / "one.csv", "x,y,z\n1,1,1\n1,1,2\n1,1,3\n");
    katest::WriteFile(d / "victim.tif", "precious");
    ASSERT_EQ(mkfifo((d / "fifo.tif").c_str(), 0644), 0);
    KaIoInit();
    {  // two layers in different coordinate systems
        GDALDriver* gpkg = GetGDALDriverManager()->GetDriverByName("GPKG");
        kaio::GdalDatasetPtr ds(gpkg->Create((d / "two.gpkg").c_str(), 0, 0, 0, GDT_Unknown, nullptr));
        for (int epsg : {28992, 4326}) {
            OGRSpatialReference srs;
            srs.importFromEPSG(epsg);
            OGRLayer* layer = ds->CreateLayer(epsg == 4326 ? "wgs" : "rd", &srs, wkbPoint25D, nullptr);
            for (int i = 0; i < 4; ++i) {
                OGRFeature f(layer->GetLayerDefn());
                OGRPoint p(i, i * i, i);
                f.SetGeometry(&p);
                ASSERT_EQ(layer->CreateFeature(&f), OGRERR_NONE);
            }
        }
    }
    const std::string in = d / "in.csv", nn = "nearest-neighbor " + in + " ";
    struct Case {
        std::string args, expect;
    };
    const std::vector<Case> cases{
        // 4: counts beyond the largest raster side, however given
        {nn + d / "o.tif --size 4294967396,2", "--size 4294967396,2: the counts must be whole numbers from 1 to 2147483647"},
        {nn + d / "o.tif --cell 1e-9", "--cell: x would need more than 2147483647 nodes"},
        // 5: the standard deviation stays beside OUTPUT
        {"kriging " + in + " " + d / "o.tif --set createStdDev=true --set stdDevName=../victim", "stdDevName: '../victim' is not a plain file name"},
        {"kriging " + in + " " + d / "o.tif --set createStdDev=true --set stdDevName=" + d / "victim", "is not a plain file name"},
        // 7: layers in different coordinate systems
        {"nearest-neighbor " + d / "two.gpkg " + d / "o.tif", "layer 'wgs' is in WGS 84 (EPSG:4326), layer 'rd' in Amersfoort"},
        // 8: choice indices out of range
        {"kriging " + in + " " + d / "o.tif --set krigType=99", "krigType: must be a name or an index from 0 to 1, not 99"},
        {"kriging " + in + " " + d / "o.tif --set driftType=99", "driftType: must be a name or an index from 0 to 2, not 99"},
        {"radial-basis " + in + " " + d / "o.tif --set basisFunction=-1", "basisFunction: must be a name or an index from 0 to 4, not -1"},
        // 10: an elongated ring-walk grid that would run for hours
        {nn + d / "o.tif --size 2,2000000 --plugin-defaults", "a 2 \u00d7 2000000 grid whose cells are"},
        // 11: outputs never replace inputs
        {nn + d / "o.tif --preview " + in, "--preview names the INPUT " + in},
        {"nearest-neighbor " + d / "in.xyz " + d / "./in.xyz", "OUTPUT names the INPUT"},
        {nn + d / "p.json -of GTiff --params " + d / "p.json", "OUTPUT names the --params file"},
        {"cross-validate nearest-neighbor " + in + " --residuals " + in, "--residuals names the INPUT"},
        {"tune nearest-neighbor " + in + " --params " + d / "p.json --write-params " + d / "p.json", "--write-params names the --params file"},
        // 12: --like takes a file's lattice, never a pipe's
        {nn + d / "o.tif --like " + d / "fifo.tif", "fifo.tif: not a regular file"},
        // 13: messages that name the file and the reason
        {nn + d / "o.tif --params /dev/zero", "/dev/zero: is a device, not a parameter file"},
        {"variogram " + d / "one.csv", "one.csv: every sample lies at one place"},
        {"nearest-neighbor " + d / "$(printf 'a\\033[2Jb').csv " + d / "o.tif", "a\\x1b[2Jb.csv: no such file"},
    };
    const auto before = Snapshot(d);
    for (const Case& c : cases) {
        const auto r = Kagrid(c.args + " -q");
        EXPECT_EQ(r.status, 1) << c.args << "\n" << r.output;
        EXPECT_NE(r.output.find(c.expect), std::string::npos) << c.args << "\n" << r.output;
        EXPECT_EQ(std::count(r.output.begin(), r.output.end(), '\n'), 1) << r.output;
        EXPECT_EQ(r.output.find('\033'), std::string::npos) << "a control byte reached the terminal";
    }
    EXPECT_EQ(Snapshot(d), before);

    // 13: CR-only line endings read as lines; 14: '--' ends the options, a
    // 255-byte name is written, a symbolic link is written through.
    katest::WriteFile(d / "cr.csv", "x,y,z\r0,0,1\r4,0,2\r0,3,3\r4,3,4\r");
    EXPECT_EQ(ReadPointFile(d / "cr.csv", {})->Points().size(), 4u);
    katest::WriteFile(d / "-dash.csv", katest::ReadFile(kSample));
    const auto dash = Kagrid("nearest-neighbor -q --set columnCount=5 --set rowCount=4 -- " + d / "-dash.csv " + d / "-o.tif");
    EXPECT_EQ(dash.status, 0) << dash.output;
    const std::string longName = std::string(251, 'n') + ".tif";
    EXPECT_EQ(Kagrid(nn + d / longName + " -q --set columnCount=5 --set rowCount=4").status, 0);
    EXPECT_TRUE(fs::is_regular_file(d.path / longName));
    fs::create_directory(d.path / "real");
    katest::WriteFile(d / "real/g.tif", "old");
    fs::create_symlink(d.path / "real/g.tif", d.path / "link.tif");
    const auto link = Kagrid(nn + d / "link.tif -q --set columnCount=5 --set rowCount=4");
    EXPECT_EQ(link.status, 0) << link.output;
    EXPECT_TRUE(fs::is_symlink(d.path / "link.tif"));
    EXPECT_EQ(ReadRasterSurface(d / "real/g.tif")->GetSurfaceObjInfo().columnCount, 5u);
    for (const auto& e : fs::recursive_directory_iterator(d.path)) EXPECT_NE(e.path().filename().string()[0], '.');
}

// A Float32 raster's nodata may be stored rounded; cells at the largest float
// are blank all the same.
TEST(Hardening, Float32NodataIsComparedAsTheBandsType)
{
    katest::TempDir d;
    KaIoInit();
    GDALDriver* gtiff = GetGDALDriverManager()->GetDriverByName("GTiff");
    {
        kaio::GdalDatasetPtr ds(gtiff->Create((d / "f.tif").c_str(), 2, 2, 1, GDT_Float32, nullptr));
        const double gt[6] = {0, 1, 0, 2, 0, -1};
        ds->SetGeoTransform(const_cast<double*>(gt));
        GDALRasterBand* b = ds->GetRasterBand(1);
        b->SetNoDataValue(-3.402823e+38);
        float cells[4] = {1, -std::numeric_limits<float>::max(), 3, 4};
        ASSERT_EQ(b->RasterIO(GF_Write, 0, 0, 2, 2, cells, 2, 2, GDT_Float32, 0, 0, nullptr), CE_None);
    }
    const auto s = ReadRasterSurface(d / "f.tif");
    EXPECT_EQ(s->GetSurfaceObjInfo().zMin, 1);
    EXPECT_EQ(s->GridData().At(1, 1), s->GetSurfaceObjInfo().invalidValue);
}

// Runs at once on one folder: every output is one run's complete file and
// nothing else is left; failures mid-run keep the old file.
TEST(Hardening, ConcurrentRunsAndVanishingFoldersLeaveCompleteFilesOnly)
{
    katest::TempDir d;
    const std::string nn = std::string(KAGRID_EXE) + " nearest-neighbor " + kSample + " ";
    auto startAll = [](const std::vector<std::string>& commands) {
        std::vector<FILE*> runs;
        for (const std::string& c : commands) runs.push_back(popen((c + " 2>&1").c_str(), "r"));
        std::vector<int> status;
        for (FILE* f : runs) {
            char buf[512];
            while (std::fgets(buf, sizeof buf, f)) {
            }
            const int st = pclose(f);
            status.push_back(WIFEXITED(st) ? WEXITSTATUS(st) : -1);
        }
        return status;
    };
    // Eight runs, eight outputs in one folder.
    std::vector<std::string> eight;
    for (int i = 0; i < 8; ++i)
        eight.push_back(nn + d / ("g" + std::to_string(i) + ".tif") + " -q --threads 1 --set columnCount=" +
                        std::to_string(20 + i) + " --set rowCount=30");
    for (int st : startAll(eight)) EXPECT_EQ(st, 0);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(ReadRasterSurface(d / ("g" + std::to_string(i) + ".tif"))->GetSurfaceObjInfo().columnCount, 20u + i);
    EXPECT_EQ(d.Entries().size(), 8u);

    // Two runs onto one output, grid and mesh alike: one run's complete files.
    for (int round = 0; round < 4; ++round) {
        const std::string tri = std::string(KAGRID_EXE) + " triangulation " + kSample + " " + d / "same.asc" +
                                " -q --crs EPSG:28992 --mesh " + d / "m.shp --set rowCount=";
        for (int st : startAll({tri + "31", tri + "32"})) EXPECT_EQ(st, 0);
        const auto rows = ReadRasterSurface(d / "same.asc")->GetSurfaceObjInfo().rowCount;
        EXPECT_TRUE(rows == 31 || rows == 32) << rows;
        for (const char* part : {"m.shp", "m.shx", "m.dbf", "m.prj", "same.prj"})
            EXPECT_TRUE(fs::is_regular_file(d.path / part)) << part;
    }
    for (const auto& name : d.Entries()) EXPECT_NE(name[0], '.') << name;

    // The folder removed, or made read-only, while the run estimates: the run
    // fails naming the output, and leaves nothing behind.
    auto pausedRun = [&](const std::string& out, const std::function<void()>& meanwhile, int at = 3) {
        const std::string fifo = d / "pause";
        fs::remove(fifo);
        EXPECT_EQ(mkfifo(fifo.c_str(), 0644), 0);
        // Checkpoint 3 is the first row estimated: reading is done, no temporary made yet.
        FILE* run = popen(("KAGRID_TEST_PAUSE=" + std::to_string(at) + ":" + fifo + " " + nn + out + " -q 2>&1").c_str(), "r");
        const int fd = open(fifo.c_str(), O_WRONLY);  // returns once kagrid waits at the checkpoint
        meanwhile();
        EXPECT_EQ(write(fd, "x", 1), 1);
        close(fd);
        std::string output;
        char buf[512];
        while (std::fgets(buf, sizeof buf, run)) output += buf;
        const int st = pclose(run);
        return std::make_pair(WIFEXITED(st) ? WEXITSTATUS(st) : -1, output);
    };
    fs::create_directory(d.path / "gone");
    const auto gone = pausedRun(d / "gone/g.tif", [&] { fs::remove_all(d.path / "gone"); });
    EXPECT_EQ(gone.first, 1);
    EXPECT_NE(gone.second.find("gone/g.tif: cannot create a temporary folder"), std::string::npos) << gone.second;

    // A small file system of its own: read-only mid-run, then full.
    const fs::path mnt = d.path / "mnt";
    fs::create_directory(mnt);
    if (mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=64k") != 0) {
        std::printf("no tmpfs could be mounted here (%s): read-only and full-disk cases skipped\n", std::strerror(errno));
        return;
    }
    struct Unmount {
        std::string at;
        ~Unmount() { umount2(at.c_str(), MNT_DETACH); }
    } unmount{mnt.string()};
    katest::WriteFile((mnt / "g.tif").string(), "precious");
    const auto ro = pausedRun((mnt / "g.tif").string(), [&] {
        EXPECT_EQ(mount("tmpfs", mnt.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, "size=64k"), 0);
    });
    EXPECT_EQ(ro.first, 1);
    EXPECT_NE(ro.second.find("Read-only file system"), std::string::npos) << ro.second;
    EXPECT_EQ(katest::ReadFile((mnt / "g.tif").string()), "precious");
    ASSERT_EQ(mount("tmpfs", mnt.c_str(), "tmpfs", MS_REMOUNT, "size=64k"), 0);
    // 64 kB cannot hold a 300 x 300 grid of text: the write fails with its reason, the old file stays.
    const auto full = Kagrid("nearest-neighbor " + kSample + " " + (mnt / "g.asc").string() +
                             " -q --set columnCount=300 --set rowCount=300");
    EXPECT_EQ(full.status, 1);
    EXPECT_NE(full.output.find("g.asc: Write failed, disk full?"), std::string::npos) << full.output;
    const auto fullXyz = Kagrid("nearest-neighbor " + kSample + " " + (mnt / "g.xyz").string() +
                                " -q --set columnCount=300 --set rowCount=300");
    EXPECT_EQ(fullXyz.status, 1);
    EXPECT_NE(fullXyz.output.find("g.xyz: writing the file failed: No space left on device"), std::string::npos)
        << fullXyz.output;
    EXPECT_EQ(katest::ReadFile((mnt / "g.tif").string()), "precious");
    // Full when the finished file is renamed: a rename needs no space, the new grid lands whole.
    std::vector<std::string> args{"nearest-neighbor", kSample, (mnt / "g.tif").string(), "-q"};
    const std::vector<std::string> phases = Checkpoints(args);
    const int commit = static_cast<int>(std::find(phases.begin(), phases.end(), "commit: begin") - phases.begin()) + 1;
    const auto atRename = pausedRun((mnt / "g.tif").string(), [&] {
        std::ofstream filler((mnt / "filler").string(), std::ios::binary);
        const std::string block(4096, 'f');
        while (filler.write(block.data(), block.size())) {
        }
    }, commit);
    EXPECT_EQ(atRename.first, 0) << atRename.second;
    EXPECT_EQ(ReadRasterSurface((mnt / "g.tif").string())->GetSurfaceObjInfo().rowCount, 100u);
    fs::remove(mnt / "filler");
    std::set<std::string> left;
    for (const auto& e : fs::directory_iterator(mnt)) left.insert(e.path().filename().string());
    EXPECT_EQ(left, std::set<std::string>{"g.tif"});
}
