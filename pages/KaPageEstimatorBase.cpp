#include "pages/KaPageEstimatorBase.h"

#include "core/KaEstimatorGridParam.h"

KaPageEstimatorBase::KaPageEstimatorBase(KaPageRecordHolder* dialog, QWidget* parent)
    : QWidget(parent), dialog_(dialog)
{
}

bool KaPageEstimatorBase::CheckPage()
{
    const KaEstimatorGridParam* r = dialog_ ? dialog_->GetParameter() : nullptr;
    if (!r || r->name.empty()) return false;
    if (r->xMin > r->xMax || r->yMin > r->yMax) return false;
    return r->columnCount != 0 && r->rowCount != 0;
}

bool KaPageEstimatorBase::GatherParameter(KaEstimatorGridParam* record) { return record != nullptr; }

bool KaPageEstimatorBase::LoadParameter(KaEstimatorGridParam* record)
{
    (void)record;
    return false;
}
