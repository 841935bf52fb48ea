#include "apps/vesk/KaPointAttributes.h"

#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTextStream>
#include <sstream>

#include <gdal_priv.h>
#include <ogrsf_frmts.h>

#include "io/KaRasterIo.h"

namespace {

// Fields for display: the separator as the reader finds it in the first
// line (';' or ',', else tabs, else runs of blanks), quotes dropped.
QStringList Split(const QString& line, QChar sep)
{
    QStringList out = sep.isNull() ? line.trimmed().split(QRegularExpression(QStringLiteral("\\s+")), Qt::SkipEmptyParts)
                                   : line.split(sep);
    for (QString& f : out) {
        f = f.trimmed();
        if (f.size() >= 2 && f.startsWith(QLatin1Char('"')) && f.endsWith(QLatin1Char('"'))) f = f.mid(1, f.size() - 2);
    }
    return out;
}

QChar SeparatorOf(const QString& first)
{
    if (first.contains(QLatin1Char(';'))) return QLatin1Char(';');
    if (first.contains(QLatin1Char(','))) return QLatin1Char(',');
    if (first.contains(QLatin1Char('\t'))) return QLatin1Char('\t');
    return {};
}

// How many points the reader makes of these lines (-1 when it refuses them).
long PointsOf(const std::string& text, const std::string& path, const KaPointColumns& columns)
{
    std::istringstream in(text);
    try {
        return static_cast<long>(ReadTextPointStream(in, path, columns).size());
    } catch (const std::exception&) {
        return -1;
    }
}

KaPointAttributeTable ReadText(const QString& path, const KaPointColumns& columns, std::size_t expected)
{
    KaPointAttributeTable t;
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly | QIODevice::Text)) return t;
    QTextStream in(&f);
    std::vector<std::pair<std::size_t, QString>> lines;  // the lines the reader looks at
    for (std::size_t n = 1; !in.atEnd(); ++n) {
        QString line = in.readLine();
        if (n == 1 && line.startsWith(QChar(0xFEFF))) line.remove(0, 1);
        const QString body = line.trimmed();
        if (body.isEmpty() || body.startsWith(QLatin1Char('#'))) continue;
        lines.emplace_back(n, body);
    }
    if (lines.empty()) return t;
    const std::string file = path.toStdString();
    const std::string first = lines[0].second.toStdString() + "\n";
    // The first line alone: a header gives no point, a data row one (none
    // when a value is missing). Twice over, a header is refused the second
    // time as a row without numbers.
    const long firstPoints = PointsOf(first, file, columns);
    if (firstPoints < 0) return t;
    const bool header = firstPoints == 0 && PointsOf(first + first, file, columns) < 0;
    const QChar sep = SeparatorOf(lines[0].second);
    const QStringList firstFields = Split(lines[0].second, sep);
    for (int i = 0; i < firstFields.size(); ++i)
        t.names << (header ? firstFields[i] : QStringLiteral("column %1").arg(i + 1));
    // Which fields x, y and z came from, to show the others beside them.
    try {
        const KaPointColumnGuess guess = GuessPointColumns(PeekPointColumns(file));
        const std::string chosen[3] = {columns.x, columns.y, columns.z};
        for (int r = 0; r < 3; ++r) {
            bool number = !chosen[r].empty();
            for (char c : chosen[r]) number &= c >= '0' && c <= '9';
            if (columns.guess[r] && header) t.xyz[r] = guess.column[r];
            else if (number) t.xyz[r] = std::stoi(chosen[r]) - 1;
            else if (header) t.xyz[r] = static_cast<int>(t.names.indexOf(QString::fromStdString(chosen[r]), 0));
            if (t.xyz[r] < 0 && header)
                for (int i = 0; i < t.names.size(); ++i)
                    if (t.names[i].compare(QString::fromStdString(chosen[r]), Qt::CaseInsensitive) == 0) t.xyz[r] = i;
        }
    } catch (const std::exception&) {
    }
    for (std::size_t k = header ? 1 : 0; k < lines.size(); ++k) {
        // Each line after the first one the reader saw, so that it decides
        // the header and the separator as it did for the whole file.
        const long n = k == 0 ? firstPoints
                              : PointsOf(first + lines[k].second.toStdString() + "\n", file, columns) - (header ? 0 : firstPoints);
        if (n != 1) continue;  // skipped as missing
        t.rows.push_back(Split(lines[k].second, sep));
        t.lines.push_back(lines[k].first);
    }
    if (t.rows.size() != expected) return {};
    return t;
}

KaPointAttributeTable ReadVector(const QString& path, std::size_t expected)
{
    KaPointAttributeTable t;
    KaIoInit();
    std::unique_ptr<GDALDataset> ds(GDALDataset::Open(path.toUtf8().constData(), GDAL_OF_VECTOR | GDAL_OF_READONLY));
    if (!ds) return t;
    for (OGRLayer* layer : ds->GetLayers()) {
        if (layer->GetGeomType() == wkbNone) continue;
        OGRFeatureDefn* defn = layer->GetLayerDefn();
        if (t.names.isEmpty())
            for (int i = 0; i < defn->GetFieldCount(); ++i) t.names << QString::fromUtf8(defn->GetFieldDefn(i)->GetNameRef());
        for (auto& feature : *layer) {
            const OGRGeometry* g = feature->GetGeometryRef();
            if (!g) continue;
            QStringList row;
            for (int i = 0; i < defn->GetFieldCount(); ++i)
                row << (feature->IsFieldSetAndNotNull(i) ? QString::fromUtf8(feature->GetFieldAsString(i)) : QStringLiteral("null"));
            const int parts = wkbFlatten(g->getGeometryType()) == wkbMultiPoint ? g->toMultiPoint()->getNumGeometries() : 1;
            for (int p = 0; p < parts; ++p) t.rows.push_back(row);
        }
    }
    // Features skipped for a null z cannot be told apart here: a table that
    // does not match is not shown rather than shown wrong.
    if (t.rows.size() != expected) return {};
    return t;
}

}  // namespace

KaPointAttributeTable KaReadPointAttributes(const QString& path, const KaPointColumns& columns, std::size_t expectedCount)
{
    if (LooksLikeTextPoints(path.toStdString())) return ReadText(path, columns, expectedCount);
    return ReadVector(path, expectedCount);
}
