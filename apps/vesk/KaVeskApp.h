#pragma once

#include <QString>
#include <QStringList>

class KaVeskWindow;

// What the command line asks for.
struct KaVeskOptions {
    QStringList files;
    QStringList plugins;  // --plugin PATH, repeatable
    QString error;        // a usage error, empty when the line is fine
};
KaVeskOptions ParseVeskArguments(const QStringList& arguments);

// Loads the plug-ins (beside the executable, given, from VESK_PLUGIN_PATH),
// logging each, and opens the files, or the bundled sample when none is given.
void StartVeskSession(KaVeskWindow& window, const KaVeskOptions& options);

// Deletes the worker threads left behind (finished, or never started) and
// delivers what is still queued; call before the application object goes.
void EndVeskSession();

// The bundled sample points, or empty when they are not found.
QString BundledSamplePoints();
