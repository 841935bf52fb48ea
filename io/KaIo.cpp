#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>

#include "io/KaIoError.h"
#include "io/KaIoSupport.h"
#include "io/KaRasterIo.h"

namespace fs = std::filesystem;

namespace {
std::atomic<bool> g_embedded{false};
}  // namespace

void KaIoEmbedded() { g_embedded = true; }

KaQuietGdal::KaQuietGdal() { CPLPushErrorHandler(CPLQuietErrorHandler); }
KaQuietGdal::~KaQuietGdal() { CPLPopErrorHandler(); }

void KaIoInit()
{
    static std::once_flag once;
    std::call_once(once, [] {
        GDALAllRegister();
        if (g_embedded) return;
        // GDAL's own warnings would clutter kagrid's output; failures that
        // matter are caught per call and reported as KaIoError.
        CPLSetErrorHandler(CPLQuietErrorHandler);
        // Rows are written once, in order: a large block cache would only keep
        // a second copy of the grid in memory. The user's setting wins.
        if (!CPLGetConfigOption("GDAL_CACHEMAX", nullptr)) CPLSetConfigOption("GDAL_CACHEMAX", "64");
    });
}

namespace kaio {

std::string FileStem(const std::string& path) { return fs::path(path).stem().string(); }

std::string Lower(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char ch) { return static_cast<char>(std::tolower(ch)); });
    return s;
}

std::string Echo(std::string_view text, std::size_t max)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (out.size() >= max) {
            out += "...";
            break;
        }
        const unsigned char ch = static_cast<unsigned char>(text[i]);
        if (ch >= 0x20 && ch < 0x7f) {
            out += static_cast<char>(ch);
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", ch);
            out += hex;
        }
    }
    return out;
}

void CheckInputFile(const std::string& path)
{
    std::error_code ec;
    const fs::file_status st = fs::status(path, ec);
    if (!fs::exists(st)) throw KaIoError(path, "no such file");
    if (fs::is_directory(st)) throw KaIoError(path, "is a directory, not a file");
    if (access(path.c_str(), R_OK) != 0)
        throw KaIoError(path, std::string("cannot open the file: ") + std::strerror(errno));
}

void GdalClose::operator()(GDALDataset* ds) const
{
    if (ds) GDALClose(GDALDataset::ToHandle(ds));
}

GdalErrorCapture::GdalErrorCapture()
{
    CPLPushErrorHandlerEx(&GdalErrorCapture::Handler, this);
}

GdalErrorCapture::~GdalErrorCapture() { CPLPopErrorHandler(); }

void GdalErrorCapture::Reset()
{
    failed_ = false;
    message_.clear();
}

std::string GdalErrorCapture::Message(const std::string& fallback) const
{
    return message_.empty() ? fallback : message_;
}

void CPL_STDCALL GdalErrorCapture::Handler(CPLErr level, CPLErrorNum, const char* msg)
{
    if (level != CE_Failure && level != CE_Fatal) return;
    auto* self = static_cast<GdalErrorCapture*>(CPLGetErrorHandlerUserData());
    if (!self) return;
    self->failed_ = true;
    // First line only: some drivers append where in their source it happened.
    std::string text = msg ? msg : "";
    text = text.substr(0, text.find('\n'));
    while (!text.empty() && (text.back() == ' ' || text.back() == '.')) text.pop_back();
    self->message_ = text;
}

namespace {

std::string ReplaceAll(std::string s, const std::string& from, const std::string& to)
{
    if (from.empty()) return s;
    for (std::size_t p = s.find(from); p != std::string::npos; p = s.find(from, p + to.size()))
        s.replace(p, from.size(), to);
    return s;
}

}  // namespace

void WriteThroughTemp(GDALDriver* driver, const std::string& named,
                      const std::function<GdalDatasetPtr(const std::string&)>& build)
{
    const std::string target = FollowOutputLink(named);
    const fs::path targetPath(target);
    const fs::path dir = OutputFolder(target);
    // A private folder beside the target: same file system for the rename,
    // the target's own name for drivers that look at it, and every side file
    // the driver writes (.aux.xml, .prj, .hdr, a journal) inside it.
    const std::string folder = MakeTemporaryFolder(target);
    const std::string temp = (fs::path(folder) / targetPath.filename()).string();

    auto fail = [folder, temp, named](const std::string& why) {
        RemoveTemporaryFolder(folder);
        std::string text = ReplaceAll(why, temp, named);
        if (text.rfind(named + ": ", 0) == 0) text.erase(0, named.size() + 2);  // named once is enough
        throw KaIoError(named, text);
    };

    GdalErrorCapture capture;
    std::vector<std::string> files;
    try {
        GdalDatasetPtr ds = build(temp);
        Checkpoint("write: dataset made");
        if (!ds || capture.Failed()) fail(capture.Message("the driver could not create the file"));
        ds.reset();  // closing writes the remaining blocks
        Checkpoint("write: dataset closed");
        if (capture.Failed()) fail(capture.Message("writing the file failed"));

        const char* allowed[] = {driver->GetDescription(), nullptr};
        GdalDatasetPtr check(GDALDataset::Open(temp.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY,
                                               allowed));
        if (!check) fail(capture.Message("the written file cannot be read back"));
        char** list = check->GetFileList();
        for (char** f = list; f && *f; ++f) files.emplace_back(*f);
        CSLDestroy(list);
        Checkpoint("write: read back");
    } catch (const KaIoError& e) {
        if (e.file() == named) {
            RemoveTemporaryFolder(folder);
            throw;
        }
        fail(e.what());
    } catch (const std::exception& e) {
        fail(e.what());
    }
    if (files.empty()) files.push_back(temp);

    std::vector<std::pair<std::string, std::string>> moves;
    for (const std::string& f : files) {
        const fs::path from(f);
        if (from.parent_path() != fs::path(folder)) continue;  // only what this write made
        moves.emplace_back(f, (dir / from.filename()).string());
    }
    // The main file last: a reader never sees it beside side files of the old one.
    std::stable_partition(moves.begin(), moves.end(), [&](const auto& m) { return m.first != temp; });
    auto commit = [folder, moves, target, named] {
        OutputLock lock;
        MoveIntoPlace(folder, moves, named);
        // A side file left by an older version of the target would override what was just written.
        bool ownAux = false;
        for (const auto& m : moves) ownAux = ownAux || m.second == target + ".aux.xml";
        std::error_code ec;
        if (!ownAux) fs::remove(target + ".aux.xml", ec);
    };
    CommitOrDefer(commit, [folder] { RemoveTemporaryFolder(folder); });
}

}  // namespace kaio
