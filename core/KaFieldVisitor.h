#pragma once

#include <cstdint>
#include <span>
#include <string>

class KaAnisotropy;
class KaVarioVector;

// Walks the user-settable fields of a parameter record, in declaration order,
// base fields first. One description serves the command line (--set, --params,
// --print-params, `kagrid methods`) and anything else that needs the fields by
// name, so no field list is written twice.
class KaFieldVisitor {
public:
    virtual ~KaFieldVisitor() = default;

    virtual void Field(const char* key, double& value, const char* help) = 0;
    virtual void Field(const char* key, int32_t& value, const char* help) = 0;
    virtual void Field(const char* key, int64_t& value, const char* help) = 0;
    virtual void Field(const char* key, uint32_t& value, const char* help) = 0;
    virtual void Field(const char* key, uint64_t& value, const char* help) = 0;
    virtual void Field(const char* key, bool& value, const char* help) = 0;
    virtual void Field(const char* key, std::string& value, const char* help) = 0;
    // An index into a list of display names; set by index or by name.
    virtual void Choice(const char* key, int32_t& value, std::span<const char* const> names,
                        const char* help) = 0;
    virtual void Field(const char* key, KaAnisotropy& value, const char* help) = 0;
    // The record owns the vector; a visitor that replaces it deletes the old one.
    virtual void Field(const char* key, KaVarioVector*& value, const char* help) = 0;
};
