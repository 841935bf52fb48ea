#pragma once

// Helpers of the suites that drive the plug-in's pages and dialogs.

#include <gtest/gtest.h>

#include <QDir>
#include <QImage>
#include <QWidget>
#include <string>
#include <vector>

#include "platform/kadata/KaEventsLog.h"

namespace katest {

// The child of `parent` named `name`, failing the test when there is none.
template <typename T>
T* Child(const QObject* parent, const char* name)
{
    T* child = parent->findChild<T*>(QString::fromLatin1(name));
    EXPECT_TRUE(child) << "no child " << name;
    return child;
}

// Writes `image` as <build>/pictures/<name>.png for a person to look at.
inline void SavePicture(const QImage& image, const std::string& name)
{
    QDir().mkpath(KA_PICTURE_DIR);
    const QString path = QString(KA_PICTURE_DIR "/%1.png").arg(QString::fromStdString(name));
    EXPECT_TRUE(image.save(path)) << path.toStdString();
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

// The event log's type-3 lines while the object lives.
struct LogCapture {
    std::vector<std::string> lines;
    KaEventsLogSink previous;
    LogCapture()
    {
        previous = SetEventsLogSink([this](int type, const std::string& m) {
            if (type == 3) lines.push_back(m);
        });
    }
    ~LogCapture() { SetEventsLogSink(previous); }
};

}  // namespace katest
