#include "io/KaPointReader.h"

#include <algorithm>
#include <cerrno>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <istream>
#include <string_view>
#include <vector>

#include <ogrsf_frmts.h>

#include "io/KaCrs.h"
#include "io/KaIoError.h"
#include "io/KaIoSupport.h"
#include "io/KaRasterIo.h"

namespace fs = std::filesystem;
using kaio::Lower;

bool LooksLikeTextPoints(const std::string& path)
{
    const std::string ext = Lower(fs::path(path).extension().string());
    for (const char* e : {".csv", ".txt", ".xyz", ".dat", ".tsv", ".pts"})
        if (ext == e) return true;
    return false;
}

namespace {

constexpr const char* kRoles[3] = {"x", "y", "z"};

bool IsBlank(char ch) { return ch == ' ' || ch == '\t' || ch == '\r' || ch == '\v' || ch == '\f'; }

std::string_view Trim(std::string_view s)
{
    while (!s.empty() && IsBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && IsBlank(s.back())) s.remove_suffix(1);
    return s;
}

bool AllDigits(std::string_view s)
{
    if (s.empty()) return false;
    for (char ch : s)
        if (ch < '0' || ch > '9') return false;
    return true;
}

// A whole token as a number, in the C locale whatever the user's locale is.
// "nan" and "inf" parse here; the caller refuses them.
bool ParseNumber(std::string_view t, double& v)
{
    if (!t.empty() && t.front() == '+') t.remove_prefix(1);
    if (t.empty()) return false;
    const auto [end, ec] = std::from_chars(t.data(), t.data() + t.size(), v);
    return ec == std::errc() && end == t.data() + t.size();
}

// Splits one line. sep 0 means runs of blanks; otherwise every separator
// starts a new field, so "1,,3" has an empty second field. A field may be
// wrapped in double quotes ("" inside stands for one quote).
// Fields are views: into the line, or, for a quoted field, into its unescaped
// copy in `quoted`, whose elements stay put while it grows. The reader splits
// every line into the same two containers, so a large file costs no
// allocation per line.
void SplitFields(std::string_view line, char sep, std::vector<std::string_view>& fields,
                 std::deque<std::string>& quoted)
{
    fields.clear();
    quoted.clear();
    std::size_t i = 0;
    const std::size_t n = line.size();
    auto skipPad = [&] {
        while (i < n && IsBlank(line[i]) && line[i] != sep) ++i;
    };
    for (;;) {
        skipPad();
        if (sep == 0 && i >= n) break;
        if (i < n && line[i] == '"') {
            std::string& field = quoted.emplace_back();
            for (++i; i < n; ++i) {
                if (line[i] == '"') {
                    if (i + 1 < n && line[i + 1] == '"') {
                        field += '"';
                        ++i;
                    } else {
                        ++i;
                        break;
                    }
                } else {
                    field += line[i];
                }
            }
            while (i < n && line[i] != sep && !(sep == 0 && IsBlank(line[i]))) ++i;  // junk after the quote
            fields.push_back(field);
        } else {
            const std::size_t start = i;
            while (i < n && line[i] != sep && !(sep == 0 && IsBlank(line[i]))) ++i;
            fields.push_back(Trim(line.substr(start, i - start)));
        }
        if (sep == 0) continue;
        if (i >= n) break;
        ++i;  // the separator
    }
}

std::vector<std::string> SplitFields(std::string_view line, char sep)
{
    std::vector<std::string_view> fields;
    std::deque<std::string> quoted;
    SplitFields(line, sep, fields, quoted);
    return {fields.begin(), fields.end()};
}

// ';' or ',' when the line has one. A tab separates fields in a .tsv file, or
// when no tab-separated field holds blanks of its own; otherwise tabs and
// spaces are mixed padding ("1   2\t 3").
char DetectSeparator(std::string_view line, bool tsv)
{
    for (char sep : {';', ','})
        if (line.find(sep) != std::string_view::npos) return sep;
    if (line.find('\t') == std::string_view::npos) return 0;
    if (tsv) return '\t';
    for (const std::string& f : SplitFields(line, '\t'))
        for (char ch : f)
            if (IsBlank(ch)) return 0;
    return '\t';
}

constexpr unsigned long kMaxColumn = 100000;
constexpr std::size_t kMaxLine = std::size_t(1) << 20;

// Lines of at most kMaxLine bytes, '\n' ended; a NUL byte anywhere is refused
// with its line number (text files hold none; a binary file is the likely cause).
// A line is a view into the reader's buffer, valid until the next call.
class LineReader {
public:
    LineReader(std::istream& in, const std::string& path) : in_(in), path_(path) {}

    bool Next(std::string_view& line)
    {
        line = {};
        for (;;) {
            // LF, CR LF and a lone CR (old Mac files) all end a line; a CR
            // last in the buffer waits for the next byte.
            std::size_t nl = std::min(Find('\n', lf_), Find('\r', cr_));
            if (nl != std::string::npos && buffer_[nl] == '\r' && nl + 1 == buffer_.size() && !eof_) nl = std::string::npos;
            const std::size_t end = nl == std::string::npos ? buffer_.size() : nl;
            if (std::memchr(buffer_.data() + start_, '\0', end - start_))
                throw KaIoError(path_, number_ + 1, "holds a NUL byte; not a text file");
            if (nl != std::string::npos || (eof_ && start_ < buffer_.size())) {
                line = std::string_view(buffer_).substr(start_, end - start_);
                const bool crlf = nl != std::string::npos && buffer_[nl] == '\r' && nl + 1 < buffer_.size() &&
                                  buffer_[nl + 1] == '\n';
                start_ = nl == std::string::npos ? buffer_.size() : nl + (crlf ? 2 : 1);
                ++number_;
                return true;
            }
            if (eof_) return false;
            if (end - start_ > kMaxLine)
                throw KaIoError(path_, number_ + 1, "a line longer than " + std::to_string(kMaxLine) +
                                                        " bytes; not a point file");
            buffer_.erase(0, start_);
            start_ = 0;
            lf_ = cr_ = kStale;
            const std::size_t old = buffer_.size();
            buffer_.resize(old + 65536);
            in_.read(buffer_.data() + old, 65536);
            buffer_.resize(old + static_cast<std::size_t>(in_.gcount()));
            if (in_.bad()) throw KaIoError(path_, number_ + 1, "read error");
            if (!in_) eof_ = true;
        }
    }
    std::size_t Number() const { return number_; }

private:
    static constexpr std::size_t kStale = std::string::npos - 1;

    // The first c at or after start_ (npos: none in the buffer), from one memchr
    // pass kept until start_ has passed it or the buffer is refilled. Not
    // find_first_of("\r\n"): that tests each byte in a call of its own, a
    // quarter of the time of reading a million points.
    std::size_t Find(char c, std::size_t& at) const
    {
        if (at == kStale || (at != std::string::npos && at < start_)) {
            const void* p = std::memchr(buffer_.data() + start_, c, buffer_.size() - start_);
            at = p ? static_cast<std::size_t>(static_cast<const char*>(p) - buffer_.data()) : std::string::npos;
        }
        return at;
    }

    std::istream& in_;
    const std::string& path_;
    std::string buffer_;
    std::size_t start_ = 0, number_ = 0;
    std::size_t lf_ = kStale, cr_ = kStale;  // see Find
    bool eof_ = false;
};

struct ColumnChoice {
    bool byName = false;
    std::size_t index = 0;  // 0-based once resolved
    std::string name;
};

ColumnChoice ParseChoice(const std::string& path, const std::string& given, const char* role)
{
    const std::string_view s = Trim(given);
    ColumnChoice c;
    if (s.empty()) throw KaIoError(path, std::string("no column given for ") + role);
    if (AllDigits(s)) {
        unsigned long n = 0;
        const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), n);
        if (ec != std::errc() || end != s.data() + s.size() || n == 0 || n > kMaxColumn)
            throw KaIoError(path, "column " + kaio::Echo(s) + " for " + role + ": columns are numbered from 1 to " +
                                      std::to_string(kMaxColumn));
        c.index = n - 1;
    } else {
        c.byName = true;
        c.name = std::string(s);
    }
    return c;
}

std::string Quote(std::string_view s)
{
    std::string q = kaio::Echo(s);
    q.insert(0, 1, '\'');
    q += '\'';
    return q;
}

// "1,5" as 1.5: spreadsheets where the comma is the decimal mark separate
// their fields with ';'.
bool ParseDecimalComma(std::string t, double& v)
{
    const std::size_t comma = t.find(',');
    if (comma == std::string::npos || t.find(',', comma + 1) != std::string::npos ||
        t.find('.') != std::string::npos)
        return false;
    t[comma] = '.';
    return ParseNumber(t, v);
}

// Header names that say which role a column plays.
bool NamesRole(int role, const std::string& field)
{
    static const std::vector<std::vector<std::string>> names = {
        {"x", "easting", "east", "lon", "long", "longitude"},
        {"y", "northing", "north", "lat", "latitude"},
        {"z"},
    };
    const std::string f = Lower(std::string(Trim(field)));
    for (const std::string& n : names[role])
        if (f == n) return true;
    return false;
}

void GuessFromHeader(const std::string& path, std::size_t lineNo, const std::vector<std::string>& fields,
                     const KaPointColumns& columns, ColumnChoice (&choice)[3])
{
    for (int k = 0; k < 3; ++k) {
        if (!columns.guess[k]) continue;
        for (std::size_t f = 0; f < fields.size(); ++f)
            if (NamesRole(k, fields[f])) {
                choice[k] = ColumnChoice{};
                choice[k].index = f;
                break;
            }
    }
    const bool zNamed = columns.guess[2] && choice[2].index < fields.size() && NamesRole(2, fields[choice[2].index]);
    if (columns.guess[2] && !zNamed && !choice[2].byName &&
        (choice[2].index == choice[0].index || choice[2].index == choice[1].index)) {
        std::string list;
        for (const std::string& f : fields) list += (list.empty() ? "" : ", ") + Quote(f);
        throw KaIoError(path, lineNo, "which column holds z? choose it with --z (columns: " + list + ")");
    }
}

// A spreadsheet's or R's way of leaving a value out.
// Checked on every field of every line, so without building strings.
bool IsMissing(std::string_view t)
{
    auto is = [&](std::string_view word) {
        if (t.size() != word.size()) return false;
        for (std::size_t i = 0; i < t.size(); ++i)
            if ((t[i] | 0x20) != word[i]) return false;  // ASCII letters only: word is lower case
        return true;
    };
    return t.empty() || is("na") || is("nan");
}

}  // namespace

std::vector<Ka3DPoint> ReadTextPointStream(std::istream& in, const std::string& path, const KaPointColumns& columns,
                                           KaPointReadReport* reportOut)
{
    KaPointReadReport local;
    KaPointReadReport& report = reportOut ? *reportOut : local;
    ColumnChoice choice[3] = {ParseChoice(path, columns.x, "x"), ParseChoice(path, columns.y, "y"),
                              ParseChoice(path, columns.z, "z")};
    const bool needHeader = choice[0].byName || choice[1].byName || choice[2].byName;

    std::vector<Ka3DPoint> points;
    std::string_view line;
    std::size_t lineNo = 0, needed = 0;
    char sep = 0;
    bool first = true;
    std::vector<std::string> headerNames;
    std::vector<std::string_view> fields;
    std::deque<std::string> quoted;
    LineReader reader(in, path);
    while (reader.Next(line)) {
        lineNo = reader.Number();
        if (lineNo == 1 && line.substr(0, 3) == "\xEF\xBB\xBF") line.remove_prefix(3);  // UTF-8 mark
        const std::string_view body = Trim(line);
        if (body.empty() || body.front() == '#') continue;

        if (first) sep = DetectSeparator(body, Lower(fs::path(path).extension().string()) == ".tsv");
        SplitFields(body, sep, fields, quoted);

        if (first) {
            first = false;
            bool header = needHeader;
            for (const ColumnChoice& c : choice) {
                double v;
                if (!c.byName && c.index < fields.size() && !ParseNumber(fields[c.index], v))
                    header = true;
            }
            if (header) {
                headerNames.assign(fields.begin(), fields.end());
                GuessFromHeader(path, lineNo, headerNames, columns, choice);
                for (int k = 0; k < 3; ++k) {
                    if (!choice[k].byName) continue;
                    const std::string want = Lower(choice[k].name);
                    std::size_t f = 0;
                    while (f < headerNames.size() && Lower(headerNames[f]) != want) ++f;
                    if (f == headerNames.size())
                        throw KaIoError(path, lineNo,
                                        "no column named " + Quote(choice[k].name) + " for " +
                                            kRoles[k] + " in the header");
                    choice[k].index = f;
                }
            }
            for (const ColumnChoice& c : choice) needed = std::max(needed, c.index + 1);
            if (header) continue;
        }

        if (fields.size() < needed)
            throw KaIoError(path, lineNo,
                            "expected at least " + std::to_string(needed) + " fields, found " +
                                std::to_string(fields.size()));
        double v[3];
        bool missing = false;
        for (int k = 0; k < 3; ++k) {
            const std::size_t column = choice[k].index;
            const std::string_view t = fields[column];
            if (IsMissing(t)) {
                missing = true;
                continue;
            }
            auto refuse = [&](const char* expected) {
                const std::string name = column < headerNames.size() && !headerNames[column].empty()
                                             ? Quote(headerNames[column])
                                             : std::to_string(column + 1);
                throw KaIoError(path, lineNo,
                                "column " + name + " (" + kRoles[k] + "): expected " + expected + ", found " +
                                    Quote(t));
            };
            if (!ParseNumber(t, v[k]) && !(sep == ';' && ParseDecimalComma(std::string(t), v[k]))) refuse("a number");
            if (!std::isfinite(v[k])) refuse("a finite number");
        }
        if (missing) {
            ++report.skippedMissing;
            continue;
        }
        points.emplace_back(v[0], v[1], v[2]);
    }
    return points;
}

namespace {

std::vector<Ka3DPoint> ReadTextPoints(const std::string& path, const KaPointColumns& columns,
                                      KaPointReadReport& report)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) throw KaIoError(path, std::string("cannot open the file: ") + std::strerror(errno));
    return ReadTextPointStream(in, path, columns, &report);
}

// Vector formats -----------------------------------------------------------

std::string GeometryName(const OGRGeometry& g)
{
    return g.getGeometryName();
}

// The layer's numeric fields, for a message that asks to choose one.
std::string NumericFields(OGRFeatureDefn& defn)
{
    std::string names;
    for (int i = 0; i < defn.GetFieldCount(); ++i) {
        const OGRFieldType t = defn.GetFieldDefn(i)->GetType();
        if (t == OFTReal || t == OFTInteger || t == OFTInteger64)
            names += (names.empty() ? "" : ", ") + std::string(defn.GetFieldDefn(i)->GetNameRef());
    }
    return names.empty() ? "the layer has none" : "numeric fields: " + names;
}

std::vector<Ka3DPoint> ReadVectorPoints(const std::string& path, const KaPointColumns& columns,
                                        KaPointReadReport& report)
{
    KaIoInit();
    kaio::GdalErrorCapture capture;
    kaio::GdalDatasetPtr ds(GDALDataset::Open(path.c_str(), GDAL_OF_VECTOR | GDAL_OF_READONLY));
    if (!ds) throw KaIoError(path, capture.Message("not a point file kagrid can read"));

    const std::string zSpec(Trim(columns.z));
    const bool severalLayers = ds->GetLayerCount() > 1;
    std::vector<Ka3DPoint> points;
    OGRLayer* first = nullptr;  // the first layer with geometry: the others must share its coordinate system
    for (OGRLayer* layer : ds->GetLayers()) {
        OGRFeatureDefn* defn = layer->GetLayerDefn();
        if (defn->GetGeomFieldCount() == 0) continue;
        const std::string where =
            severalLayers ? "layer '" + std::string(layer->GetName()) + "', " : std::string();
        if (!first) {
            first = layer;
        } else {
            const OGRSpatialReference *a = first->GetSpatialRef(), *b = layer->GetSpatialRef();
            if ((a == nullptr) != (b == nullptr) || (a && !a->IsSame(b))) {
                auto label = [](const OGRSpatialReference* srs) {
                    char* wkt = nullptr;
                    if (!srs || srs->exportToWkt(&wkt) != OGRERR_NONE) return std::string("no coordinate system");
                    const std::string text = CrsLabel(wkt);
                    CPLFree(wkt);
                    return text;
                };
                throw KaIoError(path, "layer '" + std::string(layer->GetName()) + "' is in " + label(b) +
                                          ", layer '" + first->GetName() + "' in " + label(a) +
                                          "; kagrid does not reproject: put the layers in one coordinate system "
                                          "or keep one layer");
            }
        }

        int zField = -1;
        if (!zSpec.empty()) {
            zField = defn->GetFieldIndex(zSpec.c_str());  // case-insensitive
            if (zField < 0 && AllDigits(zSpec)) {
                const long n = std::strtol(zSpec.c_str(), nullptr, 10);
                if (n >= 1 && n <= defn->GetFieldCount()) zField = static_cast<int>(n - 1);
            }
            if (zField < 0) {
                std::string names;
                for (int i = 0; i < defn->GetFieldCount(); ++i)
                    names += (i ? ", " : "") + std::string(defn->GetFieldDefn(i)->GetNameRef());
                throw KaIoError(path, where + "no field " + Quote(zSpec) + " for z (fields: " +
                                          (names.empty() ? "none" : names) + ")");
            }
        }

        layer->ResetReading();
        std::size_t featureNo = 0;
        while (std::unique_ptr<OGRFeature> f{layer->GetNextFeature()}) {
            ++featureNo;
            auto refuse = [&](const std::string& why) {
                throw KaIoError(path, where + "feature " + std::to_string(featureNo) + ": " + why);
            };
            const OGRGeometry* g = f->GetGeometryRef();
            if (!g || g->IsEmpty()) refuse("no geometry");

            double z = 0.0;
            if (zField >= 0) {
                const char* fname = defn->GetFieldDefn(zField)->GetNameRef();
                if (!f->IsFieldSetAndNotNull(zField)) {
                    ++report.skippedMissing;
                    continue;
                }
                switch (defn->GetFieldDefn(zField)->GetType()) {
                case OFTReal:
                case OFTInteger:
                case OFTInteger64:
                    z = f->GetFieldAsDouble(zField);
                    break;
                case OFTString:
                    if (IsMissing(Trim(f->GetFieldAsString(zField)))) {
                        ++report.skippedMissing;
                        continue;
                    }
                    if (!ParseNumber(Trim(f->GetFieldAsString(zField)), z))
                        refuse("field " + Quote(fname) + " holds " + Quote(f->GetFieldAsString(zField)) +
                               ", not a number");
                    break;
                default:
                    refuse("field " + Quote(fname) + " is not numeric");
                }
            } else if (!g->Is3D()) {
                refuse(GeometryName(*g) + " without z; choose the field that holds z with --z (" +
                       NumericFields(*defn) + ")");
            }

            auto add = [&](const OGRPoint& p) {
                const double pz = zField >= 0 ? z : p.getZ();
                if (!std::isfinite(p.getX()) || !std::isfinite(p.getY()) || !std::isfinite(pz))
                    refuse("not a finite point");
                points.emplace_back(p.getX(), p.getY(), pz);
            };
            switch (wkbFlatten(g->getGeometryType())) {
            case wkbPoint:
                add(*g->toPoint());
                break;
            case wkbMultiPoint:
                for (const OGRPoint* p : *g->toMultiPoint())
                    if (!p->IsEmpty()) add(*p);
                break;
            default:
                refuse("a " + GeometryName(*g) + " is not a point; only point geometries are read");
            }
        }
    }
    return points;
}

}  // namespace

std::unique_ptr<KaScatteredPoints> ReadPointFile(const std::string& path, const KaPointColumns& columns,
                                                 KaPointReadReport* report)
{
    kaio::CheckInputFile(path);
    KaPointReadReport local;
    KaPointReadReport& r = report ? *report : local;
    r = {};
    std::vector<Ka3DPoint> points =
        LooksLikeTextPoints(path) ? ReadTextPoints(path, columns, r) : ReadVectorPoints(path, columns, r);
    if (points.empty())
        throw KaIoError(path, r.skippedMissing ? "no points: every row has a missing value" : "no points");

    auto object = std::make_unique<KaScatteredPoints>();
    object->SetID(KaObject::CreateUniqueID());
    object->SetName(kaio::FileStem(path));
    object->SetScatteredPoints(std::move(points));
    return object;
}

KaPointFileColumns PeekPointColumns(const std::string& path)
{
    kaio::CheckInputFile(path);
    KaPointFileColumns out;
    if (!LooksLikeTextPoints(path)) {
        KaIoInit();
        kaio::GdalErrorCapture capture;
        kaio::GdalDatasetPtr ds(GDALDataset::Open(path.c_str(), GDAL_OF_VECTOR | GDAL_OF_READONLY));
        if (!ds) throw KaIoError(path, capture.Message("not a point file kagrid can read"));
        out.vector = true;
        for (OGRLayer* layer : ds->GetLayers()) {
            OGRFeatureDefn* defn = layer->GetLayerDefn();
            if (defn->GetGeomFieldCount() == 0) continue;
            out.geometryZ = wkbHasZ(layer->GetGeomType());
            for (int i = 0; i < defn->GetFieldCount(); ++i) out.names.push_back(defn->GetFieldDefn(i)->GetNameRef());
            break;
        }
        return out;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) throw KaIoError(path, std::string("cannot open the file: ") + std::strerror(errno));
    std::string_view line;
    // The reader's line rules: a NUL byte or an endless line is refused by line number.
    LineReader reader(in, path);
    while (reader.Next(line)) {
        if (reader.Number() == 1 && line.substr(0, 3) == "\xEF\xBB\xBF") line.remove_prefix(3);
        const std::string_view body = Trim(line);
        if (body.empty() || body.front() == '#') continue;
        const char sep = DetectSeparator(body, Lower(fs::path(path).extension().string()) == ".tsv");
        out.names = SplitFields(body, sep);
        double v;
        auto numbers = [&](const std::vector<std::string>& fields) {
            std::vector<bool> n;
            for (const std::string& f : fields) n.push_back(ParseNumber(f, v) && std::isfinite(v));
            return n;
        };
        out.numeric = numbers(out.names);
        for (bool n : out.numeric) out.header = out.header || !n;
        if (!out.header) {
            for (std::size_t i = 0; i < out.names.size(); ++i) out.names[i] = std::to_string(i + 1);
            break;
        }
        // Which columns hold numbers: the first line after the header says.
        out.numeric.assign(out.names.size(), false);
        while (reader.Next(line)) {
            const std::string_view next = Trim(line);
            if (next.empty() || next.front() == '#') continue;
            const std::vector<bool> n = numbers(SplitFields(next, sep));
            for (std::size_t i = 0; i < n.size() && i < out.numeric.size(); ++i) out.numeric[i] = n[i];
            break;
        }
        break;
    }
    return out;
}

KaPointColumnGuess GuessPointColumns(const KaPointFileColumns& layout)
{
    // Beyond the header names the reader itself knows, words that say z.
    static const std::vector<std::string> kZWords = {"elev",  "elevation", "height", "depth",    "value",
                                                     "altitude", "level",  "thickness", "reading"};
    const std::size_t n = layout.names.size();
    KaPointColumnGuess g;
    std::vector<bool> taken(n, false);
    auto claim = [&](int role, std::size_t column, bool named) {
        g.column[role] = static_cast<int>(column);
        g.named[role] = named;
        taken[column] = true;
    };
    // The leading letters of a name: "depth_m" -> "depth", "Elev (m)" -> "elev".
    auto firstWord = [](const std::string& name) {
        std::size_t end = 0;
        while (end < name.size() && std::isalpha(static_cast<unsigned char>(name[end]))) ++end;
        return Lower(name.substr(0, end));
    };
    auto says = [&](int role, const std::string& word) {
        return NamesRole(role, word) ||
               (role == 2 && std::find(kZWords.begin(), kZWords.end(), Lower(word)) != kZWords.end());
    };
    if (layout.header || layout.vector)
        for (bool wholeName : {true, false})
            for (int role = 0; role < 3; ++role)
                for (std::size_t i = 0; i < n && g.column[role] < 0; ++i)
                    if (!taken[i] && says(role, wholeName ? layout.names[i] : firstWord(layout.names[i])))
                        claim(role, i, true);
    if (layout.vector) {
        if (g.column[2] < 0 && n > 0) g.column[2] = 0;
        return g;
    }
    for (int role = 0; role < 3; ++role)
        for (std::size_t i = 0; i < n && g.column[role] < 0; ++i)
            if (!taken[i] && (i >= layout.numeric.size() || layout.numeric[i])) claim(role, i, false);
    return g;
}
