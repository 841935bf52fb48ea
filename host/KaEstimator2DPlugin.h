#pragma once

#include "platform/veskui/KaPluginObject.h"

// The plug-in's root object. Qt's generated qt_plugin_instance() keeps the
// single instance in a guarded pointer and creates a new one after it has
// been destroyed.
class KaEstimator2DPlugin : public KaPluginObject {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID KaPluginObject_iid FILE "KaEstimator2DPlugin.json")
public:
    explicit KaEstimator2DPlugin(QObject* parent = nullptr);

    bool Initialize() override { return true; }
    // Deliberately the time of the call, not a stored date.
    QDateTime GetBuildDate() override { return QDateTime::currentDateTime(); }
    double GetVersion() override { return 1.0; }
    void Release() override {}
};
