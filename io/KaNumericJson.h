#pragma once

#include <memory>
#include <string>

#include <nlohmann/json.hpp>

class KaAnisotropy;
class KaVarioVector;

// JSON forms of the variogram model and of an anisotropy, for the command line.
//
// Variogram: {"scale": s, "components": [{"model": ..., "sill": ..., "range": ...,
//   "power": ..., "angle1": ..., "angle2": ..., "angle3": ..., "ratio1": ...,
//   "ratio2": ...}, ...]}. "model" is an identifier 0..11 or a display name
// ("Spherical", "Wave(Hole Effect)", case ignored). Missing component fields take
// the defaults of a new component, a missing scale 1.0.
// Anisotropy: {"angle1", "angle2", "angle3", "ratio1", "ratio2"}; missing fields
// keep the target's current values.
//
// Bad input throws std::invalid_argument whose message starts with the path of
// the offending field, e.g. "variogram.components[1].model: unknown model
// 'Sphercal'". `where` is the path prefix (the record field's key).

// A JSON value as a message may quote it: invalid UTF-8 replaced, cut short.
std::string EchoJson(const nlohmann::json& j);

nlohmann::json VariogramToJson(const KaVarioVector& model);
std::unique_ptr<KaVarioVector> VariogramFromJson(const nlohmann::json& j,
                                                 const std::string& where = "variogram");

nlohmann::json AnisotropyToJson(const KaAnisotropy& anisotropy);
void AnisotropyFromJson(const nlohmann::json& j, KaAnisotropy& anisotropy,
                        const std::string& where = "anisotropy");
