// Hostile input and hostile output paths: every refusal is one line naming
// the file, line or key, and no file that existed before is changed.

#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <filesystem>
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
    // The writer gives up after a minute without a reader rather than hang the test.
    std::thread writer([&] {
        int fd = -1;
        for (int i = 0; i < 60000 && fd < 0; ++i) {
            fd = open((d / "pipe.csv").c_str(), O_WRONLY | O_NONBLOCK);
            if (fd < 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        if (fd < 0) return;
        fcntl(fd, F_SETFL, 0);
        const std::string text = katest::ReadFile(kSample);
        for (std::size_t at = 0; at < text.size();) {
            const ssize_t n = write(fd, text.data() + at, text.size() - at);
            if (n <= 0) break;
            at += static_cast<std::size_t>(n);
        }
        close(fd);
    });
    const auto r = Kagrid("nearest-neighbor " + d / "pipe.csv " + d / "o.tif -q");
    writer.join();
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(fs::is_regular_file(d.path / "o.tif"));

    // GDAL formats open a file several times: a pipe is refused by name.
    ASSERT_EQ(mkfifo((d / "pipe.gpkg").c_str(), 0644), 0);
    const auto gdal = Kagrid("nearest-neighbor " + d / "pipe.gpkg " + d / "p.tif -q");
    EXPECT_EQ(gdal.status, 1);
    EXPECT_NE(gdal.output.find("pipe.gpkg: not a regular file"), std::string::npos) << gdal.output;
}

TEST(Hardening, InterruptedRunsLeaveNoTemporary)
{
    for (int sig : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(sig);
        katest::TempDir d;
        const std::string out = d / "big.asc";  // a text grid takes a while to write
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            const int null = open("/dev/null", O_WRONLY);
            dup2(null, 2);
            execl(KAGRID_EXE, KAGRID_EXE, "nearest-neighbor", kSample.c_str(), out.c_str(), "-q", "--set",
                  "columnCount=2000", "--set", "rowCount=2000", "--set", "radius1=1", "--set", "radius2=1",
                  "--set", "sectorCount=1", "--set", "blankSectors=1",
                  static_cast<char*>(nullptr));
            _exit(127);
        }
        // Wait for the temporary to appear, then interrupt the write.
        bool seen = false;
        for (int i = 0; i < 60000 && !seen; ++i) {
            for (const auto& e : fs::directory_iterator(d.path)) seen = seen || e.path().filename().string()[0] == '.';
            if (!seen) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            int st;
            if (waitpid(child, &st, WNOHANG) == child) FAIL() << "finished before it could be interrupted";
        }
        ASSERT_TRUE(seen);
        kill(child, sig);
        int st = 0;
        waitpid(child, &st, 0);
        EXPECT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == sig) << st;
        EXPECT_TRUE(d.Entries().empty()) << *d.Entries().begin();
    }
}

TEST(Hardening, OnlyTemporariesOfDeadRunsAreSwept)
{
    katest::TempDir d;
    const std::vector<std::string> dead{".o.tif.tmp999999999-0badf00d.tif", ".o.tif.tmp999999999-0badf00d.tif.aux.xml",
                                        ".o.tmp999999999.gpkg"};
    const std::vector<std::string> kept{".o.tif.tmp1-0badf00d.tif",  // pid 1 lives
                                        ".o.tif.tmpx.tif", ".other.tif.tmp999999999-1.tif", "o.tif"};
    for (const auto& n : dead) katest::WriteFile(d / n, "x");
    for (const auto& n : kept) katest::WriteFile(d / n, "x");
    KaRemoveStaleTemporaries(d / "o.tif");
    EXPECT_EQ(d.Entries(), std::set<std::string>(kept.begin(), kept.end()));
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
