#pragma once

#include <memory>
#include <span>
#include <string_view>

#include "core/KaEstimatorGrid.h"
#include "core/KaGridJob.h"

// What the run review and the memory guard know of a method.
struct KaRunHints {
    const char* keys = "the method's own keys";  // the keys that shape its estimate, for warnings
    bool linearSystem = false;  // solves a linear system per node, which coincident samples make singular
    bool zValues = true;        // the grid holds z values: estimates far beyond the samples' range are suspect
    int systemPower = 1;        // per-node scratch grows with the neighbours (1) or with their square (2)
};

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
    KaRunHints run = {};
};

// Every method, in menu order.
std::span<const KaMethodInfo> KaMethods();
const KaMethodInfo* FindMethod(std::string_view key);
std::unique_ptr<KaGridJob> MakeJob(const KaMethodInfo& method, KaJobObserver* observer);
