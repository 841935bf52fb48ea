#include "io/KaOutputFiles.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <thread>

#include "io/KaIoError.h"
#include "io/KaIoSupport.h"
#include "platform/kadata/KaDataObject.h"

namespace fs = std::filesystem;

namespace {

// Every temporary of a run lives in a private folder beside its target,
// registered here before the folder exists. Creating, committing and removing
// those folders happen under `mutex`; the signal thread takes it before it
// removes them, so an interrupt either waits for renames under way or finds
// every temporary registered. Never destroyed: the signal thread may still
// use it while the process exits.
struct Registry {
    std::recursive_mutex mutex;
    std::vector<std::string> folders;
    // Folders that could not be removed (their folder became read-only):
    // tried again before each new temporary, and by the signal thread.
    std::vector<std::string> stranded;
};
Registry& Reg()
{
    static Registry* r = new Registry;
    return *r;
}
thread_local int t_lockDepth = 0;

KaOutputBatch* g_batch = nullptr;
pthread_t g_signalThread;
std::atomic<bool> g_signalThreadRunning{false};

constexpr int kInterrupts[] = {SIGINT, SIGTERM, SIGHUP};

// Removes a temporary folder and everything in it. A writer still running on
// another thread may add a file between the listing and the rmdir: repeat
// until the folder is gone, after which nothing can be created in it. A
// folder that became read-only cannot be removed: no use repeating then.
void RemoveTree(const std::string& folder)
{
    for (int i = 0; i < 10000; ++i) {
        std::error_code ec;
        fs::remove_all(folder, ec);
        const std::errc why = static_cast<std::errc>(ec.value());
        if (ec && (why == std::errc::read_only_file_system || why == std::errc::permission_denied ||
                   why == std::errc::operation_not_permitted))
            return;
        if (!fs::exists(fs::symlink_status(folder, ec)) && !ec) return;
    }
}

void SignalThread(sigset_t watched)
{
    int sig = 0;
    while (sigwait(&watched, &sig) != 0) {
    }
    Reg().mutex.lock();  // a commit under way completes first; none starts after (never unlocked)
    for (const std::string& f : Reg().folders) RemoveTree(f);
    for (const std::string& f : Reg().stranded) RemoveTree(f);
    signal(sig, SIG_DFL);
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, sig);
    pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
    raise(sig);
    _exit(128 + sig);
}

// Runs only on a thread that did not block the interrupts (one a library made
// before they were blocked): hands the signal to the signal thread.
extern "C" void ForwardToSignalThread(int sig)
{
    if (g_signalThreadRunning.load()) pthread_kill(g_signalThread, sig);
}

struct TestHook {
    bool active = false, list = false, hold = false;
    int signalAt = 0, sig = SIGTERM, pauseAt = 0;
    std::string pauseFifo;
};

// Test hooks, read once: KAGRID_TEST_CHECKPOINTS=list prints each checkpoint;
// KAGRID_TEST_SIGNAL=N[:SIG[:hold]] sends SIG to the process at checkpoint N
// (hold: that thread then stops there, unless it holds the outputs' lock);
// KAGRID_TEST_PAUSE=N:FIFO waits at checkpoint N until a byte is written to FIFO.
TestHook ReadTestHook()
{
    TestHook h;
    if (const char* v = std::getenv("KAGRID_TEST_CHECKPOINTS")) h.list = h.active = std::strcmp(v, "list") == 0;
    if (const char* v = std::getenv("KAGRID_TEST_SIGNAL")) {
        char mode[16] = "";
        if (std::sscanf(v, "%d:%d:%15s", &h.signalAt, &h.sig, mode) >= 1) h.active = true;
        h.hold = std::strcmp(mode, "hold") == 0;
    }
    if (const char* v = std::getenv("KAGRID_TEST_PAUSE")) {
        const char* colon = std::strchr(v, ':');
        h.pauseAt = std::atoi(v);
        if (colon && h.pauseAt > 0) {
            h.pauseFifo = colon + 1;
            h.active = true;
        }
    }
    return h;
}

}  // namespace

namespace kaio {

void Checkpoint(const char* phase)
{
    static const TestHook hook = ReadTestHook();
    if (!hook.active) return;
    static std::atomic<int> count{0};
    const int n = ++count;
    if (hook.list) std::fprintf(stderr, "kagrid: checkpoint %d %s\n", n, phase);
    if (n == hook.signalAt) {
        kill(getpid(), hook.sig);
        if (hook.hold && t_lockDepth == 0)
            for (;;) pause();
    }
    if (n == hook.pauseAt) {
        const int fd = open(hook.pauseFifo.c_str(), O_RDONLY);
        char c;
        if (fd >= 0 && read(fd, &c, 1) < 0) c = 0;
        if (fd >= 0) close(fd);
    }
}

OutputLock::OutputLock()
{
    Reg().mutex.lock();
    ++t_lockDepth;
}

OutputLock::~OutputLock()
{
    --t_lockDepth;
    Reg().mutex.unlock();
}

FolderLock::FolderLock(const std::string& folder)
    : fd_(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
{
    if (fd_ >= 0) flock(fd_, LOCK_EX);
}

FolderLock::~FolderLock()
{
    if (fd_ >= 0) close(fd_);
}

std::string OutputFolder(const std::string& target)
{
    const fs::path p(target);
    return p.has_parent_path() ? p.parent_path().string() : std::string(".");
}

std::string FollowOutputLink(const std::string& path)
{
    std::error_code ec;
    if (path.empty() || !fs::is_symlink(fs::symlink_status(path, ec))) return path;
    const fs::path real = fs::canonical(path, ec);
    if (ec) throw KaIoError(path, "is a symbolic link to a missing file; give the file itself");
    return real.string();
}

std::string MakeTemporaryFolder(const std::string& target)
{
    const std::string dir = OutputFolder(target);
    thread_local std::mt19937_64 rng(std::random_device{}());
    for (int attempt = 0;; ++attempt) {
        char name[64];
        std::snprintf(name, sizeof name, ".kagrid-%ld-%08llx.tmp", static_cast<long>(getpid()),
                      static_cast<unsigned long long>(rng() & 0xffffffffu));
        const std::string folder = (fs::path(dir) / name).string();
        int err = 0;
        {
            OutputLock lock;
            auto& stranded = Reg().stranded;
            stranded.erase(std::remove_if(stranded.begin(), stranded.end(),
                                          [](const std::string& f) {
                                              std::error_code ec;
                                              fs::remove_all(f, ec);
                                              return !fs::exists(fs::symlink_status(f, ec)) && !ec;
                                          }),
                           stranded.end());
            Reg().folders.push_back(folder);  // registered before it exists
            if (mkdir(folder.c_str(), 0700) == 0) {
                Checkpoint("write: temporary folder made");
                return folder;
            }
            err = errno;
            Reg().folders.pop_back();
        }
        if (err != EEXIST || attempt > 50) {
            std::string why = std::strerror(err);
            if (err == ENOENT) why = "the folder no longer exists";
            throw KaIoError(target, "cannot create a temporary folder in '" + dir + "': " + why);
        }
    }
}

void RemoveTemporaryFolder(const std::string& folder)
{
    OutputLock lock;
    RemoveTree(folder);
    auto& all = Reg().folders;
    all.erase(std::remove(all.begin(), all.end(), folder), all.end());
    std::error_code ec;
    if (fs::exists(fs::symlink_status(folder, ec))) Reg().stranded.push_back(folder);
}

void RegisterTemporary(const std::string& path)
{
    OutputLock lock;
    Reg().folders.push_back(path);  // removed as a folder is: remove_all takes a file too
}

void UnregisterTemporary(const std::string& path)
{
    OutputLock lock;
    auto& all = Reg().folders;
    all.erase(std::remove(all.begin(), all.end(), path), all.end());
}

std::string ReserveTemporary(const std::string& target)
{
    return (fs::path(MakeTemporaryFolder(target)) / fs::path(target).filename()).string();
}

void DiscardTemporary(const std::string& temp) { RemoveTemporaryFolder(OutputFolder(temp)); }

void MoveIntoPlace(const std::string& folder, const std::vector<std::pair<std::string, std::string>>& moves,
                   const std::string& named)
{
    OutputLock lock;  // an interrupt waits until every file of this output is in place
    FolderLock others(OutputFolder(moves.empty() ? named : moves.front().second));  // other processes too
    std::error_code ec;
    for (const auto& [from, to] : moves) {
        const fs::file_status st = fs::status(to, ec);
        if (fs::exists(st) && !fs::is_regular_file(st)) {
            RemoveTemporaryFolder(folder);
            throw KaIoError(named, "exists and is not a regular file; not replaced");
        }
    }
    for (const auto& [from, to] : moves) {
        Checkpoint("commit: rename");
        if (std::rename(from.c_str(), to.c_str()) != 0) {
            const std::string why = std::strerror(errno);
            RemoveTemporaryFolder(folder);
            throw KaIoError(named, "cannot rename the finished file into place: " + why);
        }
    }
    RemoveTemporaryFolder(folder);
    Checkpoint("commit: renamed");
}

void CommitOrDefer(std::function<void()> commit, std::function<void()> discard)
{
    if (g_batch) g_batch->pending_.push_back({std::move(commit), std::move(discard)});
    else commit();
}

void CommitTemporary(const std::string& temp, const std::string& target)
{
    const std::string folder = OutputFolder(temp);
    CommitOrDefer([folder, temp, target] { MoveIntoPlace(folder, {{temp, target}}, target); },
                  [folder] { RemoveTemporaryFolder(folder); });
}

}  // namespace kaio

void CheckOutputPath(const std::string& given)
{
    if (given.empty()) return;
    const std::string path = kaio::FollowOutputLink(given);
    const fs::path p(path);
    const fs::path dir = p.has_parent_path() ? p.parent_path() : fs::path(".");
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) throw KaIoError(given, "the folder '" + dir.string() + "' does not exist");
    if (access(dir.c_str(), W_OK) != 0) throw KaIoError(given, "the folder '" + dir.string() + "' is not writable");
    const fs::file_status st = fs::status(p, ec);
    if (fs::is_directory(st)) throw KaIoError(given, "is a folder");
    if (fs::exists(st) && !fs::is_regular_file(st))
        throw KaIoError(given, "exists and is not a regular file (a device or a pipe?); only regular files "
                               "are replaced");
}

void WriteTextFile(const std::string& given, const std::string& text)
{
    const std::string path = kaio::FollowOutputLink(given);
    const std::string temp = kaio::ReserveTemporary(path);
    std::ofstream out(temp, std::ios::binary | std::ios::trunc);
    if (out) out << text;
    if (!out || !out.flush()) {
        const std::string why = std::strerror(errno);
        out.close();
        kaio::DiscardTemporary(temp);
        throw KaIoError(given, "cannot write the file: " + why);
    }
    out.close();
    kaio::Checkpoint("write: text written");
    kaio::CommitTemporary(temp, path);
}

KaOutputBatch::KaOutputBatch() { g_batch = this; }

KaOutputBatch::~KaOutputBatch()
{
    if (g_batch == this) g_batch = nullptr;
    for (Pending& p : pending_) p.discard();
}

void KaOutputBatch::Commit()
{
    g_batch = nullptr;
    std::vector<Pending> pending = std::move(pending_);
    pending_.clear();
    // The whole batch is one step for an interrupt: all files land, or none.
    kaio::OutputLock lock;
    kaio::Checkpoint("commit: begin");
    for (std::size_t i = 0; i < pending.size(); ++i) {
        try {
            pending[i].commit();
        } catch (...) {
            for (std::size_t k = i + 1; k < pending.size(); ++k) pending[k].discard();
            throw;
        }
    }
}

void KaBlockInterruptSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (int sig : kInterrupts) sigaddset(&set, sig);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void KaInstallTemporaryCleanup()
{
    static std::once_flag once;
    std::call_once(once, [] {
        sigset_t watched;
        sigemptyset(&watched);
        for (int sig : kInterrupts) {
            struct sigaction old {};
            sigaction(sig, nullptr, &old);
            if (old.sa_handler != SIG_IGN) sigaddset(&watched, sig);  // nohup stays nohup
        }
        // Threads started from here on inherit the block; kagrid blocks them before any library starts one.
        pthread_sigmask(SIG_BLOCK, &watched, nullptr);
        std::thread t(SignalThread, watched);
        g_signalThread = t.native_handle();
        t.detach();
        g_signalThreadRunning.store(true);
        struct sigaction sa {};
        sa.sa_handler = ForwardToSignalThread;
        sigfillset(&sa.sa_mask);
        for (int sig : kInterrupts)
            if (sigismember(&watched, sig)) sigaction(sig, &sa, nullptr);
    });
}

void KaRemoveStaleTemporaries(const std::string& outputPath)
{
    if (outputPath.empty()) return;
    const fs::path dir = kaio::OutputFolder(outputPath);
    // Only kagrid's own folders: ".kagrid-" pid "-" eight hex digits ".tmp", whose process is gone.
    std::error_code ec;
    std::vector<fs::path> stale;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        long pid = 0;
        unsigned hex = 0;
        int used = 0;
        if (std::sscanf(name.c_str(), ".kagrid-%9ld-%8x.tmp%n", &pid, &hex, &used) != 2 ||
            used != static_cast<int>(name.size()) || name.size() < 23 || pid <= 0 || pid == getpid())
            continue;
        const std::size_t dash = name.rfind('-');
        if (name.size() - dash != 13) continue;  // exactly eight hex digits
        if (kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) continue;  // still running
        if (fs::is_directory(fs::symlink_status(it->path(), ec))) stale.push_back(it->path());
    }
    for (const fs::path& f : stale) fs::remove_all(f, ec);
}

std::string KaTerminalSafe(const std::string& message)
{
    std::string out;
    for (const char ch : message) {
        const unsigned char c = static_cast<unsigned char>(ch);
        if (c >= 0x20 && c != 0x7f) {
            out += ch;
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        }
    }
    return out;
}

std::size_t KaBlankNonFiniteNodes(KaSurface& surface)
{
    const KaTDataMatrix2D<double>& grid = surface.GridData();
    std::size_t count = 0;
    for (std::size_t i = 0, n = grid.Size(); i < n; ++i) count += !std::isfinite(grid.data[i]);
    if (count == 0) return 0;
    KaTDataMatrix2D<double> m;
    surface.GetGridDataArray(m);
    const double blank = surface.GetSurfaceObjInfo().invalidValue;
    for (std::size_t i = 0, n = m.Size(); i < n; ++i)
        if (!std::isfinite(m.data[i])) m.data[i] = blank;
    surface.SetGridDataArray(std::move(m));
    return count;
}
