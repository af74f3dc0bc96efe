#pragma once

#include "PINDialog.h"
#include "service/UiStatusHandler.h"

#include <QObject>
#include <QString>

#include <atomic>
#include <mutex>

class CertListDialog;
class FIFO_Service;
class MessageDialog;
class QSettings;
class QThread;
class QTimer;
class WaitingDialog;

/**
 * Coordinator in the GUI thread: runs the start-up environment steps, owns
 * the socket service and its thread, the dialogs and the keep-alive timer,
 * and holds the status fields through which dialog results reach the
 * socket thread.
 */
class UI_Service : public QObject, public UiStatusHandler
{
    Q_OBJECT
public:
    UI_Service(float scale, QObject *parent = nullptr);
    ~UI_Service() override;

    // Size of the PIN hand-off buffer.
    static constexpr unsigned long PIN_BUFFER_SIZE = 8448;

signals:
    void StartPipe();
    void StopPipe();
    void StartTtyCheck();
    void StopTtyCheck();

public slots:
    void on_list_dialog_show(ulong type, QString list);
    void on_list_dialog_hide();
    void on_message_dialog_show(QString title, QString message, ulong type);
    void on_message_dialog_hide();
    void on_waiting_dialog_show(QString info, ulong type);
    void on_waiting_dialog_hide();
    void on_pin_dialog_show(ulong type);
    void on_pin_dialog_hide();
    void on_start_pipe_failed();
    int GetPINMinLen() override;
    int GetPINMaxLen() override;
    int GetDefaultPIN(QString &defaultpin);
    int GetPINStatus(unsigned char **encpinbuff, ulong *encpinlen) override;
    void SetPINStatus(int status, unsigned char *encpinbuff, ulong encpinlen) override;
    void SetMsgStatus(int status) override;
    int GetMsgStatus() override;
    void SetListSelectStatus(int status, int index) override;
    void GetListSelectStatus(int &status, int &index) override;

public:
    // Read-only views for tests and diagnostics.
    WaitingDialog *currentWaitingDialog() const { return waitingDialog; }
    PINDialog *currentPinDialog() const { return pinDialog; }
    MessageDialog *currentMessageDialog() const { return messageDialog; }
    CertListDialog *currentListDialog() const { return listDialog; }
    FIFO_Service *service() const { return fifoService; }
    QTimer *keepAliveTimer() const { return exitTimer; }
    PINDialog::KeyBoardMode keyboardMode() const { return keyBoardMode; }
    bool isKeyboardVisible() const { return keyboardVisible; }

private slots:
    // No session is open any more (end of session or of the connection).
    void on_session_ended();

private:
    void prewarm();
    void wipePinResult();

    WaitingDialog *waitingDialog = nullptr;
    PINDialog *pinDialog = nullptr;
    PINDialog::KeyBoardMode keyBoardMode = PINDialog::SimpleKeyBoard;
    bool keyboardVisible = true;
    MessageDialog *messageDialog = nullptr;
    CertListDialog *listDialog = nullptr;
    FIFO_Service *fifoService = nullptr;
    QThread *serviceThread = nullptr;
    // Set by the service thread as its last act (release), read by the
    // destructor after wait() (acquire): QThread::wait() synchronises inside
    // QtCore alone, so without this pair ThreadSanitizer cannot see that the
    // thread's work is over before the service is deleted.
    std::atomic<bool> serviceThreadDone{false};
    QSettings *settings = nullptr;
    QSettings *protectedSettings = nullptr;
    // The hand-off fields are shared with the socket thread. The status is
    // published (release) after the buffer and the length, and read
    // (acquire) before them.
    std::atomic<int> pinStatus{-1};
    std::atomic<int> msgStatus{-2};
    std::atomic<int> listSelectStatus{-1};
    std::atomic<int> listSelectIndex{0};
    unsigned char *encPinBuff = nullptr;
    std::atomic<unsigned long> encPinLen{0};
    // Serialises the writers of encPinBuff: the socket thread wipes it for a
    // new request while a PIN dialog may still hand in a result.
    std::mutex pinBufferMutex;
    QTimer *exitTimer = nullptr;
    QString defaultPin;
    float scale = 1.0f;
    // GUI thread only. The open message box asks whether to retry a wrong PIN,
    // with this text; an accepted retry passes it on to the next PIN dialog.
    bool messageIsRetry = false;
    QString retryReason;
    QString pendingRetryHint;
};
