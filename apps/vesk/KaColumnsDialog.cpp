#include "apps/vesk/KaColumnsDialog.h"

#include <QComboBox>
#include <QDialogButtonBox>
#include <QFileInfo>
#include <QFormLayout>
#include <QLabel>
#include <QVBoxLayout>
#include <algorithm>

bool KaColumnsDialog::NeedsChoice(const KaPointFileColumns& layout)
{
    if (layout.vector) return !layout.geometryZ && !layout.names.empty();
    if (!layout.header) return layout.names.size() != 3;
    const KaPointColumnGuess g = GuessPointColumns(layout);
    // z must be called z for the reader to take it by name.
    return !(g.named[0] && g.named[1] && g.column[2] >= 0 &&
             QString::fromStdString(layout.names[g.column[2]]).trimmed().toLower() == QLatin1String("z"));
}

KaColumnsDialog::KaColumnsDialog(const QString& file, const KaPointFileColumns& layout, QWidget* parent)
    : QDialog(parent), layout_(layout)
{
    setWindowTitle(tr("Point Columns"));
    auto* top = new QVBoxLayout(this);
    top->addWidget(new QLabel(layout.vector ? tr("Which attribute of %1 holds z?").arg(QFileInfo(file).fileName())
                                            : tr("Which columns of %1 hold x, y and z?").arg(QFileInfo(file).fileName()),
                              this));
    auto* form = new QFormLayout;
    top->addLayout(form);
    const char roles[3] = {'x', 'y', 'z'};
    const KaPointColumnGuess guess = GuessPointColumns(layout);
    for (int k = layout.vector ? 2 : 0; k < 3; ++k) {
        auto* box = new QComboBox(this);
        box->setObjectName(QStringLiteral("Cbo%1").arg(QChar(roles[k]).toUpper()));
        for (std::size_t i = 0; i < layout.names.size(); ++i)
            box->addItem(layout.header || layout.vector ? QString::fromStdString(layout.names[i])
                                                        : tr("column %1").arg(i + 1));
        box->setCurrentIndex(guess.column[k]);
        form->addRow(QStringLiteral("%1:").arg(QChar(roles[k])), box);
        boxes_[k] = box;
    }
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    top->addWidget(buttons);
}

KaPointColumns KaColumnsDialog::Columns() const
{
    KaPointColumns c;
    // By number: a header may repeat a name.
    auto number = [](const QComboBox* box) { return std::to_string(box->currentIndex() + 1); };
    if (layout_.vector) {
        c.z = layout_.names.at(static_cast<std::size_t>(std::max(0, boxes_[2]->currentIndex())));
        return c;
    }
    c.x = number(boxes_[0]);
    c.y = number(boxes_[1]);
    c.z = number(boxes_[2]);
    return c;
}
