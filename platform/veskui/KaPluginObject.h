#pragma once

#include <QDateTime>
#include <QObject>

#include "platform/kamessageroute/KaObject.h"

// The root object of a plug-in library, which the host asks who it is.
class KaPluginObject : public QObject, public KaObject {
    Q_OBJECT
public:
    explicit KaPluginObject(QObject* parent = nullptr) : QObject(parent) {}

    virtual bool Initialize() = 0;
    virtual QDateTime GetBuildDate() = 0;
    virtual double GetVersion() = 0;
    virtual void Release() = 0;
};

// The interface id a plug-in root object is loaded under.
#define KaPluginObject_iid "ka.vesk.KaPluginObject/1.0"
