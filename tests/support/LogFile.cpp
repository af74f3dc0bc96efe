#include "LogFile.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>

QString LogFile::path() { return QStringLiteral("/tmp/uilog.txt"); }

bool LogFile::clear() { return !QFile::exists(path()) || QFile::remove(path()); }

QStringList LogFile::lines()
{
    QFile file(path());
    if (!file.open(QIODevice::ReadOnly))
        return QStringList();
    QStringList result = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
    // split() leaves an empty element after the final line feed.
    if (result.last().isEmpty())
        result.removeLast();
    return result;
}

QString LogFile::messageOf(const QString &line)
{
    // "[yyyy-MM-dd HH:mm:ss zzz] " is 26 characters.
    if (line.size() >= 26 && line.at(0) == QLatin1Char('[') && line.at(24) == QLatin1Char(']')
        && line.at(25) == QLatin1Char(' '))
        return line.mid(26);
    return line;
}

QStringList LogFile::messages()
{
    QStringList result;
    for (const QString &line : lines())
        result << messageOf(line);
    return result;
}

int LogFile::countExact(const QString &text) { return messages().count(text); }

bool LogFile::contains(const QString &text) { return !messages().filter(text).isEmpty(); }

bool LogFile::waitForCount(const QString &text, int count, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (messages().filter(text).size() < count) {
        if (timer.elapsed() >= timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(20);
    }
    return true;
}

bool LogFile::waitForLine(const QString &text, int timeoutMs)
{
    return waitForCount(text, 1, timeoutMs);
}
