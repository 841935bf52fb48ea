#include "apps/vesk/KaVeskApp.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

#include "apps/vesk/KaVeskWindow.h"
#include "platform/kadata/KaEventsLog.h"
#include "platform/kamessageroute/KaThread.h"
#include "platform/veskui/KaPluginMgr.h"

KaVeskOptions ParseVeskArguments(const QStringList& arguments)
{
    KaVeskOptions o;
    for (int i = 1; i < arguments.size(); ++i) {
        const QString& a = arguments[i];
        if (a == QLatin1String("--plugin")) {
            if (i + 1 >= arguments.size()) {
                o.error = QStringLiteral("--plugin needs a path (a plug-in library or a folder of them)");
                return o;
            }
            o.plugins << arguments[++i];
        } else if (a.startsWith(QLatin1String("--plugin="))) {
            o.plugins << a.mid(9);
        } else if (a.startsWith(QLatin1String("--")) && a != QLatin1String("--")) {
            o.error = QStringLiteral("unknown option %1 (usage: vesk [--plugin PATH]... [FILE]...)").arg(a);
            return o;
        } else if (a != QLatin1String("--")) {
            o.files << a;
        }
    }
    return o;
}

QString BundledSamplePoints()
{
    const QString appDir = QCoreApplication::applicationDirPath();
    for (const QString& p : {appDir + QStringLiteral("/data/sample_points.csv"),
                             appDir + QStringLiteral("/../data/sample_points.csv"),
                             QStringLiteral(KA_SOURCE_DIR "/data/sample_points.csv")})
        if (QFileInfo(p).isFile()) return QFileInfo(p).canonicalFilePath();
    return {};
}

void StartVeskSession(KaVeskWindow& window, const KaVeskOptions& options)
{
    KaPluginMgr& plugins = KaPluginMgr::Instance();
    const int before = static_cast<int>(plugins.Entries().size());
    for (const QString& p : KaPluginMgr::SearchPaths(QCoreApplication::applicationDirPath(), options.plugins))
        plugins.LoadPath(p);
    for (int i = before; i < plugins.Entries().size(); ++i) {
        const KaPluginEntry& e = plugins.Entries()[i];
        if (e.loaded)
            OutputEventsLog(1, QStringLiteral("Loaded plug-in %1 %2 from %3")
                                   .arg(e.name, QString::number(e.version, 'f', 1), e.path)
                                   .toStdString());
        else
            OutputEventsLog(3, QStringLiteral("Cannot load %1: %2").arg(e.path, e.error).toStdString());
    }
    if (plugins.Entries().size() == before)
        OutputEventsLog(2, "No plug-ins found: gridding needs one (--plugin PATH or VESK_PLUGIN_PATH)");

    QStringList files = options.files;
    if (files.isEmpty() && !BundledSamplePoints().isEmpty()) files << BundledSamplePoints();
    for (const QString& f : files) window.OpenFile(f);
}

void EndVeskSession()
{
    QCoreApplication::sendPostedEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    KaThreadMgr::Instance().ReclaimIdle();
}
