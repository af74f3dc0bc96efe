#pragma once

#include "service/SessionTable.h"

#include <QElapsedTimer>
#include <QObject>
#include <QString>

#include <atomic>
#include <cstdint>

class QByteArray;
class QSettings;
struct sockaddr_un;
class UiStatusHandler;

/**
 * The per-user socket service. Lives in a thread of its own: once
 * CreatePipeAndListen() has started it blocks that thread for the life of
 * the process, so nothing queued to this object is delivered afterwards and
 * StopPipeListening() is called directly from the GUI thread.
 */
class FIFO_Service : public QObject
{
    Q_OBJECT
public:
    // The status hand-off is typed: the service calls its getters and
    // setters directly, from its own thread.
    FIFO_Service(UiStatusHandler *uiService, QSettings *settings, QObject *parent = nullptr);
    ~FIFO_Service() override;

    /** Serves one accepted connection of this user to its end; closes @p fd. */
    void ServeConnection(int fd);

signals:
    void start_pipe_failed();
    void pipe_comm_failed();
    void pipe_accept_failed();
    void startExitTimer();
    void stopExitTimer();
    void show_list_dialog(unsigned long, QString);
    void show_message_dialog(QString, QString, unsigned long);
    void show_waiting_dialog(QString, unsigned long);
    void hide_waiting_dialog();
    void show_pin_dialog(unsigned long type);
    void hide_pin_dialog();
    void hide_list_dialog();
    void hide_message_dialog();

public slots:
    void CreatePipeAndListen();
    void StopPipeListening();
    QString genPipeName();
    void SetTimeout(int timeout);
    bool CreateSoket(int *phSocket);
    int SendBuff(void *pdata, int datalen);
    int RecvBuff(void *pdata, int bufsize);
    bool RecvPack(void *pReqData);
    bool SendResp(unsigned long resp, void *data, unsigned long datalen);
    bool HandleClientRequest(void *reqPack);

private:
    UiStatusHandler *m_uiService;
    // Written by the GUI thread, read by the accept loop: atomic so the
    // hand-over is well defined.
    std::atomic<bool> m_Listening;
    int m_timeout;
    int m_hListenSocket;
    int m_sock;
    // The session state: the operations allowed next (SessionTable).
    SessionTable::OpSet m_allowedOps;
    uint64_t m_hDev;
    uint64_t m_hContext;

    // Kept on purpose: outlives connections, so an accepted retry re-shows
    // the type of the last PIN dialog of this process (0 if none).
    quint32 m_pintype = 0;
    // One request and one response buffer: one service thread, one
    // connection at a time. Wiped when a connection ends.
    alignas(8) unsigned char m_recvPack[COMMPACK_MAX_SIZE] = {};
    alignas(8) unsigned char m_sendPack[COMMPACK_MAX_SIZE] = {};

    // Set by the dispatcher while m_sendPack carries a PIN result, so the
    // sender redacts the hex dump and wipes the bytes after the write.
    bool m_sendHoldsPin = false;

    // Seconds a connection may send nothing while none of its windows is
    // open ("UIServer/idleseconds", read once in the constructor).
    int m_idleSeconds = 60;
    // The windows this connection has open, as its requests tell: the PIN
    // dialog from REQ_PIN_Show to REQ_PIN_Finish, the list until its answer
    // was delivered, the waiting window until REQ_Waiting_Finish.
    bool m_pinOpen = false;
    bool m_listOpen = false;
    bool m_waitingOpen = false;
    // A response could not be written within the send time-out.
    bool m_sendStalled = false;
    // Between requests: the first read of the next one is under way, since
    // m_idle (restarted while a window is open); m_idleEnded once the connection idled out.
    bool m_awaitingRequest = false;
    bool m_idleEnded = false;
    QElapsedTimer m_idle;

    int waitForMessageAnswer(UiStatusHandler *ui);
    bool idledOut();
    bool windowOpen() const;
    void endConnection();
    void reportNameHolder(const QByteArray &name, const sockaddr_un &addr, unsigned int addrLen);
};
