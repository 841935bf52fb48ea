#pragma once

#include <string_view>
#include <vector>

class KaObject;

// A host runtime-class record: the class's name, object size, a creation
// function (null for abstract classes) and its base. Records register
// themselves by name while a KaClassRegistration for them is alive, so a
// plug-in's classes disappear from the look-up when it is unloaded.
struct KaRuntimeClass {
    const char* className;
    int objectSize;
    KaObject* (*createObject)();
    const KaRuntimeClass* baseClass;

    // A new object of the class, or null for a class without a creation function.
    KaObject* CreateObject() const { return createObject ? createObject() : nullptr; }
    // True for the class itself and every class it derives from.
    bool IsDerivedFrom(const KaRuntimeClass* base) const;

    // The registered class of that name, or null.
    static const KaRuntimeClass* FromName(std::string_view name);
    static std::vector<const KaRuntimeClass*> Registered();
};

// Registers a record for as long as it lives (a static object in the library
// that defines the class).
class KaClassRegistration {
public:
    explicit KaClassRegistration(const KaRuntimeClass* record);
    ~KaClassRegistration();
    KaClassRegistration(const KaClassRegistration&) = delete;
    KaClassRegistration& operator=(const KaClassRegistration&) = delete;

private:
    const KaRuntimeClass* record_;
};

// Declares the runtime-class operations of a class derived from KaObject.
#define KA_DECLARE_RUNTIME_CLASS(cls)                                   \
public:                                                                 \
    static const KaRuntimeClass* GetThisClass();                        \
    const KaRuntimeClass* GetRuntimeClass() const override { return GetThisClass(); }

// Defines them: `create` is a creation function or nullptr.
#define KA_IMPLEMENT_RUNTIME_CLASS(cls, base, create)                                \
    const KaRuntimeClass* cls::GetThisClass()                                         \
    {                                                                                 \
        static const KaRuntimeClass record{#cls, static_cast<int>(sizeof(cls)), create, \
                                           base::GetThisClass()};                     \
        return &record;                                                               \
    }
