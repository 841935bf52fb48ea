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
    const char* usage;
    std::vector<std::string> valueOptions;  // own options that take a value
    int (*run)(const KaSubOptions&);
};

const Command kCommands[] = {
    {"cross-validate",
     "usage: kagrid cross-validate METHOD INPUT [options]\n"
     "  Estimates every sample from all the others with the method's parameters and prints\n"
     "  count, estimated count, mean error, mean absolute error, RMSE and the correlation of\n"
     "  observed and estimated (errors are observed - estimated).\n"
     "options:\n"
     "  --set KEY=VALUE, --params FILE, --x/--y/--z COL   as for gridding\n"
     "  --report FILE.json   the statistics as {\"count\", \"estimated\", \"me\", \"mae\", \"rmse\", \"r\"}\n"
     "  --residuals FILE     x, y, observed, estimated, residual per sample (.csv, .gpkg,\n"
     "                       .geojson or .fgb)\n"
     "  --threads N          worker threads (default: every core)\n"
     "  -q, --quiet          no progress output\n",
     {"--report", "--residuals", "--threads"}, RunCrossValidate},
    {"variogram",
     "usage: kagrid variogram INPUT [options]\n"
     "  The experimental semivariogram of the points, optionally with a fitted model.\n"
     "options:\n"
     "  --cutoff D           largest separation (default: a third of the bounding-box diagonal)\n"
     "  --width W            lag width (default: cutoff / 15)\n"
     "  --direction ANGLE    only pairs along this azimuth, degrees clockwise from north\n"
     "  --tolerance T        angular tolerance either side of the direction (default 22.5)\n"
     "  --fit MODEL+MODEL    fit a sum of models by weighted least squares (weights N/h^2),\n"
     "                       e.g. Nugget+Spherical; names as in the variogram key\n"
     "  --json FILE          the lags and the fitted model as JSON\n"
     "  --plot FILE.png      the lags and the fitted curve\n"
     "  --x/--y/--z COL      input columns as for gridding\n",
     {"--cutoff", "--width", "--direction", "--tolerance", "--fit", "--json", "--plot"}, RunVariogram},
    {"tune",
     "usage: kagrid tune METHOD INPUT [options]\n"
     "  Tries a short list of settings for the method (search counts, sectors and mode, and\n"
     "  the method's own settings; see the README), scores each by leave-one-out\n"
     "  cross-validation, prints them with RMSE, MAE, mean error and the share of samples\n"
     "  not estimable, and marks the best with '*'. Keys given with --set or --params are\n"
     "  held as given.\n"
     "options:\n"
     "  --set KEY=VALUE, --params FILE, --x/--y/--z COL   as for gridding\n"
     "  --write-params FILE  the best settings as a parameter file for --params\n"
     "  --max-blank PERCENT  a candidate leaving more samples than this not estimable loses\n"
     "                       to one that does not (default 1)\n"
     "  --threads N          worker threads (default: every core)\n"
     "  -q, --quiet          no progress output\n",
     {"--write-params", "--max-blank", "--threads"}, RunTune},
};

const Command* Find(const char* word)
{
    for (const Command& c : kCommands)
        if (std::strcmp(c.name, word) == 0) return &c;
    return nullptr;
}

KaSubOptions Parse(const Command& cmd, int argc, char** argv)
{
    KaSubOptions o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) throw KaUsageError{a + " needs a value"};
            return argv[++i];
        };
        if (a == "--") {  // the end of the options: a file may start with '-'
            while (++i < argc) o.positional.push_back(argv[i]);
            break;
        } else if (a == "-h" || a == "--help") {
            std::fputs(cmd.usage, stdout);
            std::exit(0);
        } else if (a == "--set") o.settings.push_back(value());
        else if (a == "--params") o.paramsFile = value();
        else if (a == "--x") o.columns.x = value(), o.given[0] = true;
        else if (a == "--y") o.columns.y = value(), o.given[1] = true;
        else if (a == "--z") o.columns.z = value(), o.given[2] = true;
        else if (a == "-q" || a == "--quiet") o.quiet = true;
        else if (std::find(cmd.valueOptions.begin(), cmd.valueOptions.end(), a) != cmd.valueOptions.end())
            o.values[a] = value();
        else if (a.size() > 1 && a[0] == '-' && !std::isdigit(static_cast<unsigned char>(a[1])))
            throw KaUsageError{"unknown option " + a};
        else o.positional.push_back(a);
    }
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
        std::fprintf(stderr, "kagrid %s: %s\n%s", cmd.name, e.message.c_str(), cmd.usage);
        return 2;
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "kagrid %s: out of memory\n", cmd.name);
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kagrid %s: %s\n", cmd.name, KaTerminalSafe(e.what()).c_str());
        return 1;
    }
}
