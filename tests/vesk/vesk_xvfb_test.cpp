// vesk end to end under a virtual X server, driven by real input events:
// xdotool moves the pointer, clicks and types through the X server, as a
// user's hands would. The test starts Xvfb itself and stops it at the end.
// A driver thread sends the input and waits for the window to reach each
// state (asked on the window's own thread); the window runs its event loop,
// modal dialogs included, undisturbed.

#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QApplication>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLineEdit>
#include <QMenu>
#include <QMenuBar>
#include <QPushButton>
#include <QSettings>
#include <QTemporaryDir>
#include <QStandardPaths>
#include <QTreeWidget>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <QScreen>
#include <QWindow>
#include <QAbstractItemView>

#include "apps/vesk/KaJobsPanel.h"
#include "apps/vesk/KaMapView.h"
#include "apps/vesk/KaStyleDialog.h"
#include "apps/vesk/KaVeskApp.h"
#include "apps/vesk/KaVeskWindow.h"
#include "platform/kabaseui/KaBaseDialog.h"
#include "platform/kadata/KaDataObject.h"
#include "platform/veskui/KaPluginMgr.h"
#include "platform/veskui/KaPopupWidgetMgr.h"

namespace {

namespace fs = std::filesystem;

pid_t g_xvfb = 0;

// Starts Xvfb on the first free display it finds; returns ":N" or "".
std::string StartXvfb()
{
    int fds[2];
    if (pipe(fds) != 0) return {};
    g_xvfb = fork();
    if (g_xvfb == 0) {
        close(fds[0]);
        const std::string fd = std::to_string(fds[1]);
        execlp("Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "1600x1000x24", "-nolisten", "tcp",
               "-noreset", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    // Xvfb writes its display number once it accepts connections.
    std::string number;
    char c;
    while (read(fds[0], &c, 1) == 1 && c != '\n') number += c;
    close(fds[0]);
    return number.empty() ? std::string() : ":" + number;
}

void StopXvfb()
{
    if (g_xvfb <= 0) return;
    kill(g_xvfb, SIGTERM);
    waitpid(g_xvfb, nullptr, 0);
    g_xvfb = 0;
}

// What the driver thread uses: real input through xdotool, questions to the
// window's thread, waits for a state.
class Driver {
public:
    explicit Driver(KaVeskWindow* window) : window_(window) {}

    template <typename F>
    auto Ask(F f)
    {
        decltype(f()) result{};
        QMetaObject::invokeMethod(window_, [&] { result = f(); }, Qt::BlockingQueuedConnection);
        return result;
    }
    void Do(const std::function<void()>& f)
    {
        QMetaObject::invokeMethod(window_, f, Qt::BlockingQueuedConnection);
    }
    // Waits for a state of the window, asked every few milliseconds.
    bool Until(const std::function<bool()>& done, const char* what, int timeoutMs = 30000)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (std::chrono::steady_clock::now() < end) {
            if (Ask(done)) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        ADD_FAILURE() << "timed out waiting for " << what;
        failed_ = true;
        return false;
    }
    void Xdo(const std::string& args)
    {
        const std::string command = "xdotool " + args;
        EXPECT_EQ(std::system(command.c_str()), 0) << command;
    }
    void Click(QPoint global, int button = 1)
    {
        Xdo("mousemove --sync " + std::to_string(global.x()) + " " + std::to_string(global.y()) + " click " +
            std::to_string(button));
    }
    void MoveTo(QPoint global)
    {
        Xdo("mousemove --sync " + std::to_string(global.x()) + " " + std::to_string(global.y()));
    }
    // Gives a top-level window the X input focus, as a window manager
    // would when it is clicked (there is none on the virtual server).
    void Focus(const std::function<QWidget*()>& which)
    {
        const unsigned long id = Ask([&] { return static_cast<unsigned long>(which()->winId()); });
        Xdo("windowfocus --sync " + std::to_string(id));
    }
    // Types into the widget that has the focus of the window under the
    // pointer (X gives keys to the window under the pointer without a window
    // manager).
    void Type(const std::string& text) { Xdo("type --delay 2 '" + text + "'"); }
    void Key(const std::string& keys) { Xdo("key " + keys); }
    bool Failed() const { return failed_; }

    QPoint CentreOf(QWidget* w, QRect local) { return w->mapToGlobal(local.center()); }
    void Shot(const QString& name)
    {
        Do([&] {
            QDir(QStringLiteral(KA_BINARY_DIR "/screenshots")).mkpath(".");
            // The screen as X shows it, menus and dialogs included.
            QGuiApplication::primaryScreen()->grabWindow(0, 0, 0, 1400, 900).save(QStringLiteral(KA_BINARY_DIR "/screenshots/") + name + ".png");
        });
    }
    // A file dialog is up: the path typed into its name field, then Return.
    bool AnswerFileDialog(const std::string& path, const char* what)
    {
        if (!Until([] { return qobject_cast<QFileDialog*>(QApplication::activeModalWidget()) != nullptr; }, what))
            return false;
        MoveTo(Ask([] { return QApplication::activeModalWidget()->geometry().center(); }));
        Focus([] { return QApplication::activeModalWidget(); });
        Until([] { return QApplication::focusWidget() && qobject_cast<QLineEdit*>(QApplication::focusWidget()); },
              "the file name field's focus");
        Type(path);
        Key("Return");
        return Until([] { return QApplication::activeModalWidget() == nullptr; }, "the file dialog to close");
    }
    // Right-clicks a row of the object tree; the context menu that opens.
    QMenu* RightClickRow(int row)
    {
        const QPoint at = Ask([&] {
            QTreeWidget* tree = window_->ObjectTree();
            return tree->viewport()->mapToGlobal(tree->visualItemRect(tree->topLevelItem(row)).center());
        });
        Click(at, 3);
        if (!Until([] { return qobject_cast<QMenu*>(QApplication::activePopupWidget()) != nullptr; }, "the context menu"))
            return nullptr;
        return Ask([] { return qobject_cast<QMenu*>(QApplication::activePopupWidget()); });
    }
    // The centre of a menu entry, on screen.
    QPoint EntryOf(QMenu* menu, const QString& text)
    {
        return Ask([&] {
            for (QAction* a : menu->actions())
                if (a->text() == text) return menu->mapToGlobal(menu->actionGeometry(a).center());
            ADD_FAILURE() << "no entry " << text.toStdString();
            return QPoint();
        });
    }

private:
    KaVeskWindow* window_;
    bool failed_ = false;
};

TEST(VeskXvfb, OpenGridStyleSaveAndReopenWithRealInput)
{
    QStandardPaths::setTestModeEnabled(true);
    static QTemporaryDir settings;  // this process's settings alone (ctest runs two at once)
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, settings.path());
    QSettings().clear();
    const KaPluginEntry& plugin = KaPluginMgr::Instance().Load(QStringLiteral(KA_PLUGIN_FILE));
    ASSERT_TRUE(plugin.loaded) << plugin.error.toStdString();
    const fs::path dir = fs::path(KA_BINARY_DIR) / "vesk_test" / "xvfb";
    fs::remove_all(dir);
    fs::create_directories(dir);
    const std::string input = (dir / "wells.csv").string();
    fs::copy_file(KA_SOURCE_DIR "/data/sample_points.csv", input);
    const std::string project = (dir / "session.json").string();

    KaVeskWindow window;
    window.move(0, 0);
    window.resize(1400, 900);
    window.show();
    std::thread driver([&] {
        Driver d(&window);
        auto run = [&] {
            if (!d.Until([&] { return window.isVisible() && window.windowHandle()->isExposed(); }, "the window")) return;
            // File > Open through the keyboard shortcut, the file chosen in the dialog.
            d.MoveTo(d.Ask([&] { return window.MapView()->mapToGlobal(window.MapView()->rect().center()); }));
            d.Focus([&] { return static_cast<QWidget*>(&window); });
            d.Key("ctrl+o");
            if (!d.AnswerFileDialog(input, "the Open dialog")) return;
            if (!d.Until([&] { return window.FindObject("wells") != nullptr; }, "the points")) return;
            d.Shot("vesk_xvfb_opened");

            // Right-click the points, Create Interpolated Surface > Inverse Distance.
            QMenu* menu = d.RightClickRow(0);
            if (!menu) return;
            d.MoveTo(d.EntryOf(menu, "Create Interpolated Surface"));
            QMenu* sub = d.Ask([&] {
                for (QAction* a : menu->actions())
                    if (a->menu()) return a->menu();
                return static_cast<QMenu*>(nullptr);
            });
            if (!d.Until([&] { return sub && sub->isVisible(); }, "the gridding submenu")) return;
            d.Shot("vesk_xvfb_menu");
            d.Click(d.EntryOf(sub, "Inverse Distance to a Power"));
            if (!d.Until([] {
                    const QList<QWidget*> w = KaPopupWidgetMgr::Instance().Widgets();
                    return !w.isEmpty() && w.back()->isVisible();
                }, "the method dialog"))
                return;
            d.Click(d.Ask([] {
                auto* ok = KaPopupWidgetMgr::Instance().Widgets().back()->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Ok);
                return ok->mapToGlobal(ok->rect().center());
            }));
            if (!d.Until([&] { return window.FindObject("wells_Inverse") != nullptr; }, "the surface")) return;

            // Style it: the surface's menu, Style..., the next ramp, OK.
            menu = d.RightClickRow(1);
            if (!menu) return;
            d.Click(d.EntryOf(menu, "Style..."));
            if (!d.Until([] { return qobject_cast<KaStyleDialog*>(QApplication::activeModalWidget()) != nullptr; }, "the style dialog"))
                return;
            const QPoint combo = d.Ask([] {
                auto* box = QApplication::activeModalWidget()->findChild<QComboBox*>("CboRamp");
                return box->mapToGlobal(box->rect().center());
            });
            d.Click(combo);
            d.Until([] {
                auto* box = QApplication::activeModalWidget()->findChild<QComboBox*>("CboRamp");
                return box && box->view()->isVisible();
            }, "the ramp list");
            d.Focus([] { return QApplication::activeModalWidget(); });
            d.Key("Down");
            d.Key("Return");
            d.Until([] {
                auto* box = QApplication::activeModalWidget()->findChild<QComboBox*>("CboRamp");
                return box && !box->view()->isVisible() && box->currentText() == "magma";
            }, "magma chosen");
            d.Shot("vesk_xvfb_style");
            d.Click(d.Ask([] {
                auto* ok = QApplication::activeModalWidget()->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Ok);
                return ok->mapToGlobal(ok->rect().center());
            }));
            if (!d.Until([&] { return window.Style(window.FindObject("wells_Inverse")).ramp == KaRamp::Magma; }, "the style"))
                return;
            d.Shot("vesk_xvfb_styled");

            // Save the project (Ctrl+S), then open it again from the File menu.
            d.MoveTo(d.Ask([&] { return window.MapView()->mapToGlobal(window.MapView()->rect().center()); }));
            d.Focus([&] { return static_cast<QWidget*>(&window); });
            d.Key("ctrl+s");
            if (!d.AnswerFileDialog(project, "the Save Project dialog")) return;
            if (!d.Until([&] { return fs::is_regular_file(project); }, "the project file")) return;
            d.Click(d.Ask([&] {
                QAction* file = window.menuBar()->actions().front();
                return window.menuBar()->mapToGlobal(window.menuBar()->actionGeometry(file).center());
            }));
            if (!d.Until([] { return qobject_cast<QMenu*>(QApplication::activePopupWidget()) != nullptr; }, "the File menu"))
                return;
            QMenu* fileMenu = d.Ask([] { return qobject_cast<QMenu*>(QApplication::activePopupWidget()); });
            d.Click(d.EntryOf(fileMenu, "Open &Project..."));
            if (!d.AnswerFileDialog(project, "the Open Project dialog")) return;
            d.Until([&] {
                QTreeWidget* log = window.EventLog();
                for (int i = 0; i < log->topLevelItemCount(); ++i)
                    if (log->topLevelItem(i)->text(2).startsWith("Opened the project")) return window.Objects().size() == 2;
                return false;
            }, "the reopened project");
            d.Shot("vesk_xvfb_reopened");
        };
        run();
        QMetaObject::invokeMethod(qApp, &QCoreApplication::quit, Qt::QueuedConnection);
    });
    QApplication::exec();
    driver.join();

    // The reopened project: the points and the surface, styled as saved,
    // the surface read back from the GeoTIFF written beside the project.
    ASSERT_EQ(window.Objects().size(), 2u);
    const KaDataObject* surface = window.FindObject("wells_Inverse");
    ASSERT_NE(surface, nullptr);
    EXPECT_EQ(window.Style(surface).ramp, KaRamp::Magma);
    EXPECT_TRUE(fs::is_regular_file(dir / "session_files" / "wells_Inverse.tif"));
    EXPECT_NE(window.FindObject("wells"), nullptr);
    window.WaitForJobs();
}

}  // namespace

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    if (std::system("command -v xdotool >/dev/null 2>&1") != 0) {
        std::fprintf(stderr, "vesk_xvfb_test: xdotool is missing (apt-get install xdotool; scripts/deps.sh does)\n");
        return 1;
    }
    const std::string display = StartXvfb();
    if (display.empty()) {
        std::fprintf(stderr, "vesk_xvfb_test: cannot start Xvfb (apt-get install xvfb; scripts/deps.sh does)\n");
        return 1;
    }
    setenv("DISPLAY", display.c_str(), 1);
    setenv("QT_QPA_PLATFORM", "xcb", 1);
    unsetenv("QT_QPA_PLATFORMTHEME");
    int status = 1;
    {
        QApplication app(argc, argv);
        QCoreApplication::setOrganizationName(QStringLiteral("vesk-test"));
        QCoreApplication::setApplicationName(QStringLiteral("vesk-xvfb-test"));
        QApplication::setQuitOnLastWindowClosed(false);
        status = RUN_ALL_TESTS();
        EndVeskSession();
    }
    StopXvfb();
    return status;
}
