#pragma once

#include <QDialog>

class QDialogButtonBox;
class QTabWidget;
class QVBoxLayout;

// The host's dialog base: a body and an OK/Cancel row under it.
class KaBaseDialog : public QDialog {
    Q_OBJECT
public:
    explicit KaBaseDialog(QWidget* parent = nullptr);

    QVBoxLayout* BodyLayout() const { return body_; }
    QDialogButtonBox* ButtonBox() const { return buttons_; }

private:
    QVBoxLayout* body_;
    QDialogButtonBox* buttons_;
};

// A tabbed dialog whose OK asks OnApply() and closes only when it answers true.
class KaSheetDialogBase : public KaBaseDialog {
    Q_OBJECT
public:
    explicit KaSheetDialogBase(QWidget* parent = nullptr);

    // Appends a page (the dialog takes it over) under the tab `name`.
    int AddPage(QWidget* page, const QString& name);
    QTabWidget* GetTabWidget() const { return tabs_; }

    // Checks and takes the pages' values; true lets the dialog close accepted.
    virtual bool OnApply() { return true; }

public slots:
    // OK: accept() only when OnApply() agrees.
    void slotOk();

private:
    QTabWidget* tabs_;
};

// An icon served from the host's resources by name ("vesk_add"); a null icon
// for an unknown name.
class QIcon;
QIcon GetPngIcon(const QString& name);
