#include "apps/vesk/KaColumnsDialog.h"

#include <QComboBox>
#include <QDialogButtonBox>
#include <QFileInfo>
#include <QFormLayout>
#include <QLabel>
#include <QVBoxLayout>
#include <algorithm>
#include <cctype>

namespace {

std::string Lower(std::string s)
{
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

}  // namespace

bool KaColumnsDialog::NeedsChoice(const KaPointFileColumns& layout)
{
    if (layout.vector) return !layout.geometryZ && !layout.names.empty();
    if (!layout.header) return layout.names.size() != 3;
    return layout.names.size() < 3 || Lower(layout.names[0]) != "x" || Lower(layout.names[1]) != "y" ||
           Lower(layout.names[2]) != "z";
}

int KaColumnsDialog::Guess(const KaPointFileColumns& layout, char role)
{
    static const char* const kHints[3][7] = {
        {"x", "east", "easting", "lon", "longitude", "long", "x_coord"},
        {"y", "north", "northing", "lat", "latitude", "y_coord", "northings"},
        {"z", "elev", "elevation", "height", "depth", "value", "altitude"},
    };
    const int k = role == 'x' ? 0 : role == 'y' ? 1 : 2;
    for (const char* hint : kHints[k])
        for (std::size_t i = 0; i < layout.names.size(); ++i)
            if (Lower(layout.names[i]) == hint) return static_cast<int>(i);
    if (layout.vector) return layout.names.empty() ? -1 : 0;
    // Without a telling name: the columns in order after any the other roles
    // claimed by name.
    return k < static_cast<int>(layout.names.size()) ? k : -1;
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
    for (int k = layout.vector ? 2 : 0; k < 3; ++k) {
        auto* box = new QComboBox(this);
        box->setObjectName(QStringLiteral("Cbo%1").arg(QChar(roles[k]).toUpper()));
        for (std::size_t i = 0; i < layout.names.size(); ++i)
            box->addItem(layout.header || layout.vector ? QString::fromStdString(layout.names[i])
                                                        : tr("column %1").arg(i + 1));
        box->setCurrentIndex(Guess(layout, roles[k]));
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
