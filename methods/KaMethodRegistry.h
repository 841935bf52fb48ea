#pragma once

#include <memory>
#include <span>
#include <string_view>

#include "core/KaEstimatorGrid.h"
#include "core/KaGridJob.h"

// One gridding method as the dialogs and kagrid offer it.
struct KaMethodInfo {
    const char* key;     // kagrid's name, e.g. "inverse-distance"
    const char* title;   // the method's name, e.g. "Inverse Distance to a Power"
    const char* suffix;  // appended to the input object's name, e.g. "_Inverse"
    std::unique_ptr<KaEstimatorGridParam> (*makeParam)();
    std::unique_ptr<KaEstimatorGrid> (*makeEstimator)();
    // The job that drives the estimator; null means the row-by-row KaGridJob.
    std::unique_ptr<KaGridJob> (*makeJob)(KaJobObserver* observer) = nullptr;
    const char* note = nullptr;  // what a user should know first, e.g. that it is a shell
    // False for the methods kagrid and the library add beyond the plug-in's
    // menu and dialogs (which keep their own table of methods).
    bool inPlugin = true;
};

// Every method: the plug-in's in menu order, then kagrid's own.
std::span<const KaMethodInfo> KaMethods();
const KaMethodInfo* FindMethod(std::string_view key);
std::unique_ptr<KaGridJob> MakeJob(const KaMethodInfo& method, KaJobObserver* observer);
