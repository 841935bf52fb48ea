#pragma once

#include <cstdint>
#include <limits>
#include <span>
#include <string>

class KaAnisotropy;
class KaEstimatorGridParam;
class KaVarioVector;

// The values a number field may take: a lower and an upper bound, each
// inclusive unless marked open; unbounded by default.
struct KaFieldRange {
    double min = -std::numeric_limits<double>::infinity();
    double max = std::numeric_limits<double>::infinity();
    bool minOpen = false;  // the minimum itself lies outside
    bool maxOpen = false;  // the maximum itself lies outside

    bool HasMin() const { return min > -std::numeric_limits<double>::infinity(); }
    bool HasMax() const { return max < std::numeric_limits<double>::infinity(); }
    bool Bounded() const { return HasMin() || HasMax(); }
    // False for a value below (or at an open) minimum or above (or at an open)
    // maximum; NaN lies in no bounded range.
    bool Contains(double v) const
    {
        if (HasMin() && !(minOpen ? v > min : v >= min)) return false;
        if (HasMax() && !(maxOpen ? v < max : v <= max)) return false;
        return true;
    }
};

// What a record says about one of its fields besides its key and value: the
// meaning, the range (kagrid refuses a value outside it, naming the key; the
// records' own Validate() keeps its own checks), the narrower range the
// dialogs offer where they stop short of it, and whether the estimate uses
// the field at all. Built fluently where the field is visited:
//   v.Field("sectorCount", sectorCount,
//           KaField("number of sectors to search").Between(1, 360, "sectors of one degree").Dialog(1, 32));
struct KaFieldInfo {
    const char* help = "";
    KaFieldRange range;
    KaFieldRange dialog;         // the pages' limits; the range unless set
    const char* rangeWhy = nullptr;  // why the range stops where it does, for kagrid's message
    bool carriedOnly = false;    // stored, shown and copied, never read by the estimate
    std::span<const char* const> choiceHelp;  // a choice field: the meaning of each name, index for index

    KaFieldInfo() = default;
    KaFieldInfo(const char* h) : help(h) {}  // NOLINT: a plain text is a field with no range

    KaFieldInfo& AtLeast(double v) { return Set(range.min, v, range.minOpen, false, dialog.min, dialog.minOpen); }
    KaFieldInfo& Above(double v) { return Set(range.min, v, range.minOpen, true, dialog.min, dialog.minOpen); }
    KaFieldInfo& AtMost(double v) { return Set(range.max, v, range.maxOpen, false, dialog.max, dialog.maxOpen); }
    KaFieldInfo& Between(double lo, double hi, const char* why = nullptr)
    {
        rangeWhy = why;
        return AtLeast(lo).AtMost(hi);
    }
    // The dialogs' limits where narrower than the range (inclusive).
    KaFieldInfo& Dialog(double lo, double hi)
    {
        dialog = {lo, hi, false, false};
        return *this;
    }
    KaFieldInfo& Carried()
    {
        carriedOnly = true;
        return *this;
    }
    KaFieldInfo& Choices(std::span<const char* const> meanings)
    {
        choiceHelp = meanings;
        return *this;
    }

private:
    KaFieldInfo& Set(double& bound, double v, bool& open, bool isOpen, double& dialogBound, bool& dialogOpen)
    {
        bound = dialogBound = v;
        open = dialogOpen = isOpen;
        return *this;
    }
};

// Shorthand for declaring a field where it is visited.
inline KaFieldInfo KaField(const char* help) { return KaFieldInfo(help); }

// Walks the user-settable fields of a parameter record, in declaration order,
// base fields first. One description serves the command line (--set, --params,
// --print-params, `kagrid methods`, kagrid's range checks), the pages' limits
// and anything else that needs the fields by name, so no field list is
// written twice.
class KaFieldVisitor {
public:
    virtual ~KaFieldVisitor() = default;

    virtual void Field(const char* key, double& value, const KaFieldInfo& info) = 0;
    virtual void Field(const char* key, int32_t& value, const KaFieldInfo& info) = 0;
    virtual void Field(const char* key, int64_t& value, const KaFieldInfo& info) = 0;
    virtual void Field(const char* key, uint32_t& value, const KaFieldInfo& info) = 0;
    virtual void Field(const char* key, uint64_t& value, const KaFieldInfo& info) = 0;
    virtual void Field(const char* key, bool& value, const KaFieldInfo& info) = 0;
    virtual void Field(const char* key, std::string& value, const KaFieldInfo& info) = 0;
    // An index into a list of display names; set by index or by name.
    virtual void Choice(const char* key, int32_t& value, std::span<const char* const> names,
                        const KaFieldInfo& info) = 0;
    virtual void Field(const char* key, KaAnisotropy& value, const KaFieldInfo& info) = 0;
    // The record owns the vector; a visitor that replaces it deletes the old one.
    virtual void Field(const char* key, KaVarioVector*& value, const KaFieldInfo& info) = 0;
};

// The declaration of the record's field `key`; a default (no range) for a key
// the record does not have.
KaFieldInfo KaFindFieldInfo(const KaEstimatorGridParam& record, const char* key);
