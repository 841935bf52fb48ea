// Fuzz target: parameters applied to every method's record. An input that
// starts with '{' is a parameter file; otherwise each line is a --set KEY=VALUE.

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "io/KaParamJson.h"
#include "core/KaEstimatorGridParam.h"
#include "methods/KaMethodRegistry.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    nlohmann::json object;
    const bool file = !text.empty() && text[0] == '{';
    if (file) {
        try {
            object = ParseParamJson(text, "fuzz.json");
        } catch (const KaParamError&) {
            return 0;
        }
    }
    for (const KaMethodInfo& m : KaMethods()) {
        std::unique_ptr<KaEstimatorGridParam> record = m.makeParam();
        try {
            if (file) {
                ApplyJson(*record, object, "fuzz.json");
            } else {
                std::istringstream lines(text);
                for (std::string line; std::getline(lines, line);) ApplySetting(*record, line);
            }
        } catch (const KaParamError&) {
            continue;
        }
        ValidateForRun(*record);
        // What --print-params shows must read back.
        const std::string shown = RecordToJson(*record).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
        std::unique_ptr<KaEstimatorGridParam> back = m.makeParam();
        ApplyJson(*back, ParseParamJson(shown, "shown"), "shown");
    }
    return 0;
}
