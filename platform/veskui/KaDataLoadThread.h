#pragma once

#include <QMetaType>

#include "platform/kamessageroute/KaObject.h"
#include "platform/kamessageroute/KaThread.h"

// A worker thread that creates data objects for the host: each one is handed
// over with sigCreatedObject, and the receiver owns it from then on.
class KaDataLoadThread : public KaThread {
    Q_OBJECT
public:
    explicit KaDataLoadThread(QObject* parent = nullptr) : KaThread(parent) {}

signals:
    void sigCreatedObject(KaObject* object);
};

Q_DECLARE_METATYPE(KaObject*)
