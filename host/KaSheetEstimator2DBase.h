#pragma once

#include <memory>

#include "pages/KaPageEstimatorBase.h"
#include "platform/kabaseui/KaBaseDialog.h"

class KaEstimatorGridParam;

// The tabbed dialog of one gridding method. It keeps the method's record;
// its pages are filled from it when it is set and write into it on OK.
class KaSheetEstimator2DBase : public KaSheetDialogBase, public KaPageRecordHolder {
    Q_OBJECT
public:
    using RecordCopier = std::unique_ptr<KaEstimatorGridParam> (*)(const KaEstimatorGridParam&);

    explicit KaSheetEstimator2DBase(QWidget* parent = nullptr);
    ~KaSheetEstimator2DBase() override;

    // Every page in tab order: checked (a failure shows "Getting parameter
    // error!", switches to the page and keeps the dialog open), then gathered
    // into the record (a failure switches to the page, no message).
    bool OnApply() override;
    // Stores the record (the dialog owns it) and fills every page from it.
    // False when there is no tab widget.
    virtual bool SetTaskParameter(KaEstimatorGridParam* record);
    // The page at `index` writes into `record`.
    virtual bool GatherPageParameter(KaEstimatorGridParam* record, int index);

    KaEstimatorGridParam* GetParameter() const override { return record_.get(); }
    // A copy of the record for one job, so that the dialog can be accepted
    // again; null without a record or a copier.
    std::unique_ptr<KaEstimatorGridParam> CopyParameter() const;
    void SetRecordCopier(RecordCopier copier) { copier_ = copier; }

    KaPageEstimatorBase* Page(int index) const;

private:
    std::unique_ptr<KaEstimatorGridParam> record_;
    RecordCopier copier_ = nullptr;
};
