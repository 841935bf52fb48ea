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
    // Answers false in every case; when the record is missing or refuses its
    // "set parameter" check, a warning box says so first.
    virtual bool slotLoadData();

private:
    std::unique_ptr<KaTaskParameter> parameter_;
};
