#include "pages/KaPageDataMetrics.h"

#include <QCoreApplication>
#include <QGroupBox>
#include <QListWidget>
#include <QVBoxLayout>

#include "methods/KaEstDataMetrics.h"
#include "pages/KaPageFields.h"

KaPageDataMetrics::KaPageDataMetrics(KaPageRecordHolder* dialog, QWidget* parent)
    : KaPageEstimatorBase(dialog, parent)
{
    auto* group = new QGroupBox(tr("Metric"), this);
    metrics_ = new QListWidget(group);
    metrics_->setObjectName("ListMetrics");
    for (int m = 0; m < kDataMetricCount; ++m)
        metrics_->addItem(QCoreApplication::translate("KaPageDataMetrics", KaDataMetricDescription(m)));
    metrics_->setCurrentRow(kMetricMinimum);
    // Every description whole, without scrolling.
    const int frame = 2 * metrics_->frameWidth();
    metrics_->setMinimumSize(metrics_->sizeHintForColumn(0) + frame + 8,
                             metrics_->sizeHintForRow(0) * metrics_->count() + frame + 4);
    metrics_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    auto* inner = new QVBoxLayout(group);
    inner->addWidget(metrics_);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(group);
}

bool KaPageDataMetrics::CheckPage()
{
    if (metrics_->currentRow() < 0) return KaRefuseField(metrics_, tr("Please choose a metric!"));
    return true;
}

bool KaPageDataMetrics::GatherParameter(KaEstimatorGridParam* record)
{
    auto* p = dynamic_cast<KaEstDataMetricsParam*>(record);
    if (!p || metrics_->currentRow() < 0) return false;
    p->metric = metrics_->currentRow();
    return true;
}

bool KaPageDataMetrics::LoadParameter(KaEstimatorGridParam* record)
{
    auto* p = dynamic_cast<KaEstDataMetricsParam*>(record);
    if (!p) return false;
    // An unknown metric selects nothing, so the check refuses it.
    metrics_->setCurrentRow(p->metric >= 0 && p->metric < kDataMetricCount ? p->metric : -1);
    return true;
}
