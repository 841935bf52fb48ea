#pragma once

#include <cstdint>
#include <string>

#include "platform/kamessageroute/KaRuntimeClass.h"

// Base of every host object: a unique id, a display name and a runtime class.
class KaObject {
public:
    virtual ~KaObject() = default;

    static int64_t CreateUniqueID();
    static const KaRuntimeClass* GetThisClass();
    virtual const KaRuntimeClass* GetRuntimeClass() const { return GetThisClass(); }
    bool IsKindOf(const KaRuntimeClass* c) const { return GetRuntimeClass()->IsDerivedFrom(c); }

    void SetID(int64_t id) { id_ = id; }
    int64_t GetID() const { return id_; }
    void SetName(const std::string& name) { name_ = name; }
    const std::string& GetName() const { return name_; }

private:
    int64_t id_ = 0;
    std::string name_;
};
