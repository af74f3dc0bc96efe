#include "UI_Service.h"

#include "CertListDialog.h"
#include "MessageDialog.h"
#include "PINDialog.h"
#include "WaitingDialog.h"
#include "app/FileIntegrity.h"
#include "app/LogSink.h"
#include "app/StartupEnv.h"
#include "app/TokenLibs.h"
#include "service/FIFO_Service.h"
#include "service/Protocol.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QSettings>
#include <QStringList>
#include <QThread>
#include <QTimer>
#include <QWindow>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

namespace {

const char DEFAULT_LIBRARY_DIR[] = "/usr/lib/Orlentis_V5/std_5.1/lib/";

/*
 * The one way a start-up step gives up: a warning line, then quit as soon
 * as the event loop starts. The exit status stays 0 and no window is shown;
 * kept on purpose.
 */
void failExit(const char *text, const QString &whatToFix)
{
    qWarning("%s", text);
    // The log line above is the program's record; a person who started it
    // from a terminal or a unit is told here, in one sentence, what to fix.
    fprintf(stderr, "ZRUIServer: %s\n", whatToFix.toLocal8Bit().constData());
    QTimer::singleShot(0, qApp, &QCoreApplication::quit);
}

// "<dir>/<name>" for the places the program looks at, working directory first.
QString searchedPlaces(const char *name)
{
    return QStringLiteral("%1/%3 or %2/%3")
            .arg(QDir::currentPath(), QCoreApplication::applicationDirPath(), QLatin1String(name));
}

// The file to edit: an installed configuration is a link into /etc.
QString editablePath(const QString &file)
{
    const QFileInfo info(file);
    const QString canonical = info.canonicalFilePath();
    return canonical.isEmpty() ? info.absoluteFilePath() : canonical;
}

QString libraryHint(const QString &confFile, const QString &dir, const char *library)
{
    return QStringLiteral("cannot load the token library %1%2: set SAFEPATH in %3 to the "
                          "directory that holds libzrkapi.so, libzralg.so and libaux.so "
                          "(with a trailing slash).")
            .arg(dir, QLatin1String(library), editablePath(confFile));
}

// The status values -1 (pending) and -2 (initial) never close a dialog.
bool isFinalStatus(int status) { return static_cast<unsigned int>(status) < 2; }

// Hides and destroys a window without a close event, so it reports nothing.
template<typename Dialog>
void discardDialog(Dialog *&dialog)
{
    if (dialog) {
        dialog->hide();
        delete dialog;
        dialog = nullptr;
    }
}

} // namespace

/**
 * Runs the start-up environment steps in their fixed order, then builds the
 * socket service, its thread, the connections and the keep-alive timer.
 * Every failing step logs one warning and schedules quit(); the object is
 * then left partly built, and the destructor copes with every prefix.
 */
UI_Service::UI_Service(float scale, QObject *parent)
    : QObject(parent)
    , scale(scale)
{
    const QString confFile = locateConfigFile();
    if (confFile.isEmpty()) {
        failExit("cannot find ZRUIConf.ini! exited",
                 QStringLiteral("no configuration file at %1: create one with the line "
                                "SAFEPATH=<directory of the token libraries>/.")
                         .arg(searchedPlaces("ZRUIConf.ini")));
        return;
    }
    qDebug() << "SAFEPATH Settings:" << confFile << QFileInfo(confFile).absoluteFilePath();

    settings = new QSettings(confFile, QSettings::IniFormat, this);
    protectedSettings = new QSettings(":/protectedconf.ini", QSettings::IniFormat, this);
    settings->setIniCodec("UTF8");

    qDebug() << settings->allKeys();
    qDebug() << settings->value("SAFEPATH") << settings->value("SAFEPATH").toString();

    // Must end with "/": the loaders append the file names without one.
    const QString libraryBaseDir = settings->value("SAFEPATH", DEFAULT_LIBRARY_DIR).toString();
    qDebug() << "libraryBaseDir = " << libraryBaseDir;
    QByteArray libraryDir = libraryBaseDir.toLocal8Bit();

    if (!LoadLib_ZRKAPI(0, libraryDir.data())) {
        failExit("LoadLib_ZRKAPI failed, exit",
                 libraryHint(confFile, libraryBaseDir, "libzrkapi.so"));
        return;
    }
    if (!LoadLib_Alg(0, libraryDir.data())) {
        failExit("LoadLib_Alg Failed!", libraryHint(confFile, libraryBaseDir, "libzralg.so"));
        return;
    }
    if (!LoadLib_Aux(0, libraryDir.data())) {
        failExit("LoadLib_Aux Failed!", libraryHint(confFile, libraryBaseDir, "libaux.so"));
        return;
    }
    g_ZRConfig = AuxLoadKestrovaIni(0);
    if (!g_ZRConfig) {
        failExit("AuxLoadKestrovaIni Failed!",
                 QStringLiteral("the token stack in %1 returned no configuration: check its "
                                "installation or SAFEPATH in %2.")
                         .arg(libraryBaseDir, editablePath(confFile)));
        return;
    }

    // The copy checked here may differ from the one registered by main
    // (working directory first): kept on purpose.
    const QString resourceFile = locateResourceFile();
    if (resourceFile.isEmpty()) {
        failExit("cannot find resources.rcc! exited",
                 QStringLiteral("no resource file at %1: reinstall the program.")
                         .arg(searchedPlaces("resources.rcc")));
        return;
    }
    const QString resourceDir = QFileInfo(resourceFile).absolutePath() + "/";
    qDebug() << "resources.rcc:" << resourceDir;
    QByteArray resourceDirBytes = resourceDir.toLocal8Bit();
    char resourceName[] = "resources.rcc";
    if (!FileIntegrityProtect(resourceDirBytes.data(), resourceName)) {
        failExit("Integrity Protect Failed!",
                 QStringLiteral("the signature in %1integrityprotect.ini does not match "
                                "%1resources.rcc: reinstall both files together.")
                         .arg(resourceDir));
        return;
    }

    const QStringList softKeyboard
            = protectedSettings->value("softkeyboard", QStringLiteral("simple")).toStringList();
    qDebug() << "configuration: softkeyboard=" << softKeyboard;
    keyBoardMode = (!softKeyboard.isEmpty() && softKeyboard.at(0).toLower() == "full")
                           ? PINDialog::FullKeyBoard
                           : PINDialog::SimpleKeyBoard;
    keyboardVisible = !(softKeyboard.size() > 1 && softKeyboard.at(1).toLower() == "hide");
    defaultPin = protectedSettings->value("UIServer/defaultpin").toString();

    encPinBuff = static_cast<unsigned char *>(calloc(PIN_BUFFER_SIZE, 1));
    // Keep PIN bytes out of swap; without the lock the program still works.
    if (encPinBuff && mlock(encPinBuff, PIN_BUFFER_SIZE) != 0)
        qDebug() << "mlock of the PIN buffer failed, errno=" << errno;
    encPinLen.store(0);
    msgStatus.store(-2);
    waitingDialog = nullptr;
    pinDialog = nullptr;

    fifoService = new FIFO_Service(this, protectedSettings, nullptr);
    serviceThread = new QThread(this);
    fifoService->moveToThread(serviceThread);
    connect(
            serviceThread, &QThread::finished, this,
            [this] { serviceThreadDone.store(true, std::memory_order_release); },
            Qt::DirectConnection);

    // String-based on purpose: the types must match as written here.
    connect(this, SIGNAL(StartPipe()), fifoService, SLOT(CreatePipeAndListen()),
            Qt::AutoConnection);
    connect(this, SIGNAL(StopPipe()), fifoService, SLOT(StopPipeListening()), Qt::AutoConnection);
    connect(fifoService, SIGNAL(start_pipe_failed()), this, SLOT(on_start_pipe_failed()),
            Qt::AutoConnection);
    connect(fifoService, SIGNAL(show_list_dialog(unsigned long, QString)), this,
            SLOT(on_list_dialog_show(unsigned long, QString)), Qt::AutoConnection);
    connect(fifoService, SIGNAL(show_message_dialog(QString, QString, ulong)), this,
            SLOT(on_message_dialog_show(QString, QString, ulong)), Qt::AutoConnection);
    connect(fifoService, SIGNAL(show_waiting_dialog(QString, unsigned long)), this,
            SLOT(on_waiting_dialog_show(QString, unsigned long)), Qt::AutoConnection);
    connect(fifoService, SIGNAL(hide_waiting_dialog()), this, SLOT(on_waiting_dialog_hide()),
            Qt::AutoConnection);
    connect(fifoService, SIGNAL(show_pin_dialog(unsigned long)), this,
            SLOT(on_pin_dialog_show(unsigned long)), Qt::AutoConnection);
    connect(fifoService, SIGNAL(hide_pin_dialog()), this, SLOT(on_pin_dialog_hide()),
            Qt::AutoConnection);
    connect(fifoService, SIGNAL(hide_list_dialog()), this, SLOT(on_list_dialog_hide()),
            Qt::AutoConnection);
    connect(fifoService, SIGNAL(hide_message_dialog()), this, SLOT(on_message_dialog_hide()),
            Qt::AutoConnection);
    // The service announces "no session open" with this signal (after
    // REQ_EndSession and at the end of every connection): no PIN result may
    // outlive the session.
    connect(fifoService, SIGNAL(startExitTimer()), this, SLOT(on_session_ended()),
            Qt::AutoConnection);

    if (protectedSettings->contains("UIServer/keepaliveseconds")) {
        const int keepAlive = protectedSettings->value("UIServer/keepaliveseconds").toInt();
        if (keepAlive >= 1) {
            qDebug() << "socket service will exit after keep free " << keepAlive << " seconds";
            exitTimer = new QTimer(this);
            exitTimer->setInterval(keepAlive * 1000);
            exitTimer->setSingleShot(false);
            // Direct on purpose: StopPipeListening() runs in the GUI thread on
            // the tick, because the service thread never returns to its loop.
            connect(exitTimer, SIGNAL(timeout()), fifoService, SLOT(StopPipeListening()),
                    Qt::DirectConnection);
            connect(fifoService, SIGNAL(startExitTimer()), exitTimer, SLOT(start()),
                    Qt::AutoConnection);
            connect(fifoService, SIGNAL(stopExitTimer()), exitTimer, SLOT(stop()),
                    Qt::AutoConnection);
        }
    }

    serviceThread->start(QThread::InheritPriority);
    emit StartPipe();
    QTimer::singleShot(0, this, &UI_Service::prewarm);
}

/**
 * The first dialog of a process paid for fonts, style, form, native window
 * and cursor theme (several times a later one). Done here instead, when the
 * loop first goes idle after start-up: a PIN dialog is built, and in a
 * later turn, unless a dialog was asked for meanwhile, given its native
 * window and cursor and painted off screen; it is never shown. Its log
 * lines are dropped: nobody asked for that dialog.
 */
void UI_Service::prewarm()
{
    if (pinDialog)
        return;
    setThreadLogMuted(true);
    auto *warm = new PINDialog(keyBoardMode, keyboardVisible, 0, this, scale, nullptr);
    setThreadLogMuted(false);
    // Should the loop end before the next turn, the coordinator takes it along.
    connect(this, &QObject::destroyed, warm, [warm] { delete warm; });
    QTimer::singleShot(0, warm, [this, warm] {
        if (!pinDialog) {
            setThreadLogMuted(true);
            warm->winId();
            if (QWindow *window = warm->windowHandle())
                window->setCursor(Qt::ArrowCursor);
            warm->grab();
            setThreadLogMuted(false);
        }
        warm->deleteLater();
    });
}

/**
 * Stops the socket service and joins its thread, wipes and frees the PIN
 * buffer, then unloads the auxiliary and algorithm libraries. The device
 * library stays mapped until the process ends, on purpose. Open dialogs have
 * no parent and end with the process.
 */
UI_Service::~UI_Service()
{
    if (fifoService)
        fifoService->StopPipeListening();
    if (serviceThread) {
        serviceThread->quit();
        // The accept loop sets its listening flag when it starts, so a stop
        // that came before it (object destroyed right after construction)
        // would be lost: repeat the stop until the thread has ended.
        while (!serviceThread->wait(1500)) {
            if (fifoService)
                fifoService->StopPipeListening();
        }
    }
    // Pairs with the release in the service thread's last act.
    (void)serviceThreadDone.load(std::memory_order_acquire);
    if (fifoService)
        delete fifoService;
    if (encPinBuff) {
        explicit_bzero(encPinBuff, PIN_BUFFER_SIZE);
        munlock(encPinBuff, PIN_BUFFER_SIZE);
        free(encPinBuff);
        encPinBuff = nullptr;
    }
    FreeLib_Aux();
    FreeLib_Alg();
}

/**
 * Type 0 shows the list; type 1 answers at once "chosen, row -1" without a
 * window; other types change nothing, so the service keeps seeing -1.
 *
 * Deliberate departure: a new list replaces an open one. The old window goes
 * without reporting: the service has already set the status to pending for
 * the new request, so an answer from the old window would be taken for the
 * new one's.
 */
void UI_Service::on_list_dialog_show(ulong type, QString list)
{
    if (type == 0) {
        discardDialog(listDialog);
        listDialog = new CertListDialog(list, this, scale, nullptr);
        listDialog->show();
    } else if (type == 1) {
        listSelectIndex.store(-1, std::memory_order_relaxed);
        listSelectStatus.store(1, std::memory_order_release);
    }
}

void UI_Service::on_list_dialog_hide() { discardDialog(listDialog); }

/**
 * Deliberate departure: a new message replaces an open one, which goes
 * without reporting (the status already belongs to the new request).
 */
void UI_Service::on_message_dialog_show(QString title, QString message, ulong type)
{
    discardDialog(messageDialog);
    messageIsRetry = type == REQ_PIN_Retry;
    retryReason = message;
    messageDialog = new MessageDialog(title, message, type, this, scale, nullptr);
    messageDialog->show();
}

void UI_Service::on_message_dialog_hide() { discardDialog(messageDialog); }

/**
 * Both settings are read at every request. The time-out is handed over but
 * not used by the dialog (its countdown comes from the information text).
 * Deliberate departure: a new waiting window replaces an open one.
 */
void UI_Service::on_waiting_dialog_show(QString info, ulong type)
{
    const int timeout = protectedSettings
                                ? protectedSettings->value("UIServer/timeoutseconds", 0).toInt()
                                : 0;
    const QString safePath = settings ? settings->value("SAFEPATH", "").toString() : QString();
    discardDialog(waitingDialog);
    waitingDialog = new WaitingDialog(info, type, timeout, safePath, scale, nullptr);
    waitingDialog->show();
}

void UI_Service::on_waiting_dialog_hide() { discardDialog(waitingDialog); }

/**
 * The only show slot that replaces an open dialog: the old PIN dialog (also
 * one hidden after OK) is destroyed, the last result wiped, and the status
 * set to pending before the new dialog appears.
 */
void UI_Service::on_pin_dialog_show(ulong type)
{
    discardDialog(pinDialog);
    {
        std::lock_guard<std::mutex> lock(pinBufferMutex);
        if (encPinBuff)
            explicit_bzero(encPinBuff, PIN_BUFFER_SIZE);
        encPinLen.store(0, std::memory_order_relaxed);
        pinStatus.store(-1, std::memory_order_release);
    }
    pinDialog = new PINDialog(keyBoardMode, keyboardVisible, type, this, scale, nullptr);
    if (!pendingRetryHint.isEmpty())
        pinDialog->showRetryHint(pendingRetryHint);
    pendingRetryHint.clear();
    pinDialog->show();
}

/**
 * Deliberate departure: the service hides the PIN dialog when the PIN is no
 * longer needed (REQ_PIN_Finish, the end of the connection), so the result
 * goes with it. The dialog wipes its fields as it is destroyed.
 */
void UI_Service::on_pin_dialog_hide()
{
    discardDialog(pinDialog);
    wipePinResult();
}

/**
 * Deliberate departure: no PIN result outlives its session; a later session
 * cannot ask for it anyway (it has to show a PIN dialog first).
 */
void UI_Service::on_session_ended()
{
    wipePinResult();
    pendingRetryHint.clear();
}

/**
 * Wipes the hand-off buffer and its length. The status is left as it is: the
 * request that could read the result again is no longer allowed.
 */
void UI_Service::wipePinResult()
{
    std::lock_guard<std::mutex> lock(pinBufferMutex);
    if (encPinBuff)
        explicit_bzero(encPinBuff, PIN_BUFFER_SIZE);
    encPinLen.store(0, std::memory_order_relaxed);
}

void UI_Service::on_start_pipe_failed()
{
    qDebug() << "call on_start_pipe_failed(), service will exit";
    fprintf(stderr,
            "ZRUIServer: cannot listen on the abstract socket @%s%u (is another "
            "ZRUIServer of this user running?); details in the log file.\n",
            qPrintable(QCoreApplication::applicationName()), unsigned(getuid()));
    QCoreApplication::quit();
}

// Signed 32-bit field of the token stack's shared record.
static int readConfigInt(int offset)
{
    if (!g_ZRConfig)
        return 0;
    int value = 0;
    memcpy(&value, static_cast<const char *>(g_ZRConfig) + offset, sizeof(value));
    return value;
}

int UI_Service::GetPINMinLen() { return readConfigInt(ZRCONFIG_PIN_MIN_OFFSET); }

int UI_Service::GetPINMaxLen() { return readConfigInt(ZRCONFIG_PIN_MAX_OFFSET); }

int UI_Service::GetDefaultPIN(QString &defaultpin)
{
    if (defaultPin.isEmpty())
        return -1;
    defaultpin = defaultPin;
    return 0;
}

/**
 * Hands out the buffer's address (not a copy) and its length. The status is
 * read first (acquire), so buffer and length are those published with it.
 */
int UI_Service::GetPINStatus(unsigned char **encpinbuff, ulong *encpinlen)
{
    const int status = pinStatus.load(std::memory_order_acquire);
    *encpinbuff = encPinBuff;
    *encpinlen = encPinLen.load(std::memory_order_relaxed);
    return status;
}

/**
 * Called from the socket thread with -1 (a new request: the old result is
 * wiped) and from the PIN dialog with 0 (cancel: wiped, dialog destroyed) or
 * 1 (OK: result copied, dialog hidden but kept). The status is published
 * after the buffer and the length, so the reader never sees a status with
 * stale bytes.
 */
void UI_Service::SetPINStatus(int status, unsigned char *encpinbuff, ulong encpinlen)
{
    {
        std::lock_guard<std::mutex> lock(pinBufferMutex);
        if (encpinlen > PIN_BUFFER_SIZE) {
            qDebug() << "SetPINStatus: result too long, len=" << encpinlen;
            encpinlen = 0;
        }
        if (encPinBuff) {
            if (status == -1 || status == 0)
                explicit_bzero(encPinBuff, PIN_BUFFER_SIZE);
            if (encpinlen != 0 && encpinbuff)
                memcpy(encPinBuff, encpinbuff, encpinlen);
        } else {
            encpinlen = 0;
        }
        encPinLen.store(encpinlen, std::memory_order_relaxed);
        pinStatus.store(status, std::memory_order_release);
    }
    if (status == 0) {
        on_pin_dialog_hide();
    } else if (status == 1 && pinDialog) {
        pinDialog->hide();
        // The result lives on in encPinBuff alone.
        pinDialog->wipeInput();
    }
}

void UI_Service::SetMsgStatus(int status)
{
    msgStatus.store(status, std::memory_order_release);
    // Final answers come from the box's buttons, in the GUI thread.
    if (isFinalStatus(status)) {
        pendingRetryHint = status == 1 && messageIsRetry ? retryReason : QString();
        messageIsRetry = false;
        on_message_dialog_hide();
    }
}

int UI_Service::GetMsgStatus() { return msgStatus.load(std::memory_order_acquire); }

void UI_Service::SetListSelectStatus(int status, int index)
{
    listSelectIndex.store(index, std::memory_order_relaxed);
    listSelectStatus.store(status, std::memory_order_release);
    if (isFinalStatus(status))
        on_list_dialog_hide();
}

void UI_Service::GetListSelectStatus(int &status, int &index)
{
    status = listSelectStatus.load(std::memory_order_acquire);
    index = listSelectIndex.load(std::memory_order_relaxed);
}
