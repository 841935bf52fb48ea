#pragma once

#include <QList>
#include <QObject>
#include <QPointer>
#include <QWidget>

// The host's record of the modeless windows (dialogs) plug-ins have opened, so
// that a host can find, raise or close them. Entries vanish when the widget is
// destroyed.
class KaPopupWidgetMgr : public QObject {
    Q_OBJECT
public:
    static KaPopupWidgetMgr& Instance();

    void Add(QWidget* widget);
    QList<QWidget*> Widgets() const;

signals:
    void sigWidgetAdded(QWidget* widget);

private:
    QList<QPointer<QWidget>> widgets_;
};
