#include "apps/kagrid/KaOptions.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct Option {
    const char* name;       // "--set"
    const char* argument;   // "KEY=VALUE" as the usage shows it; null for a flag
    unsigned commands;      // the commands that take it
    const char* help;       // lines after the first are indented under it; null: listed with the entry before
    const char* needs = nullptr;  // gridding's word for a missing value ("a JSON file"); the argument when null
    const char* alias = nullptr;  // "-q"
    const char* label = nullptr;  // the usage's label when not name and argument
    unsigned unlisted = 0;        // commands that take it without listing it
    int values = 1;               // arguments it takes when it takes any (--block STAT CELL: 2)

    Option(const char* n, const char* arg, unsigned c, const char* h)
        : name(n), argument(arg), commands(c), help(h)
    {
    }
    Option& Needs(const char* v) { needs = v; return *this; }
    Option& Alias(const char* v) { alias = v; return *this; }
    Option& Label(const char* v) { label = v; return *this; }
    Option& Unlisted(unsigned v) { unlisted = v; return *this; }
    Option& Values(int v) { values = v; return *this; }
};

constexpr unsigned kLeaveOneOut = kKaCrossValidate | kKaTune;
constexpr unsigned kRecord = kKaGrid | kLeaveOneOut | kKaPredict;  // the commands that build a method's record

// In usage order. An option may appear twice with different commands when
// its meaning there differs.
const Option kOptions[] = {
    Option("--set", "KEY=VALUE", kRecord | kKaVariogram, "set one parameter (repeatable; after --params)")
        .Unlisted(kKaVariogram),
    Option("--params", "FILE", kRecord | kKaVariogram, "parameters from a JSON object {\"key\": value, ...}")
        .Needs("a JSON file")
        .Unlisted(kKaVariogram),
    Option("--plugin-defaults", nullptr, kRecord,
           "the record the plug-in's dialog gives: the ring walk and the dialog's\n"
           "caps (default: nearest first, at most 100 samples a node)"),
    Option("--print-params", nullptr, kKaGrid, "print the effective parameters as JSON and exit"),
    Option("--tune", nullptr, kKaGrid, "first choose the settings as `kagrid tune` does, then grid with them"),
    Option("--bounds", "XMIN,YMIN,XMAX,YMAX", kKaGrid | kKaPredict, "the grid's box (first node at XMIN, YMIN)"),
    Option("--cell", "DX[,DY]", kKaGrid | kKaPredict, "node spacing; the counts follow from the bounds"),
    Option("--size", "COLS,ROWS", kKaGrid | kKaPredict, "node counts; the spacing follows from the bounds"),
    Option("--like", "RASTER", kKaGrid | kKaPredict, "the lattice of an existing grid").Needs("a raster"),
    Option("--block", "STAT CELL", kKaGrid,
           "first reduce the samples to one per block (mean, median or mode of\n"
           "the samples in each CELL (DX[,DY]) block centred on the grid's nodes)")
        .Needs("mean, median or mode, and a block size")
        .Values(2),
    Option("--crs", "DEF", kKaGrid,
           "coordinate system of the output (EPSG:28992, WKT, PROJ string);\n"
           "default: the input's (its layer, raster, or a .prj beside a text file)").Needs("a coordinate system"),
    Option("-of", "FORMAT", kKaGrid, "GDAL driver for OUTPUT (e.g. GTiff, AAIGrid, XYZ)").Needs("a format name"),
    Option("-ot", "TYPE", kKaGrid, "band type (Float64 by default; Float32, Int16, ...)").Needs("a data type"),
    Option("-co", "NAME=VALUE", kKaGrid, "creation option for the driver (repeatable)"),
    Option("--preview", "FILE.png", kKaGrid, "also write a colour-mapped picture with a legend")
        .Needs("a PNG file name"),
    Option("--ramp", "NAME", kKaGrid, "the previews' colour ramp: viridis (default), magma, cividis or\nblue-red (diverging)")
        .Needs("a ramp name"),
    Option("--stddev", "FILE", kKaGrid,
           "kriging: also write the kriging standard deviation there\n"
           "(default: STDDEVNAME beside OUTPUT, when createStdDev)").Needs("a file name"),
    Option("--stddev-preview", "FILE.png", kKaGrid, "a picture of the standard deviation, as --preview")
        .Needs("a PNG file name"),
    Option("--mesh", "FILE", kKaGrid, "triangulation: also write the triangle mesh (.gpkg or .shp)")
        .Needs("a file name"),
    Option("--report", "FILE.json", kKaCrossValidate,
           "the statistics as {\"count\", \"estimated\", \"me\", \"mae\", \"rmse\", \"r\"}"),
    Option("--residuals", "FILE", kKaCrossValidate,
           "x, y, observed, estimated, residual per sample (.csv, .gpkg,\n.geojson or .fgb)"),
    Option("--cutoff", "D", kKaVariogram, "largest separation (default: a third of the bounding-box diagonal)"),
    Option("--width", "W", kKaVariogram, "lag width (default: cutoff / 15)"),
    Option("--direction", "ANGLE", kKaVariogram, "only pairs along this azimuth, degrees clockwise from north"),
    Option("--tolerance", "T", kKaVariogram, "angular tolerance either side of the direction (default 22.5)"),
    Option("--fit", "MODEL+MODEL", kKaVariogram,
           "fit a sum of models by weighted least squares (weights N/h^2),\n"
           "e.g. Nugget+Spherical; names as in the variogram key"),
    Option("--json", "FILE", kKaVariogram, "the lags and the fitted model as JSON"),
    Option("--plot", "FILE.png", kKaVariogram, "the lags and the fitted curve"),
    Option("--write-params", "FILE", kKaTune, "the best settings as a parameter file for --params"),
    Option("--max-blank", "PERCENT", kKaTune,
           "a candidate leaving more samples than this not estimable loses\nto one that does not (default 1)"),
    Option("--locations-x", "COL", kKaPredict,
           "LOCATIONS' columns (text; default: guessed from the header as for\n"
           "INPUT, else 1 2); vector files: the points")
        .Label("--locations-x COL --locations-y COL"),
    Option("--locations-y", "COL", kKaPredict, nullptr),
    Option("--stddev", nullptr, kKaPredict, "also the kriging standard deviation (kriging methods)"),
    Option("--outside", nullptr, kKaPredict, "estimate locations beyond the samples' extent too (refused otherwise)"),
    Option("--folds", "K", kKaTune,
           "score by blocked K-fold cross-validation instead of leave-one-out\n(needs --block; see the README)"),
    Option("--block", "SIZE", kKaTune, "the side of the square blocks the folds are made of"),
    Option("--x", "COL", kKaAllCommands,
           "text input: columns by 1-based number or header name (default: the\n"
           "header's x, y, z (easting, lon, ...) when it has them, else 1 2 3);\n"
           "vector input: --z names the attribute holding z (default: geometry z)")
        .Needs("a column")
        .Label("--x COL --y COL --z COL"),
    Option("--y", "COL", kKaAllCommands, nullptr).Needs("a column"),
    Option("--z", "COL", kKaAllCommands, nullptr).Needs("a column or field"),
    Option("--threads", "N", kKaGrid,
           "threads that estimate rows, and compress GeoTIFF strips, at once\n"
           "(default: one per core); the grid is the same whatever N").Needs("a thread count"),
    Option("--threads", "N", kLeaveOneOut | kKaPredict, "worker threads (default: every core)"),
    Option("--quiet", nullptr, kKaAllCommands, "no progress output").Alias("-q").Unlisted(kKaVariogram),
    Option("--", nullptr, kKaAllCommands, "the end of the options (for a file name starting with '-')"),
    Option("--help", nullptr, kKaAllCommands, "this text").Alias("-h"),
    Option("--version", nullptr, kKaGrid, "kagrid's and GDAL's versions"),
};

const Option* Find(KaCommand command, const std::string& word)
{
    for (const Option& o : kOptions)
        if ((o.commands & command) && (word == o.name || (o.alias && word == o.alias))) return &o;
    return nullptr;
}

}  // namespace

KaParsedOptions KaParseOptions(KaCommand command, int argc, char** argv, const std::string& usage)
{
    KaParsedOptions parsed;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--") {  // the end of the options: a file name may start with '-'
            while (++i < argc) parsed.positional.push_back(argv[i]);
            break;
        }
        if (a.size() > 1 && a[0] == '-' && !std::isdigit(static_cast<unsigned char>(a[1]))) {
            const Option* o = Find(command, a);
            if (!o) throw KaUsageError{"unknown option " + a};
            if (std::strcmp(o->name, "--help") == 0) {
                std::fputs(usage.c_str(), stdout);
                std::exit(0);
            }
            if (!o->argument) parsed.values[o->name].push_back("");
            for (int k = 0; o->argument && k < o->values; ++k) {
                if (i + 1 >= argc)
                    throw KaUsageError{a + " needs " +
                                       (command == kKaGrid ? (o->needs ? o->needs : o->argument) : "a value")};
                parsed.values[o->name].push_back(argv[++i]);
            }
            if (std::strcmp(o->name, "--version") == 0) return parsed;
        } else {
            parsed.positional.push_back(a);
        }
    }
    return parsed;
}

std::string KaOptionsUsage(KaCommand command)
{
    std::string text = "options:\n";
    for (const Option& o : kOptions) {
        if (!(o.commands & command) || (o.unlisted & command) || !o.help) continue;
        std::string label = o.label ? o.label
                                    : (o.alias ? std::string(o.alias) + ", " : std::string()) + o.name +
                                          (o.argument ? std::string(" ") + o.argument : std::string());
        // Help at column 21; a longer label keeps three spaces before it, or
        // takes a line of its own when it names several options.
        constexpr std::size_t kWidth = 18;
        if (o.label) label += "\n" + std::string(kWidth + 3, ' ');
        else if (label.size() <= kWidth) label.resize(kWidth + 1, ' ');
        else label += "   ";
        // Further lines of the help line up under its first.
        const std::size_t column = o.label ? kWidth + 3 : label.size() + 2;
        std::string help = o.help;
        for (std::size_t at = help.find('\n'); at != std::string::npos; at = help.find('\n', at + 1))
            help.insert(at + 1, std::string(column, ' '));
        text += "  " + label + help + "\n";
    }
    return text;
}
