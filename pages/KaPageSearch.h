#pragma once

#include <cstdint>

#include "pages/KaPageEstimatorBase.h"

class QCheckBox;
class QGroupBox;
class QSpinBox;
class KaPreciseSpinBox;
class KaEstGridSearcherParam;

// The search ellipse widgets both search pages share. The radii run from 0 to
// 1e12 with 3 decimals (any data diagonal, times the default's 1.2), the angle
// from -360 to 360 degrees with 4 decimals.
class KaSearchEllipseBox {
public:
    explicit KaSearchEllipseBox(QWidget* page);

    QGroupBox* Box() const { return box_; }
    // Kept: both radii show the smaller of the record's two.
    void Load(const KaEstGridSearcherParam& record);
    void Gather(KaEstGridSearcherParam& record) const;

    KaPreciseSpinBox* radius1;
    KaPreciseSpinBox* radius2;
    KaPreciseSpinBox* angle;

private:
    QGroupBox* box_;
};

// The "Search" tab: sectors and counts, and the search ellipse.
class KaPageSearch : public KaPageEstimatorBase {
    Q_OBJECT
public:
    explicit KaPageSearch(KaPageRecordHolder* dialog, QWidget* parent = nullptr);

    // The counts lie in 1 .. countLimit (the record's maxFromAll when the page
    // was filled), the blank-sector count at most the sector count; the focus
    // goes to the first spin that fails.
    bool CheckPage() override;
    // Kept: useSearch takes the box's state as it is, though the fill showed
    // it inverted.
    bool GatherParameter(KaEstimatorGridParam* record) override;
    bool LoadParameter(KaEstimatorGridParam* record) override;

    int64_t CountLimit() const { return countLimit_; }

public slots:
    void slotSectorChanged(int count);
    void slotMaxFromAllChanged(int count);

private:
    QCheckBox* chkNoSearch_;
    QSpinBox* spinSectors_;
    QSpinBox* spinMaxFromAll_;
    QSpinBox* spinMaxFromEach_;
    QSpinBox* spinMinInAll_;
    QSpinBox* spinBlankSectors_;
    KaSearchEllipseBox ellipse_;
    int64_t countLimit_ = 2147483647;
};

// The search ellipse alone (the nearest neighbour dialog's "General" tab).
class KaPageSearchEllipse : public KaPageEstimatorBase {
    Q_OBJECT
public:
    explicit KaPageSearchEllipse(KaPageRecordHolder* dialog, QWidget* parent = nullptr);

    bool CheckPage() override { return true; }
    bool GatherParameter(KaEstimatorGridParam* record) override;
    bool LoadParameter(KaEstimatorGridParam* record) override;

private:
    KaSearchEllipseBox ellipse_;
};
