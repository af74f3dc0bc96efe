#include "FIFO_Service.h"

#include "app/TokenLibs.h"
#include "service/ActivatedSocket.h"
#include "service/Protocol.h"
#include "service/SessionTable.h"
#include "service/UiStatusHandler.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QDebug>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QMetaObject>
#include <QSettings>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// Size of sockaddr_un on Linux: 2 bytes of family and 108 of path.
constexpr unsigned int kAddrSize = sizeof(sockaddr_un);
static_assert(kAddrSize == 110, "sockaddr_un is expected to be 110 bytes");

// Deliberate departure: one client must not hold the service. A request
// that has begun must be complete within this time, and a response must be
// taken within it.
constexpr int kRequestCompleteMs = 5000;
// How often an idle connection re-checks whether one of its windows is up
// (the user answers without the client sending anything).
constexpr int kIdleStepMs = 250;
// A message-box client that left: the wait ends without an answer.
constexpr int kMsgClientGone = -3;
constexpr int kDefaultIdleSeconds = 60;

quint32 readU32(const void *pack, int offset)
{
    quint32 v;
    memcpy(&v, static_cast<const unsigned char *>(pack) + offset, sizeof v);
    return v;
}

/**
 * A NUL-terminated UTF-8 string of a request buffer (COMMPACK_MAX_SIZE bytes)
 * at @p offset. Bounded by the buffer's end: a request that fills the whole
 * buffer has no terminator.
 */
QString readString(const void *pack, unsigned long offset)
{
    if (offset >= COMMPACK_MAX_SIZE)
        return QString();
    const char *p = static_cast<const char *>(pack) + offset;
    return QString::fromUtf8(p, int(strnlen(p, COMMPACK_MAX_SIZE - offset)));
}

QByteArray hexOf(const void *data, int len)
{
    if (len <= 0)
        return QByteArray();
    return QByteArray::fromRawData(static_cast<const char *>(data), len).toHex();
}

} // namespace

/**
 * Builds the abstract socket address for @p name: a leading NUL, then the
 * name. The length counts the family, the leading NUL and the name, not the
 * trailing NUL. Names of 107 bytes or more do not fit and leave everything
 * untouched.
 */
static bool makeAddr(const char *name, sockaddr_un *addr, unsigned int *len)
{
    const size_t nameLen = strlen(name);
    if (nameLen >= 107)
        return false;
    memset(addr, 0, kAddrSize);
    addr->sun_family = AF_UNIX;
    memcpy(addr->sun_path + 1, name, nameLen + 1);
    *len = unsigned(nameLen) + 3;
    return true;
}

FIFO_Service::FIFO_Service(UiStatusHandler *uiService, QSettings *settings, QObject *parent)
    : QObject(parent)
    , m_uiService(uiService)
    , m_Listening(false)
    , m_timeout(1)
    , m_hListenSocket(-1)
    , m_sock(-1)
    , m_allowedOps(0)
    , m_hDev(0)
    , m_hContext(0)
{
    // Read here, in the creating thread: the settings object is not shared
    // with the service thread, and nothing else of it is needed later.
    if (settings) {
        bool ok = false;
        const int idle = settings->value("UIServer/idleseconds", kDefaultIdleSeconds).toInt(&ok);
        m_idleSeconds = ok && idle >= 1 ? idle : kDefaultIdleSeconds;
    }
}

// Closes nothing: the accept loop has released the sockets and handles
// before it returned.
FIFO_Service::~FIFO_Service() = default;

/**
 * Runs in the service thread for the life of the process: creates the
 * per-user socket and serves one client after the other until
 * StopPipeListening() clears m_Listening.
 */
void FIFO_Service::CreatePipeAndListen()
{
    emit startExitTimer();

    if (!CreateSoket(&m_hListenSocket)) {
        emit start_pipe_failed();
        return;
    }

    const QByteArray name = genPipeName().toUtf8();
    sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    unsigned int addrLen = 0;
    // Kept on purpose: a name that does not fit is only logged; bind() then
    // gets length 0 and fails.
    if (!makeAddr(name.constData(), &addr, &addrLen))
        qDebug() << "makeAddr() failed";

    // Socket activation: the service manager's socket, already listening on
    // this name, replaces the one just made (listen() below then only sets
    // the backlog).
    if (const int activated = ActivatedSocket::take(name, m_timeout); activated >= 0) {
        close(m_hListenSocket);
        m_hListenSocket = activated;
    } else if (bind(m_hListenSocket, reinterpret_cast<sockaddr *>(&addr), addrLen) != 0) {
        const int bindErr = errno;
        qDebug() << "bind() failed";
        if (bindErr == EADDRINUSE)
            reportNameHolder(name, addr, addrLen);
        emit start_pipe_failed();
        return;
    }
    if (listen(m_hListenSocket, 5) != 0) {
        qDebug() << "listen() failed";
        emit start_pipe_failed();
        return;
    }

    // Kept on purpose: address and length are set once, not per turn.
    sockaddr_un clientAddr;
    memset(&clientAddr, 0, sizeof clientAddr);
    socklen_t clientLen = kAddrSize;
    m_Listening = true;

    while (m_Listening) {
        qDebug() << "CreatePipeAndListen: call accept...";
        const int sock
                = accept(m_hListenSocket, reinterpret_cast<sockaddr *>(&clientAddr), &clientLen);
        if (sock < 0) {
            // The 1 s receive time-out lands here every second while nobody
            // connects: that is how the loop sees StopPipeListening().
            emit pipe_accept_failed();
            qDebug() << "pipe_accept_failed, m_Listening=" << m_Listening.load();
            continue;
        }
        const QByteArray clientPath(clientAddr.sun_path,
                                    int(strnlen(clientAddr.sun_path, sizeof clientAddr.sun_path)));
        qDebug() << "accepted: client_addr=" << clientPath.constData()
                 << ", client_len=" << clientLen;

        // Only processes of this user may talk to us; anyone else is turned
        // away before a single byte is read.
        ucred cred;
        socklen_t credLen = sizeof cred;
        if (getsockopt(sock, SOL_SOCKET, SO_PEERCRED, &cred, &credLen) != 0) {
            qDebug("rejected peer: getsockopt(SO_PEERCRED) failed, errno=%d", errno);
            close(sock);
            continue;
        }
        if (cred.uid != getuid()) {
            qDebug("rejected peer uid=%u pid=%d: not this user", unsigned(cred.uid), int(cred.pid));
            close(sock);
            continue;
        }

        ServeConnection(sock);
    }

    if (m_hListenSocket > 0) {
        close(m_hListenSocket);
        qDebug() << "m_hListenSocket:" << m_hListenSocket << " closed";
    }
    m_hListenSocket = -1;
    qDebug() << "Pipe Listening Exited, Exit Application";
    // Queued: QCoreApplication::quit() called from this thread would touch
    // the GUI thread's event loops without synchronisation.
    if (QCoreApplication *app = QCoreApplication::instance())
        QMetaObject::invokeMethod(app, "quit", Qt::QueuedConnection);
}

/**
 * Serves the connected socket @p fd from a fresh session (no handles, only
 * REQ_BeginSession allowed) until the connection ends, then cleans up and
 * closes @p fd. Runs in the service thread.
 */
void FIFO_Service::ServeConnection(int fd)
{
    m_hContext = 0;
    m_hDev = 0;
    m_allowedOps = SessionTable::Start;
    m_pinOpen = m_listOpen = m_waitingOpen = false;
    m_sendStalled = false;
    m_sock = fd;

    // A client that stops reading must not block the service in send().
    timeval sendTimeout;
    sendTimeout.tv_sec = kRequestCompleteMs / 1000;
    sendTimeout.tv_usec = 0;
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof sendTimeout);
    // The tick of the idle check while a request is awaited (RecvBuff).
    timeval idleStep;
    idleStep.tv_sec = 0;
    idleStep.tv_usec = kIdleStepMs * 1000;
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &idleStep, sizeof idleStep);

    for (;;) {
        memset(m_recvPack, 0, sizeof m_recvPack);
        if (!RecvPack(m_recvPack)) {
            qDebug() << "RecvPack() failed";
            emit pipe_comm_failed();
            break;
        }
        if (m_hDev != 0 && ZRK_IsDevPresent && ZRK_IsDevPresent(m_hDev) != 0) {
            qDebug() << "UI_TOKEN_NOT_PRESENT";
            SendResp(UI_TOKEN_NOT_PRESENT, nullptr, 0);
            break;
        }
        if (!HandleClientRequest(m_recvPack)) {
            qDebug() << "HandleClientRequest() failed";
            emit pipe_comm_failed();
            break;
        }
        if (m_sendStalled) {
            qDebug() << "client does not take its responses, connection closed";
            emit pipe_comm_failed();
            break;
        }
    }
    endConnection();
    m_sock = -1;
}

/**
 * Abstract names carry no permissions: any local user can take ours. Says
 * who holds @p name (SO_PEERCRED of a connection to it) in the log and on
 * stderr, so a squatter does not pass for a second instance.
 */
void FIFO_Service::reportNameHolder(const QByteArray &name, const sockaddr_un &addr,
                                    unsigned int addrLen)
{
    QByteArray line = "socket name @" + name;
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ucred cred;
    socklen_t credLen = sizeof cred;
    if (probe >= 0 && ::connect(probe, reinterpret_cast<const sockaddr *>(&addr), addrLen) == 0
        && getsockopt(probe, SOL_SOCKET, SO_PEERCRED, &cred, &credLen) == 0) {
        line += " is held by uid " + QByteArray::number(uint(cred.uid)) + " (pid "
                + QByteArray::number(int(cred.pid)) + ")";
    } else {
        line += " is held by a process that does not accept connections";
    }
    if (probe >= 0)
        close(probe);
    qDebug("%s", line.constData());
    fprintf(stderr, "%s\n", line.constData());
    fflush(stderr);
}

void FIFO_Service::endConnection()
{
    if (m_hDev != 0) {
        if (ZRK_Disconnect)
            ZRK_Disconnect(m_hDev);
        m_hDev = 0;
    }
    if (m_hContext != 0) {
        if (ZRK_ReleaseContext)
            ZRK_ReleaseContext(m_hContext);
        m_hContext = 0;
    }
    // No window outlives the connection that opened it.
    emit hide_pin_dialog();
    emit hide_waiting_dialog();
    emit hide_list_dialog();
    emit hide_message_dialog();
    qDebug() << "Service will auto exit after keepaliveseconds...";
    emit startExitTimer();
    // Kept on purpose: descriptor 0 is never closed.
    if (m_sock > 0) {
        close(m_sock);
        qDebug() << "Clean env, handle :" << m_sock << " closed";
    }
    explicit_bzero(m_recvPack, sizeof m_recvPack);
    explicit_bzero(m_sendPack, sizeof m_sendPack);
}

/**
 * Called directly from the GUI thread (the service thread is blocked in the
 * accept loop); the loop notices within the 1 s accept time-out.
 */
void FIFO_Service::StopPipeListening()
{
    qDebug() << "StopPipeListening";
    m_Listening = false;
}

/** The socket name: application name followed by the real user id. */
QString FIFO_Service::genPipeName()
{
    QString name = QCoreApplication::applicationName();
    if (name.isEmpty()) {
        qDebug() << "QCoreApplication::applicationName() failed";
        name = QFileInfo(QCoreApplication::applicationFilePath()).fileName();
    }
    name += QString::number(getuid());
    qDebug() << "genPipeName:" << name;
    return name;
}

void FIFO_Service::SetTimeout(int timeout) { m_timeout = timeout; }

bool FIFO_Service::CreateSoket(int *phSocket)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) {
        qDebug() << "error call socket()";
        return false;
    }
    if (m_timeout != 0) {
        timeval tv;
        tv.tv_sec = m_timeout;
        tv.tv_usec = 0;
        // Kept on purpose: the result is not checked.
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    *phSocket = fd;
    return true;
}

/**
 * One write of @p datalen bytes to the client. Returns datalen when all of
 * it went out, -1 otherwise, -2 without a connection. A response holding a
 * PIN is logged as its header and a redaction note, and its PIN bytes are
 * wiped right after the write.
 */
int FIFO_Service::SendBuff(void *pdata, int datalen)
{
    if (m_sock < 0) {
        qDebug() << "SendBuff():m_sock failed";
        return -2;
    }
    auto *bytes = static_cast<unsigned char *>(pdata);
    const bool holdsPin = m_sendHoldsPin && datalen >= COMMPACK_HEADER_SIZE;
    if (holdsPin) {
        const QByteArray note
                = "<" + QByteArray::number(datalen - COMMPACK_HEADER_SIZE) + " bytes redacted>";
        qDebug() << "SendBuff: Send" << hexOf(bytes, COMMPACK_HEADER_SIZE) << note.constData();
    } else {
        qDebug() << "SendBuff: Send" << hexOf(bytes, datalen);
    }
    // One system call, no retry, no EINTR loop. MSG_NOSIGNAL: a client that
    // leaves before reading its answer must not kill the process by SIGPIPE.
    const int writelen = int(send(m_sock, pdata, size_t(datalen < 0 ? 0 : datalen), MSG_NOSIGNAL));
    // The send time-out ran out: the client does not read (a part that
    // went out leaves the stream out of step as well).
    if ((writelen < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        || (writelen >= 0 && writelen < datalen))
        m_sendStalled = true;
    if (holdsPin)
        explicit_bzero(bytes + COMMPACK_HEADER_SIZE, size_t(datalen - COMMPACK_HEADER_SIZE));
    qDebug() << "SendBuff: Sended writelen=" << writelen;
    return writelen == datalen ? datalen : -1;
}

/**
 * One read of at most @p bufsize bytes. Returns the count (0 when the peer
 * has closed), -1 on an error, -2 without a connection. Never loops to fill
 * the buffer; only EINTR is retried.
 */
int FIFO_Service::RecvBuff(void *pdata, int bufsize)
{
    if (m_sock < 0) {
        qDebug() << "RecvBuff():m_sock failed";
        return -2;
    }
    for (;;) {
        qDebug() << "RecvBuff: read ......";
        int readlen;
        int err;
        // Deliberate departure: waiting for a request, the read wakes every
        // kIdleStepMs (the socket's receive time-out) to see whether the
        // connection idled out. One system call while requests keep coming.
        do {
            readlen = int(read(m_sock, pdata, size_t(bufsize < 0 ? 0 : bufsize)));
            err = errno;
        } while (readlen < 0 && err == EAGAIN && m_awaitingRequest && !idledOut());
        if (m_idleEnded)
            return -1;
        qDebug() << "RecvBuff: readed readlen=" << readlen << ",data=" << hexOf(pdata, readlen);
        if (readlen >= 0)
            return readlen;
        if (err != EINTR)
            return -1;
        qDebug() << "RecvBuff: EINTR goto again";
    }
}

/**
 * Assembles one request in @p pReqData (COMMPACK_MAX_SIZE bytes, zero-filled
 * by the caller): a first read of at least a header, then further reads until
 * datalen + 8 bytes are in.
 */
bool FIFO_Service::RecvPack(void *pReqData)
{
    auto *buf = static_cast<unsigned char *>(pReqData);
    const auto *hdr = static_cast<const COMMPACK *>(pReqData);

    qDebug() << "RecvPack: RecvBuff......";
    m_awaitingRequest = true;
    m_idleEnded = false;
    m_idle.start();
    int recvLen = RecvBuff(buf, COMMPACK_MAX_SIZE);
    m_awaitingRequest = false;
    if (m_idleEnded)
        return false;
    QElapsedTimer begun;
    begun.start();
    qDebug() << "RecvPack: RecvBuff recvLen=" << recvLen
             << ", sizeof(COMMPACK)=" << sizeof(COMMPACK)
             << ", ((PCOMMPACK)pReqData)->datalen=" << hdr->datalen;
    // Kept on purpose: the sign-extended count is compared unsigned, so a
    // failed read (-1, -2) passes and the zero-filled buffer reaches the
    // dispatcher as operation 0, which ends the connection with a state error.
    quint64 rcount = quint64(qint64(recvLen));
    if (rcount < sizeof(COMMPACK))
        return false;

    while (quint64(hdr->datalen) + COMMPACK_HEADER_SIZE > rcount) {
        qDebug() << "RecvPack: RecvBuff rcount=" << rcount;
        // Deliberate departure: the rest of a begun request has a deadline.
        pollfd pfd = {m_sock, POLLIN, 0};
        int ready;
        do {
            const qint64 left = kRequestCompleteMs - begun.elapsed();
            ready = left > 0 ? poll(&pfd, 1, int(left)) : 0;
        } while (ready < 0 && errno == EINTR);
        if (ready == 0) {
            qDebug("request not complete within %d ms, connection closed", kRequestCompleteMs);
            return false;
        }
        recvLen = RecvBuff(buf + rcount, int(COMMPACK_MAX_SIZE - rcount));
        qDebug() << "RecvPack: RecvBuff recvLen=" << recvLen;
        if (recvLen < 1)
            return false;
        rcount += quint64(recvLen);
    }
    qDebug() << "RecvPack: RecvBuff final rcount=" << rcount;
    return true;
}

/**
 * Builds a response in m_sendPack and writes it. True when the write reported
 * a positive count.
 */
bool FIFO_Service::SendResp(unsigned long resp, void *data, unsigned long datalen)
{
    auto *hdr = reinterpret_cast<PCOMMPACK>(m_sendPack);
    hdr->operation = quint32(resp);
    hdr->datalen = quint32(datalen);
    if (hdr->datalen > COMMPACK_MAX_DATA) {
        qDebug() << "SendResp: datalen too large:" << hdr->datalen;
        return false;
    }
    if (data && datalen != 0 && data != m_sendPack + COMMPACK_HEADER_SIZE)
        memcpy(m_sendPack + COMMPACK_HEADER_SIZE, data, datalen);
    return SendBuff(m_sendPack, int(COMMPACK_HEADER_SIZE + hdr->datalen)) > 0;
}

/**
 * Waits in 200 ms steps for the user's answer to the message box. The
 * client waits for its response while the user decides; a client that
 * leaves meanwhile (hang-up seen on the socket) ends the wait: the box is
 * closed as Cancel and kMsgClientGone returned.
 */
int FIFO_Service::waitForMessageAnswer(UiStatusHandler *ui)
{
    int status;
    while ((status = ui->GetMsgStatus()) == -1) {
        qDebug() << "wait for the message answer, msgStatus=" << status;
        // Deliberate departure: the step also watches for the client leaving.
        pollfd pfd = {m_sock, POLLRDHUP, 0};
        if (poll(&pfd, 1, 200) > 0 && (pfd.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0) {
            qDebug() << "client gone while waiting for the message answer, message closed";
            emit hide_message_dialog();
            return kMsgClientGone;
        }
    }
    return status;
}

/**
 * A window of this connection is up: the waiting window (the token is busy),
 * or a PIN or list dialog the user has not answered yet.
 */
bool FIFO_Service::windowOpen() const
{
    if (m_waitingOpen)
        return true;
    UiStatusHandler *ui = m_uiService;
    if (!ui)
        return false;
    if (m_pinOpen) {
        unsigned char *pin = nullptr;
        unsigned long pinLen = 0;
        if (ui->GetPINStatus(&pin, &pinLen) == -1)
            return true;
    }
    if (m_listOpen) {
        int status = -1;
        int index = 0;
        ui->GetListSelectStatus(status, index);
        if (status == -1)
            return true;
    }
    return false;
}

/**
 * Called each time the wait for the next request's first bytes wakes without
 * them. Deliberate departure: true (and logged) when the connection sent
 * nothing for m_idleSeconds while none of its windows was open; it then ends
 * as if the client had closed it.
 */
bool FIFO_Service::idledOut()
{
    if (windowOpen())
        m_idle.restart();
    if (m_idle.elapsed() < qint64(m_idleSeconds) * 1000)
        return false;
    qDebug("connection idle for %d s with no window open, closed", m_idleSeconds);
    m_idleEnded = true;
    return true;
}

/**
 * The session state machine: answers one request (or none, for the reserved
 * codes); the operations allowed next come from SessionTable. False ends the
 * connection.
 */
bool FIFO_Service::HandleClientRequest(void *reqPack)
{
    const quint64 operation = readU32(reqPack, 0);
    if (!SessionTable::allows(m_allowedOps, operation)) {
        qDebug() << "StateMachine Err, operation " << operation;
        SendResp(UI_STATE_ERROR, nullptr, 0);
        return false;
    }

    UiStatusHandler *ui = m_uiService;
    if (!ui) {
        qDebug() << "HandleClientRequest: no UI status handler";
        return false;
    }

    // The user's answer, for the one operation whose next state depends on it.
    int answer = SessionTable::AnyAnswer;
    switch (operation) {
    case REQ_BeginSession: {
        qDebug() << "REQ_BeginSession";
        quint16 unused;
        memcpy(&unused, static_cast<unsigned char *>(reqPack) + 8, sizeof unused);
        Q_UNUSED(unused)
        quint64 devRef;
        memcpy(&devRef, static_cast<unsigned char *>(reqPack) + 10, sizeof devRef);
        // The client is not told whether the device opened: with m_hDev 0
        // the presence check is skipped for the rest of the connection.
        if (ZRK_EstablishContext && ZRK_EstablishContext(&m_hContext) == 0) {
            if (!ZRK_Connect || ZRK_Connect(m_hContext, devRef, &m_hDev, 0) != 0)
                m_hDev = 0;
        }
        SendResp(UI_OK, nullptr, 0);
        qDebug() << "Service busy, stop check keepaliveseconds...";
        emit stopExitTimer();
        break;
    }
    case REQ_EndSession:
        // The handles stay open until the connection ends.
        qDebug() << "REQ_EndSession";
        SendResp(UI_OK, nullptr, 0);
        // Nothing of the session can be asked for any more.
        m_pinOpen = m_listOpen = m_waitingOpen = false;
        qDebug() << "Service will auto exit after keepaliveseconds...";
        emit startExitTimer();
        break;
    case REQ_PIN_Show:
        qDebug() << "REQ_PIN_Show:";
        m_pintype = readU32(reqPack, 8);
        ui->SetPINStatus(-1, nullptr, 0);
        qDebug() << "REQ_PIN_Show: emit show_pin_dialog(" << m_pintype << ")";
        emit show_pin_dialog(m_pintype);
        m_pinOpen = true;
        SendResp(UI_OK, nullptr, 0);
        break;
    case REQ_PIN_GetPIN: {
        qDebug() << "REQ_PIN_GetPIN ";
        unsigned char *pin = nullptr;
        unsigned long pinLen = 0;
        const int status = ui->GetPINStatus(&pin, &pinLen);
        if (status == 0) {
            SendResp(UI_USER_CANCEL, nullptr, 0);
        } else if (status == 1) {
            m_sendHoldsPin = true;
            SendResp(UI_OK, pin, pinLen);
            m_sendHoldsPin = false;
            // Also covers a response that never reached the write.
            explicit_bzero(m_sendPack + COMMPACK_HEADER_SIZE, COMMPACK_MAX_DATA);
        } else {
            SendResp(UI_NO_RESULT, nullptr, 0);
        }
        break;
    }
    case REQ_PIN_Retry: {
        qDebug() << "REQ_PIN_Retry";
        const quint32 tries = readU32(reqPack, 8);
        ui->SetMsgStatus(-1);
        const QString title = tr("USBKey password error");
        // The message type is this request's own code, 5 (Retry and Cancel).
        if (tries == REQ_PIN_RETRY_DEFAULT_FORBIDDEN)
            emit show_message_dialog(title, tr("Default PIN Is Forbidden"), REQ_PIN_Retry);
        else
            emit show_message_dialog(title, tr("There are %1 times remaining").arg(qint32(tries)),
                                     REQ_PIN_Retry);
        answer = waitForMessageAnswer(ui);
        if (answer == kMsgClientGone)
            return false;
        // The response goes out before the PIN dialog comes back.
        if (answer == 1) {
            SendResp(UI_OK, nullptr, 0);
            ui->SetPINStatus(-1, nullptr, 0);
            qDebug() << "REQ_PIN_Retry Accepted: emit show_pin_dialog(" << m_pintype << ")";
            emit show_pin_dialog(m_pintype);
        } else if (answer == 0) {
            SendResp(UI_USER_CANCEL, nullptr, 0);
        } else {
            SendResp(UI_NO_RESULT, nullptr, 0);
        }
        break;
    }
    case REQ_PIN_Finish:
        qDebug() << "REQ_PIN_Finish";
        emit hide_pin_dialog();
        m_pinOpen = false;
        SendResp(UI_OK, nullptr, 0);
        break;
    case REQ_Waiting_Show: {
        qDebug() << "REQ_Waiting_Show";
        const quint32 type = readU32(reqPack, 8);
        const QString text = readString(reqPack, 12);
        qDebug() << text;
        emit show_waiting_dialog(text, type);
        m_waitingOpen = true;
        SendResp(UI_OK, nullptr, 0);
        break;
    }
    case REQ_Waiting_Finish:
        qDebug() << "REQ_Waiting_Finish";
        emit hide_waiting_dialog();
        m_waitingOpen = false;
        SendResp(UI_OK, nullptr, 0);
        break;
    case REQ_List_Show: {
        qDebug() << "REQ_List_Show";
        const quint32 param = readU32(reqPack, 8);
        const QString text = readString(reqPack, 12);
        qDebug() << text;
        ui->SetListSelectStatus(-1, 0);
        emit show_list_dialog(param, text);
        // Only type 0 shows a window; the others answer (or not) at once.
        m_listOpen = param == 0;
        SendResp(UI_OK, nullptr, 0);
        break;
    }
    case REQ_List_GetSel: {
        qDebug() << "REQ_List_GetSel";
        int status = -1;
        int index = 0;
        ui->GetListSelectStatus(status, index);
        if (status == 0 || status == 1)
            m_listOpen = false;
        if (status == 0) {
            SendResp(UI_USER_CANCEL, nullptr, 0);
        } else if (status == 1) {
            qint32 sel = index;
            SendResp(UI_OK, &sel, sizeof sel);
        } else {
            SendResp(UI_NO_RESULT, nullptr, 0);
        }
        break;
    }
    case REQ_MessageBox: {
        qDebug() << "REQ_MessageBox";
        const quint32 type = readU32(reqPack, 8);
        const QString title = readString(reqPack, 12);
        // Kept on purpose: the text starts 13 + the title's UTF-16 length
        // into the packet, not after the title's bytes; clients write it
        // there, so a non-ASCII title moves it into the title's tail.
        const QString text = readString(reqPack, 13 + unsigned(title.length()));
        ui->SetMsgStatus(-1);
        emit show_message_dialog(title, text, type);
        const int status = waitForMessageAnswer(ui);
        if (status == kMsgClientGone)
            return false;
        // Confirm and cancel are deliberately not told apart.
        SendResp(unsigned(status) < 2 ? UI_OK : UI_NO_RESULT, nullptr, 0);
        break;
    }
    default:
        // Codes 8 and 12: allowed by the state machine but without handler.
        qDebug() << "HandleClientRequest: unknown operation=" << operation;
        return false;
    }
    m_allowedOps = SessionTable::next(quint32(operation), answer);
    return true;
}
