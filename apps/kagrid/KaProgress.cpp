#include "apps/kagrid/KaProgress.h"

#include <unistd.h>

#include <cstdio>

#include "io/KaIoSupport.h"

KaProgress::KaProgress(bool quiet) : quiet_(quiet), tty_(isatty(STDERR_FILENO) != 0) {}

void KaProgress::Message(const std::string& text)
{
    stage_ = text;
    kaio::Checkpoint("estimate: stage");
    if (quiet_ || !tty_) return;
    Draw(0, "");
}

void KaProgress::Progress(const KaJobProgress& progress)
{
    Show(progress.percent, KaProgressText(progress), progress.id == KaProgressId::EstimatedRows);
}

void KaProgress::Percent(int percent, const std::string& text) { Show(percent, text, false); }

void KaProgress::Show(int percent, const std::string& text, bool rowCount)
{
    kaio::Checkpoint("estimate: progress");
    if (!text.empty() && !rowCount) stage_ = text;
    if (quiet_) return;
    if (tty_) {
        Draw(percent, rowCount ? text : "");
    } else if (percent / 10 != lastPlain_ / 10 || lastPlain_ < 0) {
        lastPlain_ = percent;
        std::fprintf(stderr, "kagrid: %3d%% %s\n", percent, text.empty() ? stage_.c_str() : text.c_str());
    }
}

void KaProgress::CreatedObject(std::unique_ptr<KaDataObject> object) { created_.push_back(std::move(object)); }

void KaProgress::Draw(int percent, const std::string& rowText)
{
    constexpr int width = 30;
    const int filled = percent * width / 100;
    std::string bar(filled, '#');
    bar.append(width - filled, '.');
    std::fprintf(stderr, "\r\033[K%-26s [%s] %3d%% %s", stage_.c_str(), bar.c_str(), percent, rowText.c_str());
    std::fflush(stderr);
    open_ = true;
}

void KaProgress::Finish()
{
    if (open_) {
        Draw(100, "");
        std::fputc('\n', stderr);
        open_ = false;
    }
}
