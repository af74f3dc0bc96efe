#include "RawSocketClient.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

RawSocketClient::~RawSocketClient() { close(); }

int RawSocketClient::connectAbstractFd(const QString &name)
{
    const QByteArray bytes = name.toUtf8();
    sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    if (static_cast<size_t>(bytes.size()) + 1 > sizeof(addr.sun_path))
        return -1;
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path + 1, bytes.constData(), static_cast<size_t>(bytes.size()));
    const socklen_t len = static_cast<socklen_t>(sizeof(addr.sun_family) + 1 + bytes.size());

    const int s = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s < 0)
        return -1;
    if (::connect(s, reinterpret_cast<sockaddr *>(&addr), len) != 0) {
        ::close(s);
        return -1;
    }
    return s;
}

bool RawSocketClient::connectAbstract(const QString &name, int timeoutMs)
{
    close();
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        fd = connectAbstractFd(name);
        if (fd >= 0)
            return true;
        if (timer.elapsed() >= timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(20);
    }
}

bool RawSocketClient::send(const QByteArray &bytes)
{
    if (fd < 0)
        return false;
    qsizetype done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.constData() + done,
                                 static_cast<size_t>(bytes.size() - done), MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        done += n;
    }
    return true;
}

bool RawSocketClient::waitForReadable(int timeoutMs)
{
    if (fd < 0)
        return false;
    pollfd p{fd, POLLIN, 0};
    int rc;
    do {
        rc = ::poll(&p, 1, timeoutMs);
    } while (rc < 0 && errno == EINTR);
    return rc > 0;
}

QByteArray RawSocketClient::readExactly(int n, int timeoutMs)
{
    QByteArray result;
    if (fd < 0 || n <= 0)
        return result;
    result.resize(n);
    int got = 0;
    QElapsedTimer timer;
    timer.start();
    while (got < n) {
        const qint64 left = timeoutMs - timer.elapsed();
        if (left <= 0)
            break;
        pollfd p{fd, POLLIN, 0};
        const int rc = ::poll(&p, 1, static_cast<int>(left));
        if (rc < 0 && errno == EINTR)
            continue;
        if (rc <= 0)
            break;
        const ssize_t r = ::read(fd, result.data() + got, static_cast<size_t>(n - got));
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            break;
        got += static_cast<int>(r);
    }
    result.resize(got);
    return result;
}

bool RawSocketClient::waitForPeerClose(int timeoutMs)
{
    if (fd < 0)
        return true;
    QElapsedTimer timer;
    timer.start();
    char sink[256];
    for (;;) {
        const qint64 left = timeoutMs - timer.elapsed();
        if (left <= 0)
            return false;
        pollfd p{fd, POLLIN, 0};
        const int rc = ::poll(&p, 1, static_cast<int>(left));
        if (rc < 0 && errno == EINTR)
            continue;
        if (rc <= 0)
            return false;
        const ssize_t r = ::read(fd, sink, sizeof(sink));
        if (r == 0 || (r < 0 && errno == ECONNRESET))
            return true;
        if (r < 0 && errno != EINTR)
            return false;
    }
}

void RawSocketClient::close()
{
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

QByteArray RawSocketClient::packet(quint32 operation, quint32 declaredLength,
                                   const QByteArray &data)
{
    QByteArray bytes;
    bytes.append(reinterpret_cast<const char *>(&operation), sizeof(operation));
    bytes.append(reinterpret_cast<const char *>(&declaredLength), sizeof(declaredLength));
    bytes.append(data);
    return bytes;
}

QByteArray RawSocketClient::packet(quint32 operation, const QByteArray &data)
{
    return packet(operation, static_cast<quint32>(data.size()), data);
}
