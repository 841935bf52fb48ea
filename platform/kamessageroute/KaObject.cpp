#include "platform/kamessageroute/KaObject.h"

#include <atomic>

int64_t KaObject::CreateUniqueID()
{
    static std::atomic<int64_t> next{1};
    return next.fetch_add(1);
}

const KaRuntimeClass* KaObject::GetThisClass()
{
    static const KaRuntimeClass record{"KaObject", static_cast<int>(sizeof(KaObject)), nullptr, nullptr};
    return &record;
}
