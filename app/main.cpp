// Process entry of ZRUIServer: the per-user dialog helper of the token stack.
#include "app/LogSink.h"
#include "app/StartupEnv.h"
#include "ui/UI_Service.h"

#include <QApplication>
#include <QDebug>
#include <QDesktopWidget>
#include <QLocale>
#include <QProcessEnvironment>
#include <QResource>
#include <QStyleFactory>
#include <QTextCodec>
#include <QTranslator>

#include <sys/prctl.h>

int main(int argc, char *argv[])
{
    // PINs pass through this process: no core dumps, no ptrace by peers.
    prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
    // Run as root, not the owner of every file: open(2) then refuses a log
    // file of another user by itself (see LogSink.cpp).
    dropFileOwnerOverride();

    // Nothing here draws with OpenGL, but the first window would load Qt's
    // GLX integration and the driver stack (tens of MB, tens of ms). A user
    // who chose an integration keeps it.
    if (!qEnvironmentVariableIsSet("QT_XCB_GL_INTEGRATION"))
        qputenv("QT_XCB_GL_INTEGRATION", "none");

    QApplication app(argc, argv);
    qInstallMessageHandler(printlogtofile);
    // Deliberate departure: no window close ever ends the process. The dialogs
    // come and go with the requests; the process ends only on a start-up
    // failure, a failed listen, the keep-alive or StopPipeListening().
    QApplication::setQuitOnLastWindowClosed(false);

    qDebug() << QProcessEnvironment::systemEnvironment().toStringList();

    // Registered before any check on purpose: the integrity check later may
    // look at another copy (working directory first); a missing file only
    // makes the ":/" lookups fail.
    const QString resourceFile = QCoreApplication::applicationDirPath() + "/resources.rcc";
    qDebug() << "resourcefile=" << resourceFile;
    QResource::registerResource(resourceFile, QString());

    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));

    QTranslator translator;
    const QString localeName = QLocale::system().name();
    qDebug() << "locale=" << localeName;
    const QString translationFile = chooseTranslationFile(localeName);
    translator.load(translationFile, QString(), QString(), QString());
    app.installTranslator(&translator);

    // Computed once; a later change of screen density is not followed.
    const float scale = static_cast<float>(QApplication::desktop()->logicalDpiX()) / 96.0f;

    // Relative on purpose: resolved against the working directory now.
    QCoreApplication::addLibraryPath("./plugins/");
    // Where the style does not exist the factory gives null and the default stays.
    QApplication::setStyle(QStyleFactory::create("GTK"));

    // Every start-up failure inside quits the loop below at once: exit status 0.
    UI_Service service(scale, nullptr);
    return app.exec();
}
