#pragma once

#include <QByteArray>
#include <QString>

/**
 * A tiny blocking client for the server's abstract Unix stream socket, for
 * tests that need exact bytes on the wire (the client library hides them).
 *
 * Address: family AF_UNIX, a leading NUL, then the name without its
 * terminator (length = 3 + name length), exactly as the server binds.
 * All waits use poll() with a deadline; nothing sleeps a fixed time.
 */
class RawSocketClient
{
public:
    RawSocketClient() = default;
    ~RawSocketClient();
    RawSocketClient(const RawSocketClient &) = delete;
    RawSocketClient &operator=(const RawSocketClient &) = delete;

    // Connects to the abstract name; retries until timeoutMs passes
    // (0: one attempt). Closes a previous connection first.
    bool connectAbstract(const QString &name, int timeoutMs = 0);
    // One raw connect attempt; returns the connected fd or -1. The caller
    // owns (closes) the fd.
    static int connectAbstractFd(const QString &name);

    // Writes all bytes (loops over short writes). False on error.
    bool send(const QByteArray &bytes);
    // Reads exactly n bytes; returns fewer (what arrived) when the peer
    // closes or the deadline passes.
    QByteArray readExactly(int n, int timeoutMs = 5000);
    // True when the peer has closed (read gives 0) within the deadline;
    // bytes that arrive meanwhile are discarded.
    bool waitForPeerClose(int timeoutMs = 5000);
    // True when at least one byte is ready within the deadline (not consumed).
    bool waitForReadable(int timeoutMs);

    void close();
    bool isConnected() const { return fd >= 0; }
    int socketFd() const { return fd; }

    // Packet helpers for the 8-byte header (host byte order) + data.
    static QByteArray packet(quint32 operation, const QByteArray &data = QByteArray());
    static QByteArray packet(quint32 operation, quint32 declaredLength, const QByteArray &data);

private:
    int fd = -1;
};
