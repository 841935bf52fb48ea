#pragma once

#include <map>
#include <string>
#include <vector>

#include "apps/kagrid/KaOptions.h"
#include "io/KaPointReader.h"
#include "methods/KaMethodRegistry.h"

// kagrid's commands besides gridding: cross-validate, variogram, tune and predict.
bool IsSubcommand(const char* word);
// argv[0] is the command's name. Returns the exit status (0, 1 failure, 2 usage).
int RunSubcommand(int argc, char** argv);

// The options a command was given (parsed from kagrid's option table): the
// shared ones by meaning, every one by name.
struct KaSubOptions {
    std::vector<std::string> positional;
    std::vector<std::string> settings;
    std::string paramsFile;
    KaPointColumns columns;
    bool given[3] = {false, false, false};  // x, y, z columns named on the command line
    bool quiet = false;
    bool pluginDefaults = false;  // --plugin-defaults
    std::map<std::string, std::string> values;  // "--report" -> "out.json"

    std::string Value(const std::string& key) const
    {
        auto it = values.find(key);
        return it == values.end() ? std::string() : it->second;
    }
    bool Has(const std::string& key) const { return values.count(key) != 0; }
};

// METHOD INPUT and --threads of the commands that leave samples out in turn;
// usage errors for a missing or unknown method, a method that cannot be
// cross-validated (KaParamError) or a bad thread count.
struct KaLooArguments {
    const KaMethodInfo* method = nullptr;
    std::string input;
    unsigned threads = 1;
};
KaLooArguments LooArguments(const KaSubOptions& o);

int RunCrossValidate(const KaSubOptions& o);
int RunVariogram(const KaSubOptions& o);
int RunTune(const KaSubOptions& o);
int RunPredict(const KaSubOptions& o);
