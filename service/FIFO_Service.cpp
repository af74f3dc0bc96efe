#include "FIFO_Service.h"

#include "app/TokenLibs.h"
#include "service/Protocol.h"
#include "service/UiStatusHandler.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QDebug>
#include <QFileInfo>
#include <QMetaObject>

#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

// One request and one response buffer for the whole process: there is one
// service thread and one connection at a time. Static storage, so they exist
// before main() runs and are never freed.
alignas(8) static unsigned char recvPack[COMMPACK_MAX_SIZE];
alignas(8) static unsigned char sendPack[COMMPACK_MAX_SIZE];

namespace {

// Size of sockaddr_un on Linux: 2 bytes of family and 108 of path.
constexpr unsigned int kAddrSize = sizeof(sockaddr_un);
static_assert(kAddrSize == 110, "sockaddr_un is expected to be 110 bytes");

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

FIFO_Service::FIFO_Service(QObject *uiService, QSettings *settings, QObject *parent)
    : QObject(parent)
    , m_uiService(uiService)
    , m_Listening(false)
    , m_timeout(1)
    , m_hListenSocket(-1)
    , m_sock(-1)
    , m_hDev(0)
    , m_hContext(0)
    , m_settings(settings)
{ }

// Closes nothing: the accept loop has released the sockets and handles
// before it returned.
FIFO_Service::~FIFO_Service() = default;

UiStatusHandler *FIFO_Service::statusHandler() const
{
    return dynamic_cast<UiStatusHandler *>(m_uiService);
}

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

    if (bind(m_hListenSocket, reinterpret_cast<sockaddr *>(&addr), addrLen) != 0) {
        qDebug() << "bind() failed";
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
    m_allowedOps.clear();
    m_allowedOps.insert(REQ_BeginSession);
    m_sock = fd;

    for (;;) {
        memset(recvPack, 0, sizeof recvPack);
        if (!RecvPack(recvPack)) {
            qDebug() << "RecvPack() failed";
            emit pipe_comm_failed();
            break;
        }
        if (m_hDev != 0 && ZRK_IsDevPresent && ZRK_IsDevPresent(m_hDev) != 0) {
            qDebug() << "UI_TOKEN_NOT_PRESENT";
            SendResp(UI_TOKEN_NOT_PRESENT, nullptr, 0);
            break;
        }
        if (!HandleClientRequest(recvPack)) {
            qDebug() << "HandleClientRequest() failed";
            emit pipe_comm_failed();
            break;
        }
    }
    endConnection();
    m_sock = -1;
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
    emit hide_pin_dialog();
    emit hide_waiting_dialog();
    qDebug() << "Service will auto exit after keepaliveseconds...";
    emit startExitTimer();
    // Kept on purpose: descriptor 0 is never closed.
    if (m_sock > 0) {
        close(m_sock);
        qDebug() << "Clean env, handle :" << m_sock << " closed";
    }
    explicit_bzero(recvPack, sizeof recvPack);
    explicit_bzero(sendPack, sizeof sendPack);
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
        const int readlen = int(read(m_sock, pdata, size_t(bufsize < 0 ? 0 : bufsize)));
        const int err = errno;
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
    int recvLen = RecvBuff(buf, COMMPACK_MAX_SIZE);
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
 * Builds a response in sendPack and writes it. True when the write reported
 * a positive count.
 */
bool FIFO_Service::SendResp(unsigned long resp, void *data, unsigned long datalen)
{
    auto *hdr = reinterpret_cast<PCOMMPACK>(sendPack);
    hdr->operation = quint32(resp);
    hdr->datalen = quint32(datalen);
    if (hdr->datalen > COMMPACK_MAX_DATA) {
        qDebug() << "SendResp: datalen too large:" << hdr->datalen;
        return false;
    }
    if (data && datalen != 0 && data != sendPack + COMMPACK_HEADER_SIZE)
        memcpy(sendPack + COMMPACK_HEADER_SIZE, data, datalen);
    return SendBuff(sendPack, int(COMMPACK_HEADER_SIZE + hdr->datalen)) > 0;
}

int FIFO_Service::waitForMessageAnswer(UiStatusHandler *ui)
{
    // No time limit and no way for the client to interrupt: the client waits
    // for its response while the user decides.
    int status;
    while ((status = ui->GetMsgStatus()) == -1) {
        qDebug() << "wait for the message answer, msgStatus=" << status;
        usleep(200000);
    }
    return status;
}

/**
 * The session state machine: answers one request (or none, for the reserved
 * codes) and sets the operations allowed next. False ends the connection.
 */
bool FIFO_Service::HandleClientRequest(void *reqPack)
{
    // Kept on purpose: outlives connections, so an accepted retry re-shows
    // the type of the last PIN dialog of this process (0 if none).
    static quint32 pintype = 0;

    const quint64 operation = readU32(reqPack, 0);
    if (!m_allowedOps.contains(operation)) {
        qDebug() << "StateMachine Err, operation " << operation;
        SendResp(UI_STATE_ERROR, nullptr, 0);
        return false;
    }

    UiStatusHandler *ui = statusHandler();
    if (!ui) {
        qDebug() << "HandleClientRequest: no UI status handler";
        return false;
    }

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
        m_allowedOps.clear();
        m_allowedOps << REQ_PIN_Show << REQ_Waiting_Show << REQ_List_Show << REQ_Reserved_12
                     << REQ_MessageBox << REQ_EndSession;
        qDebug() << "Service busy, stop check keepaliveseconds...";
        emit stopExitTimer();
        return true;
    }
    case REQ_EndSession:
        // The handles stay open until the connection ends.
        qDebug() << "REQ_EndSession";
        SendResp(UI_OK, nullptr, 0);
        m_allowedOps.clear();
        m_allowedOps << REQ_BeginSession;
        qDebug() << "Service will auto exit after keepaliveseconds...";
        emit startExitTimer();
        return true;
    case REQ_PIN_Show:
        qDebug() << "REQ_PIN_Show:";
        pintype = readU32(reqPack, 8);
        ui->SetPINStatus(-1, nullptr, 0);
        qDebug() << "REQ_PIN_Show: emit show_pin_dialog(" << pintype << ")";
        emit show_pin_dialog(pintype);
        m_allowedOps.clear();
        m_allowedOps << REQ_PIN_GetPIN << REQ_Waiting_Show;
        SendResp(UI_OK, nullptr, 0);
        return true;
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
            explicit_bzero(sendPack + COMMPACK_HEADER_SIZE, COMMPACK_MAX_DATA);
        } else {
            SendResp(UI_NO_RESULT, nullptr, 0);
        }
        m_allowedOps.clear();
        m_allowedOps << REQ_PIN_GetPIN << REQ_PIN_Retry << REQ_PIN_Finish << REQ_Waiting_Show
                     << REQ_EndSession;
        return true;
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
        const int status = waitForMessageAnswer(ui);
        // The response goes out before the new state is set and before the
        // PIN dialog comes back.
        if (status == 1) {
            SendResp(UI_OK, nullptr, 0);
            m_allowedOps.clear();
            m_allowedOps << REQ_PIN_GetPIN;
            ui->SetPINStatus(-1, nullptr, 0);
            qDebug() << "REQ_PIN_Retry Accepted: emit show_pin_dialog(" << pintype << ")";
            emit show_pin_dialog(pintype);
        } else if (status == 0) {
            SendResp(UI_USER_CANCEL, nullptr, 0);
            m_allowedOps.clear();
            m_allowedOps << REQ_EndSession;
        } else {
            SendResp(UI_NO_RESULT, nullptr, 0);
            m_allowedOps.clear();
            m_allowedOps << REQ_PIN_Retry;
        }
        return true;
    }
    case REQ_PIN_Finish:
        qDebug() << "REQ_PIN_Finish";
        emit hide_pin_dialog();
        SendResp(UI_OK, nullptr, 0);
        m_allowedOps.clear();
        m_allowedOps << REQ_MessageBox << REQ_EndSession;
        return true;
    case REQ_Waiting_Show: {
        qDebug() << "REQ_Waiting_Show";
        const quint32 type = readU32(reqPack, 8);
        const QString text = readString(reqPack, 12);
        qDebug() << text;
        emit show_waiting_dialog(text, type);
        SendResp(UI_OK, nullptr, 0);
        m_allowedOps.clear();
        m_allowedOps << REQ_Reserved_8 << REQ_Waiting_Finish;
        return true;
    }
    case REQ_Waiting_Finish:
        qDebug() << "REQ_Waiting_Finish";
        emit hide_waiting_dialog();
        SendResp(UI_OK, nullptr, 0);
        m_allowedOps.clear();
        m_allowedOps << REQ_PIN_Retry << REQ_PIN_Finish << REQ_EndSession;
        return true;
    case REQ_List_Show: {
        qDebug() << "REQ_List_Show";
        const quint32 param = readU32(reqPack, 8);
        const QString text = readString(reqPack, 12);
        qDebug() << text;
        ui->SetListSelectStatus(-1, 0);
        emit show_list_dialog(param, text);
        SendResp(UI_OK, nullptr, 0);
        m_allowedOps.clear();
        m_allowedOps << REQ_List_GetSel;
        return true;
    }
    case REQ_List_GetSel: {
        qDebug() << "REQ_List_GetSel";
        int status = -1;
        int index = 0;
        ui->GetListSelectStatus(status, index);
        if (status == 0) {
            SendResp(UI_USER_CANCEL, nullptr, 0);
        } else if (status == 1) {
            qint32 sel = index;
            SendResp(UI_OK, &sel, sizeof sel);
        } else {
            SendResp(UI_NO_RESULT, nullptr, 0);
        }
        m_allowedOps.clear();
        m_allowedOps << REQ_List_GetSel << REQ_EndSession;
        return true;
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
        // Confirm and cancel are deliberately not told apart.
        SendResp(unsigned(status) < 2 ? UI_OK : UI_NO_RESULT, nullptr, 0);
        m_allowedOps.clear();
        m_allowedOps << REQ_EndSession << REQ_MessageBox;
        return true;
    }
    default:
        // Codes 8 and 12: allowed by the state machine but without handler.
        qDebug() << "HandleClientRequest: unknown operation=" << operation;
        return false;
    }
}
