#pragma once

#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

class KaEstimatorGridParam;
struct KaFieldRange;

// A parameter that cannot be applied: the message names the key.
class KaParamError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Parses parameters as JSON, refusing what the records never hold and what
// would only cost stack or hide a mistake: nesting deeper than
// kKaMaxJsonDepth ("nested too deeply") and an object with the same key twice.
// `origin` names the source in messages (a file, or "--set key"). Throws
// KaParamError.
inline constexpr int kKaMaxJsonDepth = 32;
nlohmann::json ParseParamJson(const std::string& text, const std::string& origin);
// The same for a file, refusing folders and unreadable files by name.
nlohmann::json ReadParamFile(const std::string& path);

// The record's settable fields as a JSON object, in field order.
nlohmann::ordered_json RecordToJson(KaEstimatorGridParam& record);

// Applies every member of a JSON object by key. Unknown keys and values of the
// wrong type throw KaParamError naming the key (and `origin`, e.g. the file).
// The keys applied are added to `applied` when given.
void ApplyJson(KaEstimatorGridParam& record, const nlohmann::json& object, const std::string& origin,
               std::set<std::string>* applied = nullptr);

// Applies one "key=value" setting; the value is read by the field's type
// (numbers, true/false, text, a display name or index for choices, JSON for
// the variogram and the anisotropy).
void ApplySetting(KaEstimatorGridParam& record, const std::string& setting,
                  std::set<std::string>* applied = nullptr);

// One line per field for `kagrid methods`: key, type, default, range and meaning.
struct KaFieldDescription {
    std::string key, type, defaultValue, help;
    std::vector<std::string> choices;     // the display names of a choice field; empty otherwise
    std::vector<std::string> choiceHelp;  // what each choice means, where the field says
    std::string range;                    // "1 to 360", "at least 0", ...; empty when unbounded
    bool carriedOnly = false;             // kept in the record, not used by the estimate
};
// A declared range as `kagrid methods` shows it; empty when unbounded.
std::string RangeText(const KaFieldRange& range, bool wholeNumbers);
std::vector<KaFieldDescription> DescribeFields(KaEstimatorGridParam& record);

// The record's own Validate(), then what a run refuses besides: a value
// outside its field's declared range (e.g. more than 360 sectors, which the
// dialogs never give and whose per-node sector lists would only exhaust
// memory and time; a search setting out of range also without useSearch) and
// a choice index that names no choice. Empty when the record may run;
// otherwise "field: reason".
std::string ValidateForRun(const KaEstimatorGridParam& record);
