#include "platform/veskui/KaSheetTaskBaseDialog.h"

#include <QMessageBox>

#include "platform/veskui/KaMenuAgency.h"

bool KaSheetTaskBaseDialog::slotLoadData()
{
    if (parameter_ && parameter_->SetParameter()) return false;
    QMessageBox box(QMessageBox::Warning, tr("Reading segy"), "Fail to set parameter.", QMessageBox::NoButton,
                    GetMainWindow());
    box.addButton("Ok", QMessageBox::AcceptRole);
    box.exec();
    return false;
}
