#include "app/gui/Gui.h"

#include <QApplication>
#include <QIcon>
#include <QMessageBox>
#include <QStatusBar>

#include "app/Application.h"
#include "app/gui/MainWindow.h"
#include "app/gui/QueuePump.h"
#include "transfer/FileTransferTaskManager.h"

namespace quillon::gui {

int run(int argc, char** argv, const std::optional<std::string>& location) {
    QApplication qt(argc, argv);
    QApplication::setApplicationName("Quillon");
    QApplication::setDesktopFileName("quillon");
    QApplication::setWindowIcon(QIcon::fromTheme("quillon"));
    QueuePump pump;
    Application app;  // a long run: the cloud merge waits on main-queue timers
    if (auto r = app.start(); !r) {
        QMessageBox::critical(nullptr, QObject::tr("Quillon cannot start"),
                              QString::fromStdString(r.error().describe()));
        return 1;
    }
    int rc = 0;
    {
        MainWindow window(FileTransferTaskManager::sharedInstance(), location);
        for (auto& warning : app.warnings())
            window.statusBar()->showMessage(QString::fromStdString(warning.describe()));
        window.show();
        rc = QApplication::exec();
    }
    app.stop();
    return rc;
}

}  // namespace quillon::gui
