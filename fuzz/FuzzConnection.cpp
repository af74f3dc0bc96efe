// libFuzzer target: one client connection of the request service. The input
// is the stream of requests a client sends. A client thread writes them one
// by one into one end of a socket pair, reading each answer, and shuts its
// write side at the end; the service serves the other end as an accepted
// connection, from a fresh session to its clean-up, against the stand-in
// token stack. Shown dialogs answer at once, cycling through confirm, cancel
// and no result.
#include "FakeUiStatus.h"
#include "app/TokenLibs.h"
#include "service/FIFO_Service.h"
#include "service/Protocol.h"

#include <QByteArray>
#include <QString>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <sys/socket.h>
#include <unistd.h>

namespace {

// A PIN the fuzzer cannot produce by chance in a response line: its hex form
// must never be logged.
const char kPin[] = "fuzzPIN#0x5eed";

// ZRUI_FUZZ_LOG=1 prints the service's log lines (to follow a reproducer).
const bool printLog = qEnvironmentVariableIsSet("ZRUI_FUZZ_LOG");

void checkLogLine(QtMsgType, const QMessageLogContext &, const QString &msg)
{
    if (printLog)
        fprintf(stderr, "%s\n", qPrintable(msg));
    static const QString pinHex = QString::fromLatin1(QByteArray(kPin).toHex());
    if (msg.startsWith(QLatin1String("SendBuff")) && msg.contains(pinHex)) {
        fprintf(stderr, "PIN bytes logged: %s\n", qPrintable(msg));
        abort();
    }
}

bool readFully(int fd, void *buf, size_t len)
{
    for (size_t got = 0; got < len;) {
        const ssize_t n = read(fd, static_cast<char *>(buf) + got, len - got);
        if (n <= 0)
            return false;
        got += size_t(n);
    }
    return true;
}

// One response; false once the service has ended the connection. Every
// response must be a well-formed header with a known code.
bool readResponse(int fd)
{
    COMMPACK hdr;
    if (!readFully(fd, &hdr, sizeof hdr))
        return false;
    if (hdr.operation > UI_TOKEN_NOT_PRESENT || hdr.operation == 2
        || hdr.datalen > COMMPACK_MAX_DATA) {
        fprintf(stderr, "malformed response %u/%u\n", hdr.operation, hdr.datalen);
        abort();
    }
    static char body[COMMPACK_MAX_DATA];
    return readFully(fd, body, hdr.datalen);
}

// Plays a client that sends one request at a time, as the client library
// does: the next header and its datalen bytes (or what is left of the
// input), then waits for the answer.
void client(int fd, const uint8_t *data, size_t size)
{
    for (size_t off = 0; off < size;) {
        COMMPACK hdr = {};
        memcpy(&hdr, data + off, std::min(sizeof hdr, size - off));
        const size_t len = std::min(size - off, COMMPACK_HEADER_SIZE + size_t(hdr.datalen));
        if (send(fd, data + off, len, MSG_NOSIGNAL) != ssize_t(len))
            break;
        off += len;
        if (off == size)
            shutdown(fd, SHUT_WR); // a cut-short request must not wait for more
        if (!readResponse(fd))
            break;
    }
    shutdown(fd, SHUT_WR);
    while (readResponse(fd)) { }
    close(fd);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    qInstallMessageHandler(checkLogLine);
    char dir[] = ZRUI_FUZZ_TOKENSIM_DIR;
    if (LoadLib_ZRKAPI(0, dir) != 1) {
        fprintf(stderr, "cannot load the stand-in token library from %s\n", dir);
        abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FakeUiStatus ui;
    FIFO_Service service(&ui, nullptr);
    int answers = 0;
    QObject::connect(&service, &FIFO_Service::show_message_dialog, [&] {
        ui.SetMsgStatus(answers % 3 == 0 ? 1 : answers % 3 == 1 ? 0 : -2);
        ++answers;
    });
    QObject::connect(&service, &FIFO_Service::show_pin_dialog, [&] {
        if (answers % 3 < 2)
            ui.SetPINStatus(answers % 3 == 0 ? 1 : 0,
                            reinterpret_cast<unsigned char *>(const_cast<char *>(kPin)),
                            sizeof kPin - 1);
        ++answers;
    });
    QObject::connect(&service, &FIFO_Service::show_list_dialog, [&](unsigned long n) {
        ui.SetListSelectStatus(answers % 3 == 2 ? 0 : 1, int(n % 4));
        ++answers;
    });

    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0)
        abort();
    std::thread peer(client, fds[1], data, size);
    service.ServeConnection(fds[0]);
    peer.join();
    return 0;
}
