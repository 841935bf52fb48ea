#pragma once

// Helpers shared by the Qt test suites: an offscreen application, waiting
// with the event loop running, answering modal boxes, and saving pictures.

#include <gtest/gtest.h>

#include <QApplication>
#include <QDialog>
#include <QDir>
#include <QElapsedTimer>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>
#include <QWidget>
#include <functional>
#include <string>
#include <vector>

#include "platform/kadata/KaEventsLog.h"

namespace katest {

// Runs the event loop until `done` or the timeout; true when done.
inline bool WaitFor(const std::function<bool()>& done, int timeoutMs = 30000)
{
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeoutMs) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return true;
}

// What the next modal message box showed; it is answered with its first button.
struct BoxSeen {
    bool shown = false;
    QString title, text;
    QStringList buttons;
};

inline void AnswerNextBox(BoxSeen* seen)
{
    QTimer::singleShot(0, [seen] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (!box) {
            AnswerNextBox(seen);  // not up yet
            return;
        }
        seen->shown = true;
        seen->title = box->windowTitle();
        seen->text = box->text();
        for (QAbstractButton* b : box->buttons()) seen->buttons << b->text();
        box->buttons().front()->click();
    });
}

// Saves a picture of the widget into the build folder's "dialogs" directory.
inline QString SavePicture(QWidget* w, const QString& name)
{
    QDir dir(QStringLiteral(KA_BINARY_DIR "/dialogs"));
    dir.mkpath(".");
    const QString path = dir.filePath(name + ".png");
    w->grab().save(path);
    return path;
}

// Collects the event log while alive.
class LogCapture {
public:
    LogCapture()
    {
        previous_ = SetEventsLogSink([this](int type, const std::string& text) {
            lines.emplace_back(type, text);
        });
    }
    ~LogCapture() { SetEventsLogSink(previous_); }
    std::vector<std::pair<int, std::string>> lines;

private:
    KaEventsLogSink previous_;
};

}  // namespace katest
