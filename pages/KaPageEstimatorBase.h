#pragma once

#include <QWidget>

class KaEstimatorGridParam;

// What a page sees of the dialog that shows it: the record being edited
// (the dialog may replace it after the pages were built, so it is asked
// each time). Pages know no more of the dialog than this.
class KaPageRecordHolder {
public:
    virtual KaEstimatorGridParam* GetParameter() const = 0;

protected:
    ~KaPageRecordHolder() = default;
};

// A tab of a method dialog. The dialog checks every page, then has each one
// copy its widgets into the record (GatherParameter); when it opens, each page
// fills its widgets from the record (LoadParameter).
class KaPageEstimatorBase : public QWidget {
    Q_OBJECT
public:
    explicit KaPageEstimatorBase(KaPageRecordHolder* dialog, QWidget* parent = nullptr);

    KaPageRecordHolder* GetDialog() const { return dialog_; }

    // Base: the dialog's record has a name, ordered bounds and non-zero counts.
    virtual bool CheckPage();
    // Base: copies nothing; true when a record is given.
    virtual bool GatherParameter(KaEstimatorGridParam* record);
    // Base: fills nothing and answers false.
    virtual bool LoadParameter(KaEstimatorGridParam* record);

private:
    KaPageRecordHolder* dialog_;
};
