#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

class KaSurface;

namespace kaio {
void CommitOrDefer(std::function<void()> commit, std::function<void()> discard);
}

// Refuses an output path before any work: its folder must exist and be
// writable, and an existing path must be a regular file (a device, a pipe or
// a folder is never replaced). Throws KaIoError naming the path.
void CheckOutputPath(const std::string& path);

// Writes `text` to `path` as the other writers do: under a hidden temporary
// name, renamed into place when complete (or with the open batch). Throws
// KaIoError naming `path`.
void WriteTextFile(const std::string& path, const std::string& text);

// While a batch is open, the writers (WriteSurface, WritePreviewPng,
// WriteTriangleMesh) leave their finished files under temporary names;
// Commit() renames them all into place, so a run that fails at its last
// output has replaced none of the earlier ones. A batch destroyed without
// Commit() removes the temporaries. One batch at a time.
class KaOutputBatch {
public:
    KaOutputBatch();
    ~KaOutputBatch();
    KaOutputBatch(const KaOutputBatch&) = delete;
    KaOutputBatch& operator=(const KaOutputBatch&) = delete;

    void Commit();

private:
    friend void kaio::CommitOrDefer(std::function<void()>, std::function<void()>);
    struct Pending {
        std::function<void()> commit, discard;
    };
    std::vector<Pending> pending_;
};

// Blocks SIGINT, SIGTERM and SIGHUP in the calling thread and so in every
// thread it starts later; kagrid calls it before any library starts a thread.
void KaBlockInterruptSignals();

// Starts the thread that receives SIGINT, SIGTERM and SIGHUP (those not
// ignored at start): it waits for a commit under way, removes every temporary
// folder of the run, then ends the process as the signal would have. Blocks
// them in the calling thread; a thread that still takes one hands it over.
void KaInstallTemporaryCleanup();

// Removes the temporary folders beside `outputPath` that an earlier kagrid run
// left behind when it was killed outright: only folders named in kagrid's own
// pattern (".kagrid-PID-XXXXXXXX.tmp") whose process no longer exists.
void KaRemoveStaleTemporaries(const std::string& outputPath);

// A message fit for a terminal: control bytes (a file name may hold any)
// become \xNN; UTF-8 text is kept.
std::string KaTerminalSafe(const std::string& message);

// Sets every node that is not finite to the surface's blank value and returns
// how many there were (z values or coordinates near the largest double
// overflow the estimators' sums).
std::size_t KaBlankNonFiniteNodes(KaSurface& surface);
