#include "platform/kamessageroute/KaThread.h"

KaThread::KaThread(QObject* parent) : QThread(parent)
{
    connect(this, &KaThread::sigUpdateThread, this, [this] { KaThreadMgr::Instance().Updated(this); });
}

KaThread::~KaThread()
{
    KaThreadMgr::Instance().Remove(this);
    wait();
}

KaThreadMgr& KaThreadMgr::Instance()
{
    static KaThreadMgr mgr;
    return mgr;
}

QList<KaThread*> KaThreadMgr::Threads() const { return threads_; }

int KaThreadMgr::ReclaimIdle()
{
    int count = 0;
    for (KaThread* t : QList<KaThread*>(threads_)) {
        if (t->isRunning() || t->parent()) continue;
        delete t;  // leaves the list in its destructor
        ++count;
    }
    return count;
}

void KaThreadMgr::Updated(KaThread* thread)
{
    if (!threads_.contains(thread)) {
        threads_.append(thread);
        connect(thread, &QThread::finished, thread, &QObject::deleteLater);
        emit sigThreadAdded(thread);
    }
    emit sigThreadUpdated(thread);
}

void KaThreadMgr::Remove(KaThread* thread) { threads_.removeAll(thread); }
