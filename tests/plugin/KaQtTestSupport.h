#pragma once

// Helpers shared by the Qt test suites: an offscreen application, waiting
// with the event loop running, answering modal boxes, and saving pictures.

#include <gtest/gtest.h>

#include <QApplication>
#include <QDialog>
#include <QDir>
#include <QElapsedTimer>
#include <QImage>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>
#include <QWidget>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "platform/kadata/KaEventsLog.h"

namespace katest {

// Runs the event loop until `done`; true when done. The limit only stops a
// hang (ctest's own is longer): no test decides by how fast the machine is.
inline bool WaitFor(const std::function<bool()>& done, int timeoutMs = 600000)
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

// Saves an image into the same directory.
inline QString SavePicture(const QImage& image, const QString& name)
{
    QDir dir(QStringLiteral(KA_BINARY_DIR "/dialogs"));
    dir.mkpath(".");
    const QString path = dir.filePath(name + ".png");
    EXPECT_TRUE(image.save(path)) << path.toStdString();
    return path;
}

// The child of `parent` named `name`, failing the test when there is none.
template <typename T>
T* FindChild(const QObject* parent, const char* name)
{
    T* child = parent->findChild<T*>(QString::fromLatin1(name));
    EXPECT_TRUE(child) << "no child " << name;
    return child;
}

// Whether a pixel within `radius` of `at` has nearly `colour` (antialiasing
// blends the edges of a line, not its middle).
inline bool ColourNear(const QImage& image, QPoint at, QColor colour, int radius = 2)
{
    for (int y = at.y() - radius; y <= at.y() + radius; ++y)
        for (int x = at.x() - radius; x <= at.x() + radius; ++x) {
            if (!image.valid(x, y)) continue;
            const QColor c = image.pixelColor(x, y);
            if (std::abs(c.red() - colour.red()) + std::abs(c.green() - colour.green()) +
                    std::abs(c.blue() - colour.blue()) < 40)
                return true;
        }
    return false;
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
    // The texts of the type-3 lines.
    std::vector<std::string> Type3() const
    {
        std::vector<std::string> texts;
        for (const auto& [type, text] : lines)
            if (type == 3) texts.push_back(text);
        return texts;
    }

private:
    KaEventsLogSink previous_;
};

}  // namespace katest
