#include "io/KaNumericJson.h"

#include <cctype>
#include <cmath>
#include <initializer_list>
#include <stdexcept>

#include "io/KaIoSupport.h"
#include "methods/numeric/KaVario.h"
#include "search/KaAnisotropy.h"

using nlohmann::json;

std::string EchoJson(const json& j)
{
    return kaio::Echo(j.dump(-1, ' ', false, json::error_handler_t::replace), 40);
}

namespace {

const char* const kAnisotropyKeys[] = {"angle1", "angle2", "angle3", "ratio1", "ratio2"};

[[noreturn]] void Fail(const std::string& where, const std::string& reason)
{
    throw std::invalid_argument(where + ": " + reason);
}

void RequireObject(const json& j, const std::string& where)
{
    if (!j.is_object()) Fail(where, "expected a JSON object, got " + EchoJson(j));
}

// Typos must not pass silently as defaults.
void RejectUnknownKeys(const json& j, const std::string& where, std::initializer_list<const char*> known)
{
    for (auto it = j.begin(); it != j.end(); ++it) {
        bool ok = false;
        for (const char* k : known) ok = ok || it.key() == k;
        if (!ok) Fail(where + "." + kaio::Echo(it.key()), "unknown field");
    }
}

// The number at j[key], or `fallback` when the key is missing.
double Number(const json& j, const char* key, double fallback, const std::string& where)
{
    const auto it = j.find(key);
    if (it == j.end()) return fallback;
    if (!it->is_number()) Fail(where + "." + key, "expected a number, got " + EchoJson(*it));
    const double v = it->get<double>();
    if (!std::isfinite(v)) Fail(where + "." + key, "expected a finite number");
    return v;
}

bool SameName(const std::string& a, const std::string& b)
{
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

uint32_t Model(const json& j, const std::string& where)
{
    if (j.is_number_integer()) {
        const int64_t id = j.get<int64_t>();
        if (id < 0 || id >= static_cast<int64_t>(kKaVarioModelCount))
            Fail(where, "model id " + EchoJson(j) + " is not in 0..11");
        return static_cast<uint32_t>(id);
    }
    if (j.is_string()) {
        const std::string name = j.get<std::string>();
        for (uint32_t id = 0; id < kKaVarioModelCount; ++id)
            if (SameName(name, KaVario::ModelName(id))) return id;
        std::string valid;
        for (uint32_t id = 0; id < kKaVarioModelCount; ++id)
            valid += std::string(valid.empty() ? "" : ", ") + KaVario::ModelName(id);
        Fail(where, "unknown model '" + kaio::Echo(name) + "' (one of " + valid + ")");
    }
    Fail(where, "expected a model id 0..11 or a model name, got " + EchoJson(j));
}

}  // namespace

json VariogramToJson(const KaVarioVector& model)
{
    json components = json::array();
    for (std::size_t i = 0; i < model.size(); ++i) {
        const KaVario& c = model[i];
        const KaAnisotropy& a = c.anisotropy;
        json m;
        // By name where there is one, so the output reads well and reads back.
        if (c.modelType < kKaVarioModelCount) m = KaVario::ModelName(c.modelType);
        else m = c.modelType;
        components.push_back({{"model", m},
                              {"sill", c.sill},
                              {"range", c.range},
                              {"power", c.power},
                              {"angle1", a.Angle1()},
                              {"angle2", a.Angle2()},
                              {"angle3", a.Angle3()},
                              {"ratio1", a.Ratio1()},
                              {"ratio2", a.Ratio2()}});
    }
    return {{"scale", model.scale}, {"components", components}};
}

std::unique_ptr<KaVarioVector> VariogramFromJson(const json& j, const std::string& where)
{
    RequireObject(j, where);
    RejectUnknownKeys(j, where, {"scale", "components"});
    auto model = std::make_unique<KaVarioVector>();
    model->scale = Number(j, "scale", 1.0, where);

    const auto list = j.find("components");
    if (list == j.end()) Fail(where + ".components", "missing");
    if (!list->is_array()) Fail(where + ".components", "expected an array, got " + EchoJson(*list));
    for (std::size_t i = 0; i < list->size(); ++i) {
        const json& cj = (*list)[i];
        const std::string at = where + ".components[" + std::to_string(i) + "]";
        RequireObject(cj, at);
        RejectUnknownKeys(cj, at, {"model", "sill", "range", "power", "angle1", "angle2", "angle3",
                                   "ratio1", "ratio2"});
        auto c = std::make_unique<KaVario>();
        const auto m = cj.find("model");
        const uint32_t id = m == cj.end() ? c->modelType : Model(*m, at + ".model");
        double an[5] = {0, 0, 0, 1, 1};
        for (int k = 0; k < 5; ++k) an[k] = Number(cj, kAnisotropyKeys[k], an[k], at);
        c->Set(id, Number(cj, "sill", c->sill, at), Number(cj, "range", c->range, at), an[0], an[1],
               an[2], an[3], an[4]);
        c->power = Number(cj, "power", c->power, at);
        model->Add(std::move(c));
    }
    return model;
}

json AnisotropyToJson(const KaAnisotropy& a)
{
    return {{"angle1", a.Angle1()}, {"angle2", a.Angle2()}, {"angle3", a.Angle3()},
            {"ratio1", a.Ratio1()}, {"ratio2", a.Ratio2()}};
}

void AnisotropyFromJson(const json& j, KaAnisotropy& a, const std::string& where)
{
    RequireObject(j, where);
    RejectUnknownKeys(j, where, {"angle1", "angle2", "angle3", "ratio1", "ratio2"});
    const double v[5] = {Number(j, "angle1", a.Angle1(), where), Number(j, "angle2", a.Angle2(), where),
                         Number(j, "angle3", a.Angle3(), where), Number(j, "ratio1", a.Ratio1(), where),
                         Number(j, "ratio2", a.Ratio2(), where)};
    a.SetAnisotropy(v[0], v[1], v[2], v[3], v[4]);
}
