#include "LogSink.h"

#include <QByteArray>
#include <QDateTime>
#include <QFile>
#include <QMessageLogContext>
#include <QMutex>
#include <QMutexLocker>
#include <QString>

#include <fcntl.h>
#include <unistd.h>

const char *const ZRUI_LOG_PATH = "/tmp/uilog.txt";

/**
 * Appends "[yyyy-MM-dd HH:mm:ss zzz] message" to the log file.
 *
 * The file is opened and closed for every message on purpose: each line is
 * on disk when the handler returns, and a file removed from outside is
 * recreated by the next message. The file lives in a shared directory, so it
 * is created 0600 by open(2) itself (no window with wider bits) and a
 * symbolic link planted under its name is not followed. A message that
 * cannot be written is lost silently: the logger has nowhere to report.
 */
void printlogtofile(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    Q_UNUSED(type);
    Q_UNUSED(context);

    QFile file;
    static QMutex mutex;
    QMutexLocker locker(&mutex);

    const int fd = ::open(ZRUI_LOG_PATH, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW,
                          S_IRUSR | S_IWUSR);
    if (fd < 0)
        return;
    if (!file.open(fd, QIODevice::WriteOnly | QIODevice::Append, QFileDevice::AutoCloseHandle)) {
        ::close(fd);
        return;
    }

    QByteArray line;
    line.reserve(message.size() + 32);
    line += '[';
    line += QDateTime::currentDateTime()
                    .toString(QStringLiteral("yyyy-MM-dd HH:mm:ss zzz"))
                    .toUtf8();
    line += "] ";
    line += message.toUtf8();
    line += '\n';
    file.write(line);
    file.flush();
    file.close();
}
