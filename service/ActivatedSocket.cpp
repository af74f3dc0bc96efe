#include "ActivatedSocket.h"

#include <QDebug>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

int ActivatedSocket::take(const QByteArray &name, int timeoutSeconds)
{
    // unset_environment=1: a program this process might start must not
    // believe the descriptors are meant for it.
    const int count = sd_listen_fds(1);
    if (count <= 0)
        return -1;

    const QByteArray abstractPath = QByteArray(1, '\0') + name;
    int taken = -1;
    for (int fd = SD_LISTEN_FDS_START; fd < SD_LISTEN_FDS_START + count; ++fd) {
        if (taken < 0
            && sd_is_socket_unix(fd, SOCK_STREAM, 1, abstractPath.constData(),
                                 size_t(abstractPath.size()))
                       > 0) {
            taken = fd;
            continue;
        }
        // Nothing else passed to us is ours to keep.
        qDebug("activation: passed descriptor %d is not a listening socket on @%s, closed", fd,
               name.constData());
        close(fd);
    }
    if (taken < 0)
        return -1;

    fcntl(taken, F_SETFD, FD_CLOEXEC);
    if (timeoutSeconds != 0) {
        timeval tv;
        tv.tv_sec = timeoutSeconds;
        tv.tv_usec = 0;
        setsockopt(taken, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    qDebug("activation: listening socket %d on @%s handed over by the service manager", taken,
           name.constData());
    return taken;
}
