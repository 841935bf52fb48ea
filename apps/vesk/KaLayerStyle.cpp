#include "apps/vesk/KaLayerStyle.h"

#include <QJsonValue>
#include <algorithm>
#include <cmath>

#include "platform/kadata/KaDataObject.h"

QString KaStretchName(KaStretch stretch)
{
    switch (stretch) {
    case KaStretch::Percent2To98: return QStringLiteral("2-98%");
    case KaStretch::User: return QStringLiteral("user");
    case KaStretch::MinMax: break;
    }
    return QStringLiteral("min-max");
}

QJsonObject KaLayerStyle::ToJson() const
{
    QJsonObject j;
    j[QStringLiteral("ramp")] = QString::fromLatin1(KaRampName(ramp));
    j[QStringLiteral("stretch")] = KaStretchName(stretch);
    if (stretch == KaStretch::User) {
        j[QStringLiteral("min")] = userMin;
        j[QStringLiteral("max")] = userMax;
    }
    if (contourInterval > 0) {
        j[QStringLiteral("contourInterval")] = contourInterval;
        j[QStringLiteral("contourLabels")] = contourLabels;
    }
    return j;
}

bool KaLayerStyle::FromJson(const QJsonObject& j, KaLayerStyle* style, QString* error)
{
    KaLayerStyle s;
    auto fail = [error](const QString& text) {
        if (error) *error = text;
        return false;
    };
    if (j.contains(QStringLiteral("ramp"))) {
        if (!j[QStringLiteral("ramp")].isString() || !KaRampFromName(j[QStringLiteral("ramp")].toString().toStdString(), &s.ramp))
            return fail(QStringLiteral("style key 'ramp': not a colour ramp (viridis, magma, cividis, blue-red)"));
    }
    if (j.contains(QStringLiteral("stretch"))) {
        const QString name = j[QStringLiteral("stretch")].toString();
        bool found = false;
        for (KaStretch k : {KaStretch::MinMax, KaStretch::Percent2To98, KaStretch::User})
            if (name == KaStretchName(k)) s.stretch = k, found = true;
        if (!found) return fail(QStringLiteral("style key 'stretch': not one of min-max, 2-98%, user"));
    }
    for (auto [key, target] : {std::pair{"min", &s.userMin}, std::pair{"max", &s.userMax},
                               std::pair{"contourInterval", &s.contourInterval}}) {
        const QJsonValue v = j[QLatin1String(key)];
        if (v.isUndefined()) continue;
        if (!v.isDouble() || !std::isfinite(v.toDouble()))
            return fail(QStringLiteral("style key '%1': not a number").arg(QLatin1String(key)));
        *target = v.toDouble();
    }
    if (s.contourInterval < 0) return fail(QStringLiteral("style key 'contourInterval': below 0"));
    if (j.contains(QStringLiteral("contourLabels"))) s.contourLabels = j[QStringLiteral("contourLabels")].toBool(true);
    *style = s;
    return true;
}

double KaStretchRange::Position(double v) const
{
    if (!(hi > lo)) return 0.5;
    return std::clamp((v - lo) / (hi - lo), 0.0, 1.0);
}

std::vector<double> KaLayerValues(const KaDataObject& object, bool* anyBlank)
{
    std::vector<double> out;
    if (anyBlank) *anyBlank = false;
    if (auto* s = dynamic_cast<const KaSurface*>(&object)) {
        const KaTDataMatrix2D<double>& m = s->GridData();
        if (m.IsEmpty()) return out;
        out.reserve(m.Size());
        for (std::size_t i = 0; i < m.Size(); ++i) {
            if (KaIsBlankNode(m.data[i], s->GetInvalidValue())) {
                if (anyBlank) *anyBlank = true;
            } else {
                out.push_back(m.data[i]);
            }
        }
    } else if (auto* p = dynamic_cast<const KaScatteredPoints*>(&object)) {
        out.reserve(p->Points().size());
        for (const Ka3DPoint& q : p->Points()) out.push_back(q.z);
    }
    return out;
}

KaStretchRange KaStyleRange(const KaDataObject& object, const KaLayerStyle& style)
{
    KaStretchRange r;
    if (style.stretch == KaStretch::User) {
        bool blank = false;
        const std::vector<double> v = KaLayerValues(object, &blank);
        r.lo = std::min(style.userMin, style.userMax);
        r.hi = std::max(style.userMin, style.userMax);
        r.anyValue = !v.empty();
        r.anyBlank = blank;
        return r;
    }
    std::vector<double> v = KaLayerValues(object, &r.anyBlank);
    if (v.empty()) return r;
    r.anyValue = true;
    if (style.stretch == KaStretch::MinMax) {
        const auto [lo, hi] = std::minmax_element(v.begin(), v.end());
        r.lo = *lo;
        r.hi = *hi;
        return r;
    }
    // Nearest rank: the k-th smallest with k = ceil(p * n), 1-based.
    auto rank = [&](double p) {
        const std::size_t n = v.size();
        std::size_t k = static_cast<std::size_t>(std::ceil(p * static_cast<double>(n)));
        k = std::clamp<std::size_t>(k, 1, n) - 1;
        std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(k), v.end());
        return v[k];
    };
    r.lo = rank(0.02);
    r.hi = rank(0.98);
    return r;
}
