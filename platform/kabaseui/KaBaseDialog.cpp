#include "platform/kabaseui/KaBaseDialog.h"

#include <QDialogButtonBox>
#include <QFile>
#include <QIcon>
#include <QPushButton>
#include <QTabWidget>
#include <QVBoxLayout>

KaBaseDialog::KaBaseDialog(QWidget* parent) : QDialog(parent)
{
    auto* layout = new QVBoxLayout(this);
    body_ = new QVBoxLayout;
    layout->addLayout(body_, 1);
    buttons_ = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    layout->addWidget(buttons_);
    connect(buttons_, &QDialogButtonBox::rejected, this, &QDialog::reject);
}

KaSheetDialogBase::KaSheetDialogBase(QWidget* parent) : KaBaseDialog(parent)
{
    tabs_ = new QTabWidget(this);
    BodyLayout()->addWidget(tabs_);
    connect(ButtonBox(), &QDialogButtonBox::accepted, this, &KaSheetDialogBase::slotOk);
}

int KaSheetDialogBase::AddPage(QWidget* page, const QString& name) { return tabs_->addTab(page, name); }

void KaSheetDialogBase::slotOk()
{
    if (OnApply()) accept();
}

QIcon GetPngIcon(const QString& name)
{
    const QString path = QStringLiteral(":/kabaseui/icons/%1.png").arg(name);
    if (!QFile::exists(path)) return QIcon();
    return QIcon(path);
}
