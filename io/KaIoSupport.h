#pragma once

// Helpers shared by the readers and writers of kagridio; not part of the
// interface kagrid uses.

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gdal_priv.h>

namespace kaio {

// The file name without directory and last extension: "data/wells.csv" -> "wells".
std::string FileStem(const std::string& path);
std::string Lower(std::string s);

// A piece of user input fit to quote in a one-line message: bytes outside
// printable ASCII become \xNN and anything past `max` characters is cut.
std::string Echo(std::string_view text, std::size_t max = 40);

// Throws KaIoError unless `path` exists, is not a folder and is readable. It
// does not open the file: a pipe must be opened once only, by its reader.
void CheckInputFile(const std::string& path);

// Test hook at a point of a run (reading, estimating, each write and rename
// step); see KaOutputFiles.cpp. Does nothing unless a KAGRID_TEST_ variable is set.
void Checkpoint(const char* phase);

// Held while temporaries are created, committed or removed; the signal path
// takes it before removing them, so it never meets a half-done rename.
class OutputLock {
public:
    OutputLock();
    ~OutputLock();
    OutputLock(const OutputLock&) = delete;
    OutputLock& operator=(const OutputLock&) = delete;
};

// An exclusive lock on a folder shared with other processes (flock): two runs
// replacing files in one folder do so one after the other.
class FolderLock {
public:
    explicit FolderLock(const std::string& folder);
    ~FolderLock();
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;

private:
    int fd_;
};

// The folder `target` is in ("." for a bare name).
std::string OutputFolder(const std::string& target);

// An output given as a symbolic link is written through it: the file it
// points to is replaced, the link kept. A dangling link is refused.
std::string FollowOutputLink(const std::string& path);

// A private hidden folder beside `target` (".kagrid-PID-XXXXXXXX.tmp") for
// its temporaries and whatever side files a driver writes next to them;
// registered for removal on an interrupt before it exists.
std::string MakeTemporaryFolder(const std::string& target);
void RemoveTemporaryFolder(const std::string& folder);

// A temporary that must lie beside its target itself (a VRT names its
// sources relative to its own folder): removed on an interrupt while
// registered. Unregister it once renamed or removed, under an OutputLock.
void RegisterTemporary(const std::string& path);
void UnregisterTemporary(const std::string& path);

// A temporary path for `target`: its own file name inside a new temporary folder.
std::string ReserveTemporary(const std::string& target);
// Removes the temporary folder holding `temp`.
void DiscardTemporary(const std::string& temp);

// Renames each finished file (from, to) into place under the locks, then
// removes `folder`; refuses a target that has meanwhile become anything but a
// regular file. Errors name `named`.
void MoveIntoPlace(const std::string& folder, const std::vector<std::pair<std::string, std::string>>& moves,
                   const std::string& named);

// Renames the finished `temp` over `target`, now or when the open batch
// commits; `temp`'s folder is removed when that fails or the batch ends
// uncommitted.
void CommitTemporary(const std::string& temp, const std::string& target);

// Runs `commit` now, or keeps it for KaOutputBatch::Commit when a batch is
// open; `discard` removes the temporaries when the batch ends uncommitted.
void CommitOrDefer(std::function<void()> commit, std::function<void()> discard);

struct GdalClose {
    void operator()(GDALDataset* ds) const;
};
using GdalDatasetPtr = std::unique_ptr<GDALDataset, GdalClose>;

// Collects GDAL's errors while it lives instead of letting them reach the
// terminal; the last failure becomes the text of a KaIoError.
class GdalErrorCapture {
public:
    GdalErrorCapture();
    ~GdalErrorCapture();
    GdalErrorCapture(const GdalErrorCapture&) = delete;
    GdalErrorCapture& operator=(const GdalErrorCapture&) = delete;

    bool Failed() const { return failed_; }
    // The last failure GDAL reported, or `fallback` when it said nothing.
    std::string Message(const std::string& fallback) const;
    void Reset();

private:
    static void CPL_STDCALL Handler(CPLErr level, CPLErrorNum num, const char* msg);
    bool failed_ = false;
    std::string message_;
};

// Creates a raster file without ever leaving a half-written `target`: `build`
// makes the complete dataset at the temporary path it is given (`target`'s
// own file name in a private temporary folder beside it) and returns it open;
// it is closed, reopened as a check and only then renamed over `target`, with
// every file of the dataset (side files last-but-the-main-file), now or when
// the open batch commits. On any failure the temporary folder is removed and
// KaIoError is thrown naming `target`.
void WriteThroughTemp(GDALDriver* driver, const std::string& target,
                      const std::function<GdalDatasetPtr(const std::string& tempPath)>& build);

}  // namespace kaio
