#include "platform/kamessageroute/KaRuntimeClass.h"

#include <algorithm>
#include <mutex>

namespace {

std::mutex& Mutex()
{
    static std::mutex m;
    return m;
}

std::vector<const KaRuntimeClass*>& Records()
{
    static std::vector<const KaRuntimeClass*> records;
    return records;
}

}  // namespace

bool KaRuntimeClass::IsDerivedFrom(const KaRuntimeClass* base) const
{
    for (const KaRuntimeClass* c = this; c; c = c->baseClass)
        if (c == base) return true;
    return false;
}

const KaRuntimeClass* KaRuntimeClass::FromName(std::string_view name)
{
    std::lock_guard<std::mutex> lock(Mutex());
    // The latest registration of a name wins.
    const auto& r = Records();
    for (auto it = r.rbegin(); it != r.rend(); ++it)
        if (name == (*it)->className) return *it;
    return nullptr;
}

std::vector<const KaRuntimeClass*> KaRuntimeClass::Registered()
{
    std::lock_guard<std::mutex> lock(Mutex());
    return Records();
}

KaClassRegistration::KaClassRegistration(const KaRuntimeClass* record) : record_(record)
{
    std::lock_guard<std::mutex> lock(Mutex());
    Records().push_back(record);
}

KaClassRegistration::~KaClassRegistration()
{
    std::lock_guard<std::mutex> lock(Mutex());
    auto& r = Records();
    auto it = std::find(r.rbegin(), r.rend(), record_);
    if (it != r.rend()) r.erase(std::next(it).base());
}
