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

std::array<int, 3> KaColumnsDialog::Guess(const KaPointFileColumns& layout)
{
    static const std::vector<std::string> kHints[3] = {
        {"x", "east", "easting", "eastings", "lon", "long", "longitude"},
        {"y", "north", "northing", "northings", "lat", "latitude"},
        {"z", "elev", "elevation", "height", "depth", "value", "altitude", "level", "thickness"},
    };
    const std::size_t n = layout.names.size();
    std::array<int, 3> pick = {-1, -1, -1};
    std::vector<bool> taken(n, false);
    auto claim = [&](int role, std::size_t column) {
        pick[role] = static_cast<int>(column);
        taken[column] = true;
    };
    // The name itself, then the name's first word ("depth_m", "Elev (m)").
    auto firstWord = [](const std::string& name) {
        std::size_t end = 0;
        while (end < name.size() && std::isalpha(static_cast<unsigned char>(name[end]))) ++end;
        return name.substr(0, end);
    };
    for (bool wholeName : {true, false})
        for (int role = 0; role < 3; ++role)
            for (std::size_t i = 0; i < n && pick[role] < 0; ++i) {
                const std::string name = Lower(layout.names[i]);
                const std::string key = wholeName ? name : firstWord(name);
                if (!taken[i] && std::find(kHints[role].begin(), kHints[role].end(), key) != kHints[role].end())
                    claim(role, i);
            }
    if (layout.vector) {
        if (pick[2] < 0 && n > 0) pick[2] = 0;
        return pick;
    }
    for (int role = 0; role < 3; ++role)
        for (std::size_t i = 0; i < n && pick[role] < 0; ++i)
            if (!taken[i] && (i >= layout.numeric.size() || layout.numeric[i])) claim(role, i);
    return pick;
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
        box->setCurrentIndex(Guess(layout)[k]);
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
