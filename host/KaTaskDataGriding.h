#pragma once

#include "platform/kamessageroute/KaTask.h"

// The parameter record of the "Data Gridding" task: nothing to set.
class KaTaskDataGridingParam : public KaTaskParameter {
    KA_DECLARE_RUNTIME_CLASS(KaTaskDataGridingParam)
public:
    KaTaskDataGridingParam();
    bool SetParameter() override { return true; }
};

// The host task "Data Gridding": opens its (empty) parameter dialog; the
// gridding itself runs from the menu's dialogs.
class KaTaskDataGriding : public KaTask {
    KA_DECLARE_RUNTIME_CLASS(KaTaskDataGriding)
public:
    KaTaskDataGriding();
    bool Execute() override;
};
