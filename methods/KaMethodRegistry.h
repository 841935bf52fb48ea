#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "core/KaEstimatorGrid.h"
#include "core/KaGridJob.h"
#include "platform/kadata/Ka3DPoint.h"

class KaVarioVector;

// What a method can do; the front ends check these instead of method names.
struct KaMethodCapabilities {
    bool stdDev = false;     // forms the kriging standard deviation (--stddev)
    bool mesh = false;       // hands over its triangle mesh (--mesh)
    bool searching = true;   // estimates from searched samples: the search keys apply
    bool pointwise = true;   // estimates position by position: leave-one-out, prediction
    // Estimates any position from a structure built over all the samples it is
    // given (natural neighbour): prediction takes it, and blocked folds score it
    // by building the structure again for each fold's training samples.
    bool rebuilds = false;
};

// The samples a tuning looks at, and the keys the user set (a candidate never
// changes those).
struct KaTuneShape {
    const std::vector<Ka3DPoint>& points;
    std::size_t n = 0;
    double diagonal = 0;  // of the samples' x-y extent
    double spacing = 0;   // the mean spacing of samples spread evenly
    double zRange = 0;
    const std::set<std::string>& given;
};

// One value a tuning candidate sets: a whole number, a number, a flag, a
// choice's display name, or a variogram model.
using KaTuneValue = std::variant<int64_t, double, bool, std::string, std::shared_ptr<const KaVarioVector>>;

// One candidate of a method's own settings.
struct KaTuneOption {
    std::string label;  // empty: built from the settings
    std::vector<std::pair<std::string, KaTuneValue>> settings;
};

struct KaTuneHints {
    // The method's own settings to try, in the order that decides ties; null
    // (or none returned): the record as given.
    std::vector<KaTuneOption> (*candidates)(const KaTuneShape& shape) = nullptr;
    // A search radius the method suggests for the record (kriging: the
    // variogram's largest range); 0 for none.
    double (*radius)(const KaEstimatorGridParam& record) = nullptr;
};

// What the run review says about the method's grids.
struct KaReviewHints {
    const char* keys = "the method's own keys";  // the keys that shape the estimate, for the warnings
    bool solvesSystems = false;  // a grid all blank may mean a singular system at every node
    bool zValues = true;         // estimates are z values (data metrics' counts and distances are not)
    int systemPower = 1;         // per-node scratch grows with the neighbours (1) or with their square (2)
    const char* allBlank = nullptr;  // why a grid of a method without search can come out all blank
};

// One gridding method as the dialogs and kagrid offer it: adding a method is
// its estimator and record, one entry in the registry and its page.
struct KaMethodInfo {
    const char* key;     // kagrid's name, e.g. "inverse-distance"
    const char* title;   // the method's name, e.g. "Inverse Distance to a Power"
    const char* suffix;  // appended to the input object's name, e.g. "_Inverse"
    std::unique_ptr<KaEstimatorGridParam> (*makeParam)();
    // A copy of a record of this method; null for a record of another kind.
    std::unique_ptr<KaEstimatorGridParam> (*cloneParam)(const KaEstimatorGridParam& record);
    std::unique_ptr<KaEstimatorGrid> (*makeEstimator)();
    // The job that drives the estimator; null means the row-by-row KaGridJob.
    std::unique_ptr<KaGridJob> (*makeJob)(KaJobObserver* observer) = nullptr;
    const char* note = nullptr;  // what a user should know first, e.g. that it is a shell
    KaMethodCapabilities can{};
    KaTuneHints tune{};
    KaReviewHints review{};
    // False for the methods kagrid and the library add beyond the plug-in's
    // menu and dialogs (which keep their own table of methods).
    bool inPlugin = true;
    // Its plug-in dialog has the Search page, which changes what an accepted
    // dialog gives back (kagrid --plugin-defaults follows it).
    bool searchPage = false;
};

// Every method: the plug-in's in menu order, then kagrid's own.
std::span<const KaMethodInfo> KaMethods();
const KaMethodInfo* FindMethod(std::string_view key);
std::unique_ptr<KaGridJob> MakeJob(const KaMethodInfo& method, KaJobObserver* observer);
