#pragma once

#include <QDialog>

#include "io/KaPointReader.h"

class QComboBox;

// Asks which columns of a point file hold x, y and z (for a vector file only
// which attribute holds z), with a guess from the column names preselected.
class KaColumnsDialog : public QDialog {
    Q_OBJECT
public:
    KaColumnsDialog(const QString& file, const KaPointFileColumns& layout, QWidget* parent = nullptr);

    KaPointColumns Columns() const;

    // True when the file cannot be read as it stands: a text file whose
    // columns are not x, y, z (a header naming all three as the reader's
    // guess knows them, or exactly three numbers a line), or a vector file
    // whose points carry no z of their own.
    static bool NeedsChoice(const KaPointFileColumns& layout);

private:
    KaPointFileColumns layout_;
    QComboBox* boxes_[3] = {nullptr, nullptr, nullptr};
};
