#include "platform/veskui/KaPopupWidgetMgr.h"

KaPopupWidgetMgr& KaPopupWidgetMgr::Instance()
{
    static KaPopupWidgetMgr mgr;
    return mgr;
}

void KaPopupWidgetMgr::Add(QWidget* widget)
{
    if (!widget) return;
    widgets_.removeAll(nullptr);
    widgets_.append(widget);
    emit sigWidgetAdded(widget);
}

QList<QWidget*> KaPopupWidgetMgr::Widgets() const
{
    QList<QWidget*> out;
    for (const QPointer<QWidget>& w : widgets_)
        if (w) out.append(w.data());
    return out;
}
