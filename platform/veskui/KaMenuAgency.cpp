#include "platform/veskui/KaMenuAgency.h"

#include <QPointer>
#include <QWidget>
#include <algorithm>
#include <mutex>
#include <utility>

#include "platform/kadata/KaDataObject.h"

KA_IMPLEMENT_RUNTIME_CLASS(KaMenuAgencyBase, KaObject, nullptr)

namespace {

std::mutex g_mutex;
std::vector<std::pair<const KaRuntimeClass*, const KaRuntimeClass*>>& Bindings()
{
    static std::vector<std::pair<const KaRuntimeClass*, const KaRuntimeClass*>> bindings;
    return bindings;
}

QPointer<QWidget>& MainWindow()
{
    static QPointer<QWidget> window;
    return window;
}

}  // namespace

KA_ObjToMenu_ClassInit::KA_ObjToMenu_ClassInit(const KaRuntimeClass* objectClass,
                                               const KaRuntimeClass* agencyClass)
    : object_(objectClass), agency_(agencyClass)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    Bindings().emplace_back(objectClass, agencyClass);
}

KA_ObjToMenu_ClassInit::~KA_ObjToMenu_ClassInit()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    auto& b = Bindings();
    auto it = std::find(b.begin(), b.end(), std::make_pair(object_, agency_));
    if (it != b.end()) b.erase(it);
}

std::vector<const KaRuntimeClass*> KA_ObjToMenu_ClassInit::AgenciesFor(const KaRuntimeClass* objectClass)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    std::vector<const KaRuntimeClass*> out;
    for (const auto& [object, agency] : Bindings())
        if (object == objectClass) out.push_back(agency);
    return out;
}

std::vector<KaMenuAgencyBase*> BuildObjectMenu(KaEmbeddedNode* node, QMenu* menu)
{
    std::vector<KaMenuAgencyBase*> agencies;
    if (!node || !node->GetDataObject()) return agencies;
    for (const KaRuntimeClass* c : KA_ObjToMenu_ClassInit::AgenciesFor(node->GetDataObject()->GetRuntimeClass())) {
        if (!c->IsDerivedFrom(KaMenuAgencyBase::GetThisClass())) continue;
        KaObject* object = c->CreateObject();
        auto* agency = dynamic_cast<KaMenuAgencyBase*>(object);
        if (!agency) {
            delete object;
            continue;
        }
        agency->BuildMenu(node, menu);
        agencies.push_back(agency);
    }
    return agencies;
}

QWidget* GetMainWindow() { return MainWindow().data(); }
void SetMainWindow(QWidget* window) { MainWindow() = window; }
