#pragma once

#include <cstdint>
#include <string>

// Base of every host object: a unique id and a display name.
class KaObject {
public:
    virtual ~KaObject() = default;

    static int64_t CreateUniqueID();

    void SetID(int64_t id) { id_ = id; }
    int64_t GetID() const { return id_; }
    void SetName(const std::string& name) { name_ = name; }
    const std::string& GetName() const { return name_; }

private:
    int64_t id_ = 0;
    std::string name_;
};
