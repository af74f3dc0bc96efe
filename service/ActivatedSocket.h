#pragma once

#include <QByteArray>

/**
 * A listening socket handed over by the service manager (systemd socket
 * activation). The user unit listens on the per-user abstract name while no
 * server runs, so after an idle exit nobody else can take that name, and the
 * next connection starts the server again.
 */
class ActivatedSocket
{
public:
    /**
     * The passed descriptor when exactly one listening AF_UNIX stream socket
     * bound to the abstract name @p name (without the leading NUL) was
     * handed over, otherwise -1 (the caller binds its own). A descriptor
     * that is taken gets the receive time-out of @p timeoutSeconds (0: none),
     * as a socket the service creates itself would.
     */
    static int take(const QByteArray &name, int timeoutSeconds);
};
