#include "tune/KaVariogramInput.h"

#include <cmath>
#include <sstream>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "io/KaIoSupport.h"
#include "io/KaNumericJson.h"
#include "methods/numeric/KaVario.h"

std::vector<uint32_t> KaVariogramModels(const std::string& names, const std::string& origin)
{
    std::vector<uint32_t> out;
    std::stringstream in(names);
    std::string name;
    while (std::getline(in, name, '+')) {
        nlohmann::json j = {{"components", {{{"model", name}}}}};
        try {
            out.push_back((*VariogramFromJson(j, origin))[0].modelType);
        } catch (const std::invalid_argument&) {
            throw std::invalid_argument(origin + ": unknown model '" + kaio::Echo(name) + "'");
        }
    }
    if (out.empty()) throw std::invalid_argument(origin + ": no model given");
    return out;
}

std::vector<Ka3DPoint> KaVariogramPoints(const KaSampleList& samples, double invalid)
{
    std::vector<Ka3DPoint> points;
    for (const KaSample& s : samples)
        if (!(std::fabs(s.point.z - invalid) <= 1e-20)) points.push_back(s.point);
    return points;
}
