#pragma once

#include <QDateTime>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>

class KaPluginObject;
class QPluginLoader;

// One library the host tried to load as a plug-in.
struct KaPluginEntry {
    QString path;
    bool loaded = false;
    QString error;  // Qt's reason when the library did not load
    QString name;
    double version = 0.0;
    QDateTime buildDate;
    QPointer<KaPluginObject> object;
};

// Loads plug-ins through Qt's plug-in loader and keeps them loaded for the
// life of the process (their classes and menu agencies stay registered).
class KaPluginMgr : public QObject {
    Q_OBJECT
public:
    static KaPluginMgr& Instance();

    // Loads one library; a file already loaded is not loaded again. The entry
    // records the failure when the library does not load, is not a plug-in of
    // this host or does not initialise.
    const KaPluginEntry& Load(const QString& path);
    // Loads every shared library directly in `folder`; returns how many loaded.
    int LoadFolder(const QString& folder);
    // A path given by the user: a folder is searched, a file loaded.
    void LoadPath(const QString& path);

    const QList<KaPluginEntry>& Entries() const { return entries_; }

    // The folders and files to look in: the "plugins" folder beside the
    // executable, every PATH of `--plugin PATH` and the
    // entries of the list in the environment variable `envVariable`
    // (separated like PATH).
    static QStringList SearchPaths(const QString& appDir, const QStringList& given,
                                   const char* envVariable = "VESK_PLUGIN_PATH");

signals:
    void sigPluginLoaded(const KaPluginEntry& entry);

private:
    QList<KaPluginEntry> entries_;
    QList<QPluginLoader*> loaders_;
};
