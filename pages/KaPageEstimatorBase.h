#pragma once

#include <QWidget>

class KaEstimatorGridParam;
class KaSheetEstimator2DBase;

// A tab of a method dialog. The dialog checks every page, then has each one
// copy its widgets into the record (GatherParameter); when it opens, each page
// fills its widgets from the record (LoadParameter).
class KaPageEstimatorBase : public QWidget {
    Q_OBJECT
public:
    explicit KaPageEstimatorBase(KaSheetEstimator2DBase* dialog, QWidget* parent = nullptr);

    KaSheetEstimator2DBase* GetDialog() const { return dialog_; }

    // Base: the dialog's record has a name, ordered bounds and non-zero counts.
    virtual bool CheckPage();
    // Base: copies nothing; true when a record is given.
    virtual bool GatherParameter(KaEstimatorGridParam* record);
    // Base: fills nothing and answers false.
    virtual bool LoadParameter(KaEstimatorGridParam* record);

private:
    KaSheetEstimator2DBase* dialog_;
};
