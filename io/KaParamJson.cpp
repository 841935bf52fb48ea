#include "io/KaParamJson.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <type_traits>
#include <unordered_set>
#include <vector>

#include "io/KaIoSupport.h"
#include "io/KaNumericJson.h"
#include "core/KaEstimatorGridParam.h"
#include "core/KaFieldVisitor.h"
#include "methods/numeric/KaVario.h"
#include "search/KaAnisotropy.h"

using nlohmann::json;
using nlohmann::ordered_json;

namespace {

// Strict UTF-8: no overlong forms, surrogates or code points past U+10FFFF.
bool IsUtf8(const std::string& s)
{
    std::size_t i = 0;
    const std::size_t n = s.size();
    while (i < n) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        int more;
        unsigned lo = 0x80, hi = 0xBF;
        if (c < 0x80) more = 0;
        else if (c >= 0xC2 && c <= 0xDF) more = 1;
        else if (c >= 0xE0 && c <= 0xEF) {
            more = 2;
            if (c == 0xE0) lo = 0xA0;
            if (c == 0xED) hi = 0x9F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            more = 3;
            if (c == 0xF0) lo = 0x90;
            if (c == 0xF4) hi = 0x8F;
        } else return false;
        if (n - i - 1 < static_cast<std::size_t>(more)) return false;
        for (int k = 1; k <= more; ++k) {
            const unsigned char d = static_cast<unsigned char>(s[i + k]);
            if (d < (k == 1 ? lo : 0x80) || d > (k == 1 ? hi : 0xBF)) return false;
        }
        i += static_cast<std::size_t>(more) + 1;
    }
    return true;
}

// Raised inside the parser's callback to stop the parse at once.
struct JsonRefusal {
    std::string reason;
};

template <typename T>
const char* TypeName()
{
    if constexpr (std::is_same_v<T, double>) return "number";
    else if constexpr (std::is_same_v<T, bool>) return "true/false";
    else if constexpr (std::is_same_v<T, std::string>) return "text";
    else if constexpr (std::is_unsigned_v<T>) return "whole number >= 0";
    else return "whole number";
}

// A bound as a user types it: whole numbers without a fraction.
std::string Bound(double v, bool whole)
{
    char buf[40];
    if (whole || (v == std::trunc(v) && std::fabs(v) < 1e15)) std::snprintf(buf, sizeof buf, "%.0f", v);
    else std::snprintf(buf, sizeof buf, "%.10g", v);
    return buf;
}

}  // namespace

std::string RangeText(const KaFieldRange& r, bool whole)
{
    if (!r.Bounded()) return {};
    if (r.HasMin() && r.HasMax() && !r.minOpen && !r.maxOpen) return Bound(r.min, whole) + " to " + Bound(r.max, whole);
    std::string text;
    if (r.HasMin()) text = (r.minOpen ? "above " : "at least ") + Bound(r.min, whole);
    if (r.HasMax()) text += (text.empty() ? "" : ", ") + std::string(r.maxOpen ? "below " : "at most ") + Bound(r.max, whole);
    return text;
}

namespace {

// Record -> JSON.
class ToJson : public KaFieldVisitor {
public:
    ordered_json out = ordered_json::object();

    void Field(const char* k, double& v, const KaFieldInfo&) override { out[k] = v; }
    void Field(const char* k, int32_t& v, const KaFieldInfo&) override { out[k] = v; }
    void Field(const char* k, int64_t& v, const KaFieldInfo&) override { out[k] = v; }
    void Field(const char* k, uint32_t& v, const KaFieldInfo&) override { out[k] = v; }
    void Field(const char* k, uint64_t& v, const KaFieldInfo&) override { out[k] = v; }
    void Field(const char* k, bool& v, const KaFieldInfo&) override { out[k] = v; }
    void Field(const char* k, std::string& v, const KaFieldInfo&) override { out[k] = v; }
    void Choice(const char* k, int32_t& v, std::span<const char* const> names, const KaFieldInfo&) override
    {
        if (v >= 0 && static_cast<std::size_t>(v) < names.size()) out[k] = names[v];
        else out[k] = v;
    }
    void Field(const char* k, KaAnisotropy& v, const KaFieldInfo&) override
    {
        out[k] = ordered_json::parse(AnisotropyToJson(v).dump());
    }
    void Field(const char* k, KaVarioVector*& v, const KaFieldInfo&) override
    {
        out[k] = v ? ordered_json::parse(VariogramToJson(*v).dump()) : ordered_json();
    }
};

// Sets the one field whose key matches, from a JSON value.
class FromJson : public KaFieldVisitor {
public:
    FromJson(const std::string& key, const json& value, const std::string& origin)
        : key_(key), value_(value), origin_(origin) {}
    bool found = false;

    void Field(const char* k, double& v, const KaFieldInfo&) override
    {
        if (!Match(k)) return;
        if (!value_.is_number()) Fail("a number");
        const double d = value_.get<double>();
        if (!std::isfinite(d)) throw KaParamError(Where() + "expected a finite number");
        v = d;
    }
    void Field(const char* k, int32_t& v, const KaFieldInfo&) override { Integer(k, v); }
    void Field(const char* k, int64_t& v, const KaFieldInfo&) override { Integer(k, v); }
    void Field(const char* k, uint32_t& v, const KaFieldInfo&) override { Integer(k, v); }
    void Field(const char* k, uint64_t& v, const KaFieldInfo&) override { Integer(k, v); }
    void Field(const char* k, bool& v, const KaFieldInfo&) override
    {
        if (!Match(k)) return;
        if (value_.is_boolean()) v = value_.get<bool>();
        else if (value_.is_number_integer() && (value_ == 0 || value_ == 1)) v = value_.get<int>() != 0;
        else Fail("true or false");
    }
    void Field(const char* k, std::string& v, const KaFieldInfo&) override
    {
        if (!Match(k)) return;
        if (!value_.is_string()) Fail("text");
        if (!IsUtf8(value_.get_ref<const std::string&>())) throw KaParamError(Where() + "not valid UTF-8 text");
        v = value_.get<std::string>();
    }
    void Choice(const char* k, int32_t& v, std::span<const char* const> names, const KaFieldInfo&) override
    {
        if (!Match(k)) return;
        if (value_.is_number_integer()) {
            v = Checked<int32_t>(value_);
            return;
        }
        if (!value_.is_string()) Fail("a name or an index");
        const std::string s = value_.get<std::string>();
        for (std::size_t i = 0; i < names.size(); ++i)
            if (Same(s, names[i])) {
                v = static_cast<int32_t>(i);
                return;
            }
        std::string list;
        for (const char* n : names) list += std::string(list.empty() ? "" : ", ") + "\"" + n + "\"";
        throw KaParamError(Where() + "unknown name \"" + kaio::Echo(s) + "\" (one of " + list + ")");
    }
    void Field(const char* k, KaAnisotropy& v, const KaFieldInfo&) override
    {
        if (!Match(k)) return;
        Nested([&] { AnisotropyFromJson(value_, v, key_); });
    }
    void Field(const char* k, KaVarioVector*& v, const KaFieldInfo&) override
    {
        if (!Match(k)) return;
        Nested([&] {
            auto model = VariogramFromJson(value_, key_);
            delete v;
            v = model.release();
        });
    }

private:
    bool Match(const char* k)
    {
        if (found || key_ != k) return false;
        found = true;
        return true;
    }
    std::string Where() const { return (origin_.empty() ? "" : origin_ + ": ") + key_ + ": "; }
    [[noreturn]] void Fail(const char* expected) const
    {
        throw KaParamError(Where() + "expected " + expected + ", got " + EchoJson(value_));
    }
    static bool Same(const std::string& a, const char* b)
    {
        std::string s(b);
        if (a.size() != s.size()) return false;
        for (std::size_t i = 0; i < a.size(); ++i)
            if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(s[i])))
                return false;
        return true;
    }
    template <typename T>
    T Checked(const json& j) const
    {
        if (j.is_number_unsigned()) {
            const auto u = j.get<uint64_t>();
            if (u <= static_cast<uint64_t>(std::numeric_limits<T>::max())) return static_cast<T>(u);
        } else if (j.is_number_integer()) {
            const auto s = j.get<int64_t>();
            if (std::is_signed_v<T> ? s >= static_cast<int64_t>(std::numeric_limits<T>::min()) &&
                                          s <= static_cast<int64_t>(std::numeric_limits<T>::max())
                                    : s >= 0 && static_cast<uint64_t>(s) <= std::numeric_limits<T>::max())
                return static_cast<T>(s);
        } else {
            Fail(TypeName<T>());
        }
        throw KaParamError(Where() + EchoJson(j) + " is out of range");
    }
    template <typename T>
    void Integer(const char* k, T& v)
    {
        if (!Match(k)) return;
        const T n = Checked<T>(value_);
        // A raster side is an int; the grid's counts go no further.
        if ((key_ == "columnCount" || key_ == "rowCount") && static_cast<uint64_t>(n) > INT_MAX)
            throw KaParamError(Where() + std::to_string(n) + " is more than a grid can hold (at most " +
                               std::to_string(INT_MAX) + ")");
        v = n;
    }
    template <typename F>
    void Nested(F f)
    {
        try {
            f();
        } catch (const std::exception& e) {
            throw KaParamError((origin_.empty() ? "" : origin_ + ": ") + e.what());
        }
    }

    std::string key_;
    const json& value_;
    std::string origin_;
};

// Reads the text of a --set value as the JSON value the field expects.
class TextToJson : public KaFieldVisitor {
public:
    TextToJson(const std::string& key, const std::string& text) : key_(key), text_(text) {}
    bool found = false;
    json value;

    void Field(const char* k, double& v, const KaFieldInfo&) override { Number(k, v); }
    void Field(const char* k, int32_t& v, const KaFieldInfo&) override { Number(k, v); }
    void Field(const char* k, int64_t& v, const KaFieldInfo&) override { Number(k, v); }
    void Field(const char* k, uint32_t& v, const KaFieldInfo&) override { Number(k, v); }
    void Field(const char* k, uint64_t& v, const KaFieldInfo&) override { Number(k, v); }
    void Field(const char* k, bool&, const KaFieldInfo&) override
    {
        if (!Match(k)) return;
        if (text_ == "true" || text_ == "1" || text_ == "yes" || text_ == "on") value = true;
        else if (text_ == "false" || text_ == "0" || text_ == "no" || text_ == "off") value = false;
        else Fail("true or false");
    }
    void Field(const char* k, std::string&, const KaFieldInfo&) override
    {
        if (Match(k)) value = text_;
    }
    void Choice(const char* k, int32_t&, std::span<const char* const>, const KaFieldInfo&) override
    {
        if (!Match(k)) return;
        char* end = nullptr;
        errno = 0;
        const long long i = std::strtoll(text_.c_str(), &end, 10);
        if (!text_.empty() && *end == '\0' && errno == 0) value = i;
        else value = text_;
    }
    void Field(const char* k, KaAnisotropy&, const KaFieldInfo&) override { Json(k); }
    void Field(const char* k, KaVarioVector*&, const KaFieldInfo&) override { Json(k); }

private:
    bool Match(const char* k)
    {
        if (found || key_ != k) return false;
        found = true;
        return true;
    }
    [[noreturn]] void Fail(const char* expected) const
    {
        throw KaParamError(kaio::Echo(key_) + ": expected " + expected + ", got \"" + kaio::Echo(text_) + "\"");
    }
    template <typename T>
    void Number(const char* k, T&)
    {
        if (!Match(k)) return;
        char* end = nullptr;
        errno = 0;
        if constexpr (std::is_floating_point_v<T>) {
            const double d = std::strtod(text_.c_str(), &end);
            if (text_.empty() || *end != '\0') Fail("a number");
            value = d;
        } else {
            if (text_.empty()) Fail(TypeName<T>());
            if (text_[0] == '-') {
                const long long i = std::strtoll(text_.c_str(), &end, 10);
                if (*end != '\0' || errno) Fail(TypeName<T>());
                value = i;
            } else {
                const unsigned long long u = std::strtoull(text_.c_str(), &end, 10);
                if (*end != '\0' || errno) Fail(TypeName<T>());
                value = u;
            }
        }
    }
    void Json(const char* k)
    {
        if (!Match(k)) return;
        try {
            value = ParseParamJson(text_, key_);
        } catch (const KaParamError& e) {
            throw KaParamError(key_ + ": expected a JSON object; " + std::string(e.what()).substr(key_.size() + 2));
        }
    }

    std::string key_, text_;
};

class Describe : public KaFieldVisitor {
public:
    std::vector<KaFieldDescription> rows;

    template <typename T>
    void Add(const char* k, const T& v, const KaFieldInfo& info)
    {
        Push(Row(k, TypeName<T>(), json(v).dump(), info.help), info, std::is_integral_v<T>);
    }
    void Field(const char* k, double& v, const KaFieldInfo& h) override { Add(k, v, h); }
    void Field(const char* k, int32_t& v, const KaFieldInfo& h) override { Add(k, v, h); }
    void Field(const char* k, int64_t& v, const KaFieldInfo& h) override { Add(k, v, h); }
    void Field(const char* k, uint32_t& v, const KaFieldInfo& h) override { Add(k, v, h); }
    void Field(const char* k, uint64_t& v, const KaFieldInfo& h) override { Add(k, v, h); }
    void Field(const char* k, bool& v, const KaFieldInfo& h) override { Add(k, v, h); }
    void Field(const char* k, std::string& v, const KaFieldInfo& h) override { Add(k, v, h); }
    void Choice(const char* k, int32_t& v, std::span<const char* const> names, const KaFieldInfo& h) override
    {
        std::string list;
        for (const char* n : names) list += std::string(list.empty() ? "" : "|") + n;
        const std::string def = v >= 0 && static_cast<std::size_t>(v) < names.size() ? names[v] : std::to_string(v);
        KaFieldDescription d = Row(k, "name or index: " + list, "\"" + def + "\"", h.help);
        d.choices.assign(names.begin(), names.end());
        d.choiceHelp.assign(h.choiceHelp.begin(), h.choiceHelp.end());
        Push(std::move(d), h, true);
    }
    void Field(const char* k, KaAnisotropy& v, const KaFieldInfo& h) override
    {
        Push(Row(k, "JSON object", AnisotropyToJson(v).dump(), h.help), h, false);
    }
    void Field(const char* k, KaVarioVector*& v, const KaFieldInfo& h) override
    {
        Push(Row(k, "JSON object", v ? VariogramToJson(*v).dump() : "null", h.help), h, false);
    }

private:
    static KaFieldDescription Row(const char* key, std::string type, std::string def, const char* help)
    {
        KaFieldDescription d;
        d.key = key;
        d.type = std::move(type);
        d.defaultValue = std::move(def);
        d.help = help;
        return d;
    }
    void Push(KaFieldDescription d, const KaFieldInfo& info, bool whole)
    {
        d.range = RangeText(info.range, whole);
        d.carriedOnly = info.carriedOnly;
        rows.push_back(std::move(d));
    }
};

// Refuses the first number outside its field's declared range, and a choice
// index that names no choice.
class CheckRanges : public KaFieldVisitor {
public:
    std::string failure;

    void Field(const char* k, double& v, const KaFieldInfo& i) override { Check(k, v, i, Text(v)); }
    void Field(const char* k, int32_t& v, const KaFieldInfo& i) override { Check(k, v, i, std::to_string(v)); }
    void Field(const char* k, int64_t& v, const KaFieldInfo& i) override { Check(k, v, i, std::to_string(v)); }
    void Field(const char* k, uint32_t& v, const KaFieldInfo& i) override { Check(k, v, i, std::to_string(v)); }
    void Field(const char* k, uint64_t& v, const KaFieldInfo& i) override { Check(k, v, i, std::to_string(v)); }
    void Field(const char*, bool&, const KaFieldInfo&) override {}
    void Field(const char*, std::string&, const KaFieldInfo&) override {}
    void Choice(const char* k, int32_t& v, std::span<const char* const> names, const KaFieldInfo&) override
    {
        if (failure.empty() && (v < 0 || static_cast<std::size_t>(v) >= names.size()))
            failure = std::string(k) + ": must be a name or an index from 0 to " + std::to_string(names.size() - 1) +
                      ", not " + std::to_string(v);
    }
    void Field(const char*, KaAnisotropy&, const KaFieldInfo&) override {}
    void Field(const char*, KaVarioVector*&, const KaFieldInfo&) override {}

private:
    static std::string Text(double v) { return std::isfinite(v) ? json(v).dump() : std::to_string(v); }
    template <typename T>
    void Check(const char* k, T v, const KaFieldInfo& info, const std::string& text)
    {
        const KaFieldRange& r = info.range;
        if (!failure.empty() || r.Contains(static_cast<double>(v))) return;
        const bool whole = std::is_integral_v<T>;
        const bool low = r.HasMin() && !(r.minOpen ? static_cast<double>(v) > r.min : static_cast<double>(v) >= r.min);
        std::string must;
        if (low) must = (r.minOpen ? "above " : "at least ") + Bound(r.min, whole);
        else must = (r.maxOpen ? "below " : "at most ") + Bound(r.max, whole) +
                    (info.rangeWhy ? std::string(" (") + info.rangeWhy + ")" : "");
        failure = std::string(k) + ": must be " + must + ", not " + text;
    }
};

}  // namespace

json ParseParamJson(const std::string& text, const std::string& origin)
{
    // Keys seen so far in each open object or array (arrays keep an empty set).
    std::vector<std::unordered_set<std::string>> open;
    auto check = [&](int, json::parse_event_t event, json& parsed) {
        switch (event) {
        case json::parse_event_t::object_start:
        case json::parse_event_t::array_start:
            if (open.size() >= static_cast<std::size_t>(kKaMaxJsonDepth))
                throw JsonRefusal{"nested too deeply (more than " + std::to_string(kKaMaxJsonDepth) + " levels)"};
            open.emplace_back();
            break;
        case json::parse_event_t::object_end:
        case json::parse_event_t::array_end:
            if (!open.empty()) open.pop_back();
            break;
        case json::parse_event_t::key:
            if (!open.empty() && !open.back().insert(parsed.get<std::string>()).second)
                throw JsonRefusal{"the key \"" + kaio::Echo(parsed.get<std::string>()) + "\" appears twice"};
            break;
        default:
            break;
        }
        return true;
    };
    try {
        return json::parse(text, check);
    } catch (const JsonRefusal& r) {
        throw KaParamError(origin + ": " + r.reason);
    } catch (const json::parse_error& e) {
        throw KaParamError(origin + ": not valid JSON (at byte " + std::to_string(e.byte) + ")");
    } catch (const json::out_of_range&) {
        throw KaParamError(origin + ": holds a number too large for a double");
    } catch (const json::exception&) {
        throw KaParamError(origin + ": not valid JSON");
    }
}

json ReadParamFile(const std::string& path)
{
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) throw KaParamError(path + ": is a folder, not a parameter file");
    const auto status = std::filesystem::status(path, ec);
    if (std::filesystem::is_character_file(status) || std::filesystem::is_block_file(status))
        throw KaParamError(path + ": is a device, not a parameter file");
    std::ifstream in(path, std::ios::binary);
    if (!in) throw KaParamError(path + ": cannot open the parameter file: " + std::strerror(errno));
    // A pipe may feed it (--params <(...)), so no size up front: read at most 16 MiB.
    constexpr std::size_t kMaxParamBytes = std::size_t(16) << 20;
    std::string text;
    char chunk[65536];
    while (in.read(chunk, sizeof chunk) || in.gcount() > 0) {
        text.append(chunk, static_cast<std::size_t>(in.gcount()));
        if (text.size() > kMaxParamBytes) throw KaParamError(path + ": larger than 16 MiB; not a parameter file");
    }
    if (in.bad()) throw KaParamError(path + ": cannot read the parameter file");
    return ParseParamJson(text, path);
}

ordered_json RecordToJson(KaEstimatorGridParam& record)
{
    ToJson v;
    record.VisitFields(v);
    return v.out;
}

void ApplyJson(KaEstimatorGridParam& record, const json& object, const std::string& origin,
               std::set<std::string>* applied)
{
    if (!object.is_object())
        throw KaParamError((origin.empty() ? "" : origin + ": ") + "expected a JSON object of parameters");
    for (const auto& [key, value] : object.items()) {
        FromJson v(key, value, origin);
        record.VisitFields(v);
        if (!v.found)
            throw KaParamError((origin.empty() ? "" : origin + ": ") + kaio::Echo(key) +
                               ": unknown parameter for this method (see 'kagrid methods')");
        if (applied) applied->insert(key);
    }
}

void ApplySetting(KaEstimatorGridParam& record, const std::string& setting, std::set<std::string>* applied)
{
    const auto eq = setting.find('=');
    if (eq == std::string::npos || eq == 0)
        throw KaParamError("--set " + kaio::Echo(setting) + ": expected key=value");
    const std::string key = setting.substr(0, eq), text = setting.substr(eq + 1);
    TextToJson t(key, text);
    record.VisitFields(t);
    if (!t.found)
        throw KaParamError(kaio::Echo(key) + ": unknown parameter for this method (see 'kagrid methods')");
    ApplyJson(record, json{{key, t.value}}, "", applied);
}

std::vector<KaFieldDescription> DescribeFields(KaEstimatorGridParam& record)
{
    Describe d;
    record.VisitFields(d);
    return d.rows;
}

std::string ValidateForRun(const KaEstimatorGridParam& record)
{
    std::string invalid = record.Validate();
    if (!invalid.empty()) return invalid;
    // Every declared range, also where the record's own checks skip a field
    // (the search settings without useSearch: the search uses them all the same).
    CheckRanges check;
    const_cast<KaEstimatorGridParam&>(record).VisitFields(check);  // the visit only reads
    return check.failure;
}
