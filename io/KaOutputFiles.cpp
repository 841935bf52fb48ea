#include "io/KaOutputFiles.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "io/KaIoError.h"
#include "io/KaIoSupport.h"
#include "platform/kadata/KaDataObject.h"

namespace fs = std::filesystem;

namespace {

// Fixed slots the signal handler can read without allocating or locking.
constexpr int kSlots = 64;
constexpr std::size_t kSlotLength = 4096;
struct Slot {
    std::atomic<bool> used{false};
    char path[kSlotLength];
};
Slot g_slots[kSlots];

KaOutputBatch* g_batch = nullptr;

extern "C" void RemoveTemporariesAndDie(int sig)
{
    for (Slot& s : g_slots)
        if (s.used.load(std::memory_order_acquire)) unlink(s.path);
    signal(sig, SIG_DFL);
    raise(sig);
}

}  // namespace

namespace kaio {

void GuardTemporary(const std::string& path)
{
    if (path.size() >= kSlotLength) return;
    for (Slot& s : g_slots) {
        if (s.used.load(std::memory_order_relaxed)) continue;
        std::memcpy(s.path, path.c_str(), path.size() + 1);
        s.used.store(true, std::memory_order_release);
        return;
    }
}

void ForgetTemporary(const std::string& path)
{
    for (Slot& s : g_slots)
        if (s.used.load(std::memory_order_relaxed) && path == s.path) s.used.store(false, std::memory_order_release);
}

void CommitOrDefer(std::function<void()> commit, std::function<void()> discard)
{
    if (g_batch) g_batch->pending_.push_back({std::move(commit), std::move(discard)});
    else commit();
}

std::string ReserveTemporary(const std::string& target)
{
    const fs::path p(target);
    std::string name(1, '.');
    name.append(p.stem().string()).append(".tmp").append(std::to_string(::getpid())).append(p.extension().string());
    const std::string temp = (p.parent_path() / name).string();
    // Guarded before it exists: a signal in between finds nothing to remove.
    GuardTemporary(temp);
    return temp;
}

void CommitTemporary(const std::string& temp, const std::string& target)
{
    auto discard = [temp] {
        std::error_code ec;
        fs::remove(temp, ec);
        ForgetTemporary(temp);
    };
    auto commit = [temp, target, discard] {
        std::error_code ec;
        const fs::file_status st = fs::status(target, ec);
        if (fs::exists(st) && !fs::is_regular_file(st)) {
            discard();
            throw KaIoError(target, "exists and is not a regular file; not replaced");
        }
        fs::rename(temp, target, ec);
        if (ec) {
            discard();
            throw KaIoError(target, "cannot rename the finished file into place: " + ec.message());
        }
        ForgetTemporary(temp);
    };
    CommitOrDefer(commit, discard);
}

}  // namespace kaio

void CheckOutputPath(const std::string& path)
{
    if (path.empty()) return;
    const fs::path p(path);
    const fs::path dir = p.has_parent_path() ? p.parent_path() : fs::path(".");
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) throw KaIoError(path, "the folder '" + dir.string() + "' does not exist");
    if (access(dir.c_str(), W_OK) != 0) throw KaIoError(path, "the folder '" + dir.string() + "' is not writable");
    const fs::file_status st = fs::status(p, ec);
    if (fs::is_directory(st)) throw KaIoError(path, "is a folder");
    if (fs::exists(st) && !fs::is_regular_file(st))
        throw KaIoError(path, "exists and is not a regular file (a device or a pipe?); only regular files "
                              "are replaced");
}

void WriteTextFile(const std::string& path, const std::string& text)
{
    const std::string temp = kaio::ReserveTemporary(path);
    std::ofstream out(temp, std::ios::binary | std::ios::trunc);
    if (out) out << text;
    if (!out || !out.flush()) {
        const std::string why = std::strerror(errno);
        out.close();
        std::error_code ec;
        fs::remove(temp, ec);
        kaio::ForgetTemporary(temp);
        throw KaIoError(path, "cannot write the file: " + why);
    }
    out.close();
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
    for (std::size_t i = 0; i < pending.size(); ++i) {
        try {
            pending[i].commit();
        } catch (...) {
            for (std::size_t k = i + 1; k < pending.size(); ++k) pending[k].discard();
            throw;
        }
    }
}

void KaInstallTemporaryCleanup()
{
    struct sigaction sa {};
    sa.sa_handler = RemoveTemporariesAndDie;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

void KaRemoveStaleTemporaries(const std::string& outputPath)
{
    if (outputPath.empty()) return;
    const fs::path p(outputPath);
    const fs::path dir = p.has_parent_path() ? p.parent_path() : fs::path(".");
    // The writers name a temporary "." + file name (or stem) + ".tmp" + pid, then more.
    std::string heads[2] = {p.filename().string(), p.stem().string()};
    for (std::string& h : heads) h.insert(0, 1, '.').append(".tmp");
    std::error_code ec;
    std::vector<fs::path> stale;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        for (const std::string& head : heads) {
            if (name.rfind(head, 0) != 0) continue;
            std::size_t i = head.size(), digits = 0;
            long pid = 0;
            while (i < name.size() && std::isdigit(static_cast<unsigned char>(name[i])) && digits < 9)
                pid = pid * 10 + (name[i++] - '0'), ++digits;
            if (digits == 0 || pid <= 0 || pid == getpid()) continue;
            if (kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) continue;  // still running
            if (it->is_regular_file(ec)) stale.push_back(it->path());
            break;
        }
    }
    for (const fs::path& f : stale) fs::remove(f, ec);
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
