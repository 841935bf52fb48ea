#include "platform/veskui/KaPluginMgr.h"

#include <QDir>
#include <QFileInfo>
#include <QLibrary>
#include <QPluginLoader>

#include "platform/veskui/KaPluginObject.h"

KaPluginMgr& KaPluginMgr::Instance()
{
    static KaPluginMgr mgr;
    return mgr;
}

const KaPluginEntry& KaPluginMgr::Load(const QString& path)
{
    const QString canonical = QFileInfo(path).canonicalFilePath();
    for (const KaPluginEntry& e : entries_)
        if (e.path == canonical && !canonical.isEmpty()) return e;

    KaPluginEntry entry;
    entry.path = canonical.isEmpty() ? path : canonical;
    auto* loader = new QPluginLoader(entry.path, this);
    QObject* root = loader->instance();
    auto* plugin = qobject_cast<KaPluginObject*>(root);
    if (!root) {
        entry.error = loader->errorString();
    } else if (!plugin) {
        entry.error = tr("not a plug-in of this application (its root object is a %1)")
                          .arg(QString::fromLatin1(root->metaObject()->className()));
    } else if (!plugin->Initialize()) {
        entry.error = tr("the plug-in did not initialise");
    } else {
        entry.loaded = true;
        entry.object = plugin;
        entry.name = QString::fromStdString(plugin->GetName());
        entry.version = plugin->GetVersion();
        entry.buildDate = plugin->GetBuildDate();
    }
    if (entry.loaded) {
        loaders_.append(loader);  // never unloaded: its classes stay registered
    } else {
        if (root && !plugin) loader->unload();
        delete loader;
    }
    entries_.append(entry);
    emit sigPluginLoaded(entries_.last());
    return entries_.last();
}

int KaPluginMgr::LoadFolder(const QString& folder)
{
    int count = 0;
    const QFileInfoList files = QDir(folder).entryInfoList(QDir::Files | QDir::Readable, QDir::Name);
    for (const QFileInfo& f : files)
        if (QLibrary::isLibrary(f.fileName())) count += Load(f.filePath()).loaded ? 1 : 0;
    return count;
}

void KaPluginMgr::LoadPath(const QString& path)
{
    if (QFileInfo(path).isDir())
        LoadFolder(path);
    else
        Load(path);
}

QStringList KaPluginMgr::SearchPaths(const QString& appDir, const QStringList& given, const char* envVariable)
{
    QStringList paths;
    const QString beside = appDir + QStringLiteral("/plugins");
    if (QFileInfo(beside).isDir()) paths << beside;
    paths << given;
    const QString env = qEnvironmentVariable(envVariable);
    for (const QString& p : env.split(QDir::listSeparator(), Qt::SkipEmptyParts)) paths << p;
    return paths;
}
