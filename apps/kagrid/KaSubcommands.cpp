#include "apps/kagrid/KaSubcommands.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>

#include "apps/kagrid/KaRunSetup.h"
#include "io/KaIoError.h"
#include "io/KaOutputFiles.h"
#include "io/KaRasterIo.h"
#include "tune/KaLeaveOneOut.h"
#include "platform/kadata/KaEventsLog.h"

namespace {

struct Command {
    const char* name;
    KaCommand id;
    const char* head;  // the usage before the options
    int (*run)(const KaSubOptions&);

    std::string Usage() const { return head + KaOptionsUsage(id); }
};

const Command kCommands[] = {
    {"cross-validate", kKaCrossValidate,
     "usage: kagrid cross-validate METHOD INPUT [options]\n"
     "  Estimates every sample from all the others with the method's parameters and prints\n"
     "  count, estimated count, mean error, mean absolute error, RMSE and the correlation of\n"
     "  observed and estimated (errors are observed - estimated).\n",
     RunCrossValidate},
    {"variogram", kKaVariogram,
     "usage: kagrid variogram INPUT [options]\n"
     "  The experimental semivariogram of the points, optionally with a fitted model.\n",
     RunVariogram},
    {"tune", kKaTune,
     "usage: kagrid tune METHOD INPUT [options]\n"
     "       kagrid tune auto INPUT [options]\n"
     "  Tries a short list of settings for the method (search counts, sectors and mode, and\n"
     "  the method's own settings; see the README), scores each by leave-one-out\n"
     "  cross-validation, prints them with RMSE, MAE, mean error and the share of samples\n"
     "  not estimable, and marks the best with '*'. Keys given with --set or --params are\n"
     "  held as given. 'auto' tunes every method that can be scored and picks the method\n"
     "  and its settings together; its --write-params file names the method under \"method\".\n",
     RunTune},
    {"predict", kKaPredict,
     "usage: kagrid predict METHOD INPUT LOCATIONS OUTPUT [options]\n"
     "  Estimates z (and the kriging standard deviation) at the points of LOCATIONS with the\n"
     "  method's parameters, as a gridding run would at a node there, and writes x, y, z\n"
     "  [, stddev] to OUTPUT: .csv, or a vector format GDAL writes (.gpkg, .shp, .fgb, ...).\n"
     "  A location without an estimate gets an empty z (a null attribute).\n",
     RunPredict},
};

const Command* Find(const char* word)
{
    for (const Command& c : kCommands)
        if (std::strcmp(c.name, word) == 0) return &c;
    return nullptr;
}

KaSubOptions Parse(const Command& cmd, int argc, char** argv)
{
    const KaParsedOptions p = KaParseOptions(cmd.id, argc, argv, cmd.Usage());
    KaSubOptions o;
    o.positional = p.positional;
    o.settings = p.Values("--set");
    o.paramsFile = p.Value("--params");
    const char* const columns[] = {"--x", "--y", "--z"};
    std::string* targets[] = {&o.columns.x, &o.columns.y, &o.columns.z};
    for (int k = 0; k < 3; ++k)
        if (p.Has(columns[k])) *targets[k] = p.Value(columns[k]), o.given[k] = true;
    o.quiet = p.Has("--quiet");
    o.pluginDefaults = p.Has("--plugin-defaults");
    for (const auto& [name, values] : p.values) o.values[name] = values.empty() ? std::string() : values.back();
    return o;
}

}  // namespace

KaLooArguments LooArguments(const KaSubOptions& o)
{
    if (o.positional.size() < 2) throw KaUsageError{o.positional.empty() ? "no method given" : "no INPUT given"};
    if (o.positional.size() > 2) throw KaUsageError{"unexpected argument " + o.positional[2]};
    KaLooArguments a;
    a.method = FindMethod(o.positional[0]);
    if (!a.method) throw KaUsageError{"unknown method '" + o.positional[0] + "' (one of: " + MethodNames() + ")"};
    KaRequireLeaveOneOut(*a.method);
    a.input = o.positional[1];
    try {
        a.threads = KaThreadCount(o.Value("--threads"));
    } catch (const std::invalid_argument& e) {
        throw KaUsageError{e.what()};
    }
    return a;
}

bool IsSubcommand(const char* word) { return Find(word) != nullptr; }

int RunSubcommand(int argc, char** argv)
{
    const Command& cmd = *Find(argv[0]);
    SetEventsLogSink([](int, const std::string&) {});
    try {
        const KaSubOptions o = Parse(cmd, argc, argv);
        KaIoInit();
        KaInstallTemporaryCleanup();
        // A command's outputs are replaced together, once all are complete.
        KaOutputBatch outputs;
        const int status = cmd.run(o);
        if (status == 0) outputs.Commit();
        return status;
    } catch (const KaUsageError& e) {
        std::fprintf(stderr, "kagrid %s: %s\n%s", cmd.name, e.message.c_str(), cmd.Usage().c_str());
        return 2;
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "kagrid %s: out of memory\n", cmd.name);
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kagrid %s: %s\n", cmd.name, KaTerminalSafe(e.what()).c_str());
        return 1;
    }
}
