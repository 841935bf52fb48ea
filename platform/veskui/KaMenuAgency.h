#pragma once

#include <QObject>
#include <QString>
#include <vector>

#include "platform/kamessageroute/KaObject.h"

class KaDataObject;
class QMenu;
class QWidget;

// A node of the host's object tree: it shows one data object (not owned).
class KaEmbeddedNode {
public:
    explicit KaEmbeddedNode(KaDataObject* object = nullptr) : object_(object) {}
    virtual ~KaEmbeddedNode() = default;
    KaDataObject* GetDataObject() const { return object_; }
    void SetDataObject(KaDataObject* object) { object_ = object; }

private:
    KaDataObject* object_;
};

// Adds entries to the context menu of the data objects it is bound to
// (KA_ObjToMenu_ClassInit). The host creates one through its runtime class
// when it builds such a menu, and keeps it while the menu's actions can fire.
class KaMenuAgencyBase : public QObject, public KaObject {
    Q_OBJECT
    KA_DECLARE_RUNTIME_CLASS(KaMenuAgencyBase)
public:
    explicit KaMenuAgencyBase(QObject* parent = nullptr) : QObject(parent) {}

    virtual void BuildMenu(KaEmbeddedNode* node, QMenu* parent) = 0;
};

// Binds a menu agency class to a data object class for as long as it lives
// (a static object of the library that defines the agency).
class KA_ObjToMenu_ClassInit {
public:
    KA_ObjToMenu_ClassInit(const KaRuntimeClass* objectClass, const KaRuntimeClass* agencyClass);
    ~KA_ObjToMenu_ClassInit();
    KA_ObjToMenu_ClassInit(const KA_ObjToMenu_ClassInit&) = delete;
    KA_ObjToMenu_ClassInit& operator=(const KA_ObjToMenu_ClassInit&) = delete;

    // The agency classes bound to exactly this object class, in binding order.
    static std::vector<const KaRuntimeClass*> AgenciesFor(const KaRuntimeClass* objectClass);

private:
    const KaRuntimeClass* object_;
    const KaRuntimeClass* agency_;
};

// What a host does for a context menu on `node`: creates every agency bound to
// the class of its data object and lets each build into `menu`. The caller
// owns the agencies and keeps them while the menu lives.
std::vector<KaMenuAgencyBase*> BuildObjectMenu(KaEmbeddedNode* node, QMenu* menu);

// The host's main window, the parent of the plug-ins' dialogs (null when none).
QWidget* GetMainWindow();
void SetMainWindow(QWidget* window);
