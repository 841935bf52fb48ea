#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <random>

#include "io/KaIoError.h"
#include "io/KaIoSupport.h"
#include "io/KaRasterIo.h"

namespace fs = std::filesystem;

void KaIoInit()
{
    static std::once_flag once;
    std::call_once(once, [] {
        GDALAllRegister();
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

// Removes every file whose name starts with the temporary's unique prefix:
// the temporary itself and whatever side files the driver made for it.
void RemoveTemporaries(const fs::path& dir, const std::string& prefix)
{
    std::error_code ec;
    std::vector<fs::path> doomed;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
        if (it->path().filename().string().rfind(prefix, 0) == 0) doomed.push_back(it->path());
    for (const fs::path& p : doomed) fs::remove(p, ec);
}

}  // namespace

void WriteThroughTemp(GDALDriver* driver, const std::string& target,
                      const std::function<GdalDatasetPtr(const std::string&)>& build)
{
    const fs::path targetPath(target);
    const fs::path dir = targetPath.has_parent_path() ? targetPath.parent_path() : fs::path(".");
    const std::string ext = targetPath.extension().string();

    // Reserve a unique hidden name next to the target: same directory so the
    // final rename cannot cross file systems, same extension for drivers that
    // look at it.
    thread_local std::mt19937_64 rng(std::random_device{}());
    std::string prefix, temp;
    for (int attempt = 0;; ++attempt) {
        char token[48];
        std::snprintf(token, sizeof token, ".tmp%ld-%08llx", static_cast<long>(getpid()),
                      static_cast<unsigned long long>(rng() & 0xffffffffu));
        prefix = '.';
        prefix += targetPath.filename().string();
        prefix += token;
        temp = (dir / (prefix + ext)).string();
        // Held signals: an interrupt between creating the file and guarding it would leave it behind.
        sigset_t held, previous;
        sigemptyset(&held);
        sigaddset(&held, SIGINT);
        sigaddset(&held, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &held, &previous);
        const int fd = open(temp.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0644);
        const int openErrno = errno;
        if (fd >= 0) {
            close(fd);
            GuardTemporary(temp);
            GuardTemporary(temp + ".aux.xml");
        }
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        errno = openErrno;
        if (fd >= 0) break;
        if (errno != EEXIST || attempt > 50)
            throw KaIoError(target, std::string("cannot create a file in '") + dir.string() +
                                        "': " + std::strerror(errno));
    }

    auto fail = [dir, prefix, temp, target](const std::string& why) {
        RemoveTemporaries(dir, prefix);
        ForgetTemporary(temp);
        ForgetTemporary(temp + ".aux.xml");
        std::string text = ReplaceAll(why, temp, target);
        if (text.rfind(target + ": ", 0) == 0) text.erase(0, target.size() + 2);  // named once is enough
        throw KaIoError(target, text);
    };

    GdalErrorCapture capture;
    std::vector<std::string> files;
    try {
        GdalDatasetPtr ds = build(temp);
        if (!ds || capture.Failed()) fail(capture.Message("the driver could not create the file"));
        ds.reset();  // closing writes the remaining blocks
        if (capture.Failed()) fail(capture.Message("writing the file failed"));

        const char* allowed[] = {driver->GetDescription(), nullptr};
        GdalDatasetPtr check(GDALDataset::Open(temp.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY,
                                               allowed));
        if (!check) fail(capture.Message("the written file cannot be read back"));
        char** list = check->GetFileList();
        for (char** f = list; f && *f; ++f) files.emplace_back(*f);
        CSLDestroy(list);
    } catch (const KaIoError&) {
        RemoveTemporaries(dir, prefix);
        ForgetTemporary(temp);
        ForgetTemporary(temp + ".aux.xml");
        throw;
    } catch (const std::exception& e) {
        fail(e.what());
    }

    for (const std::string& f : files) GuardTemporary(f);
    auto forget = [temp, files] {
        ForgetTemporary(temp);
        ForgetTemporary(temp + ".aux.xml");
        for (const std::string& f : files) ForgetTemporary(f);
    };
    auto commit = [driver, target, temp, dir, prefix, files, forget, fail] {
        // Checked again: the path may have changed since the run began.
        std::error_code ec;
        const fs::file_status st = fs::status(target, ec);
        if (fs::exists(st) && !fs::is_regular_file(st)) fail("exists and is not a regular file; not replaced");
        GdalErrorCapture capture;
        if (files.size() <= 1) {
            if (std::rename(temp.c_str(), target.c_str()) != 0)
                fail(std::string("cannot replace the file: ") + std::strerror(errno));
            // A side file left by an older version of the target would override
            // what was just written.
            fs::remove(target + ".aux.xml", ec);
        } else if (driver->Rename(target.c_str(), temp.c_str()) != CE_None) {
            fail(capture.Message("cannot rename the temporary files"));
        }
        forget();
    };
    auto discard = [dir, prefix, forget] {
        RemoveTemporaries(dir, prefix);
        forget();
    };
    CommitOrDefer(commit, discard);
}

}  // namespace kaio
