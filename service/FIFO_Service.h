#pragma once

#include <QObject>
#include <QSet>
#include <QString>

#include <atomic>
#include <cstdint>

class QSettings;
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
    FIFO_Service(QObject *uiService, QSettings *settings, QObject *parent = nullptr);
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
    QObject *m_uiService;
    // Written by the GUI thread, read by the accept loop: atomic so the
    // hand-over is well defined.
    std::atomic<bool> m_Listening;
    int m_timeout;
    int m_hListenSocket;
    int m_sock;
    QSet<quint64> m_allowedOps;
    uint64_t m_hDev;
    uint64_t m_hContext;
    QSettings *m_settings;

    // Set by the dispatcher while sendPack carries a PIN result, so the
    // sender redacts the hex dump and wipes the bytes after the write.
    bool m_sendHoldsPin = false;

    UiStatusHandler *statusHandler() const;
    int waitForMessageAnswer(UiStatusHandler *ui);
    void endConnection();
};
