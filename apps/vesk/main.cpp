#include <QApplication>
#include <QTextStream>

#include "apps/vesk/KaVeskApp.h"
#include "apps/vesk/KaVeskWindow.h"

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("vesk"));
    QCoreApplication::setApplicationName(QStringLiteral("vesk"));
    const KaVeskOptions options = ParseVeskArguments(QCoreApplication::arguments());
    if (!options.error.isEmpty()) {
        QTextStream(stderr) << "vesk: " << options.error << '\n';
        return 2;
    }
    int status = 0;
    {
        KaVeskWindow window;
        window.RestoreLayout();
        window.show();
        StartVeskSession(window, options);
        status = QApplication::exec();
    }
    EndVeskSession();
    return status;
}
