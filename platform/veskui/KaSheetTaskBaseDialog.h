#pragma once

#include <memory>

#include "platform/kabaseui/KaBaseDialog.h"
#include "platform/kamessageroute/KaTask.h"

// The host's dialog for a task's parameter record (owned by the dialog).
class KaSheetTaskBaseDialog : public KaSheetDialogBase {
    Q_OBJECT
public:
    explicit KaSheetTaskBaseDialog(KaTaskParameter* parameter, QWidget* parent = nullptr)
        : KaSheetDialogBase(parent), parameter_(parameter) {}

    KaTaskParameter* GetTaskParameter() const { return parameter_.get(); }

public slots:
    // Takes the record's values in; the base has nothing to load.
    virtual bool slotLoadData() { return false; }

private:
    std::unique_ptr<KaTaskParameter> parameter_;
};
