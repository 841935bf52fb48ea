#pragma once

#include <QJsonObject>
#include <QString>
#include <vector>

#include "io/KaColourMap.h"

class KaDataObject;

// How the values of a layer map onto its ramp.
enum class KaStretch { MinMax, Percent2To98, User };

// How one surface or point set is drawn: a colour ramp over a stretch of its
// values, and for surfaces contour lines at an interval.
struct KaLayerStyle {
    KaRamp ramp = KaRamp::Viridis;
    KaStretch stretch = KaStretch::MinMax;
    double userMin = 0.0, userMax = 0.0;  // the range of KaStretch::User
    double contourInterval = 0.0;         // 0: no contours
    bool contourLabels = true;

    bool operator==(const KaLayerStyle&) const = default;

    QJsonObject ToJson() const;
    // Unknown or missing keys keep their defaults; false with `error` set for
    // a value of the wrong kind or an unknown ramp or stretch.
    static bool FromJson(const QJsonObject& json, KaLayerStyle* style, QString* error);
};

QString KaStretchName(KaStretch stretch);  // "min-max", "2-98%", "user"

// The value range a style stretches the ramp over: the non-blank values'
// extremes, their 2nd and 98th percentiles (nearest rank), or the user's.
// `anyValue` false when there is nothing to stretch.
struct KaStretchRange {
    double lo = 0.0, hi = 0.0;
    bool anyValue = false, anyBlank = false;
    // Where v lies on the ramp, clamped to [0, 1]; 0.5 when lo == hi.
    double Position(double v) const;
};
KaStretchRange KaStyleRange(const KaDataObject& object, const KaLayerStyle& style);

// The non-blank values of a surface, or the z of a point set, in storage order.
std::vector<double> KaLayerValues(const KaDataObject& object, bool* anyBlank = nullptr);
