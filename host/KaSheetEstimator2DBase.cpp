#include "host/KaSheetEstimator2DBase.h"

#include <QMessageBox>
#include <QPushButton>
#include <QTabWidget>

#include "core/KaEstimatorGridParam.h"
#include "pages/KaPageEstimatorBase.h"

KaSheetEstimator2DBase::KaSheetEstimator2DBase(QWidget* parent) : KaSheetDialogBase(parent) {}

KaSheetEstimator2DBase::~KaSheetEstimator2DBase() = default;

KaPageEstimatorBase* KaSheetEstimator2DBase::Page(int index) const
{
    QTabWidget* tabs = GetTabWidget();
    return tabs ? qobject_cast<KaPageEstimatorBase*>(tabs->widget(index)) : nullptr;
}

bool KaSheetEstimator2DBase::OnApply()
{
    QTabWidget* tabs = GetTabWidget();
    const int count = tabs ? tabs->count() : 0;
    for (int i = 0; i < count; ++i) {
        KaPageEstimatorBase* page = Page(i);
        if (!page) return false;
        if (!page->CheckPage()) {
            QMessageBox box(QMessageBox::Warning, tr("Vesk"), "Getting parameter error!");
            box.addButton(tr("Ok"), QMessageBox::AcceptRole);
            box.exec();
            tabs->setCurrentIndex(i);
            return false;
        }
        if (!page->GatherParameter(record_.get())) {
            tabs->setCurrentIndex(i);
            return false;
        }
    }
    return true;
}

bool KaSheetEstimator2DBase::SetTaskParameter(KaEstimatorGridParam* record)
{
    if (record_.get() != record) record_.reset(record);
    QTabWidget* tabs = GetTabWidget();
    if (!tabs) return false;
    for (int i = 0; i < tabs->count(); ++i)
        if (KaPageEstimatorBase* page = Page(i)) page->LoadParameter(record);
    return true;
}

bool KaSheetEstimator2DBase::GatherPageParameter(KaEstimatorGridParam* record, int index)
{
    if (!record || !GetTabWidget()) return false;
    KaPageEstimatorBase* page = Page(index);
    return page && page->GatherParameter(record);
}

std::unique_ptr<KaEstimatorGridParam> KaSheetEstimator2DBase::CopyParameter() const
{
    if (!record_ || !copier_) return nullptr;
    return copier_(*record_);
}
