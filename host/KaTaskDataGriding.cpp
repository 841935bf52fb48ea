#include "host/KaTaskDataGriding.h"

#include "platform/veskui/KaMenuAgency.h"
#include "platform/veskui/KaSheetTaskBaseDialog.h"

namespace {
KaObject* CreateTask() { return new KaTaskDataGriding; }
KaObject* CreateTaskParam() { return new KaTaskDataGridingParam; }
}  // namespace

KA_IMPLEMENT_RUNTIME_CLASS(KaTaskDataGridingParam, KaTaskParameter, CreateTaskParam)
KA_IMPLEMENT_RUNTIME_CLASS(KaTaskDataGriding, KaTask, CreateTask)

namespace {
const KaClassRegistration g_taskClass(KaTaskDataGriding::GetThisClass());
const KaClassRegistration g_taskParamClass(KaTaskDataGridingParam::GetThisClass());
}  // namespace

KaTaskDataGridingParam::KaTaskDataGridingParam() { SetName("Data Gridding"); }

KaTaskDataGriding::KaTaskDataGriding() { SetName("Data Gridding"); }

bool KaTaskDataGriding::Execute()
{
    auto* dialog = new KaSheetTaskBaseDialog(new KaTaskDataGridingParam, GetMainWindow());
    dialog->setWindowTitle("Data Gridding");
    QObject::connect(dialog, &QDialog::accepted, dialog, &KaSheetTaskBaseDialog::slotLoadData);
    dialog->show();
    return true;
}
