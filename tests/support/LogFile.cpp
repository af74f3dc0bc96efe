#include "LogFile.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>

QString LogFile::path() { return QStringLiteral("/tmp/uilog.txt"); }

bool LogFile::clear()
{
    if (!QFile::exists(path()))
        return true;
    return QFile::remove(path());
}

QStringList LogFile::lines()
{
    QFile file(path());
    if (!file.open(QIODevice::ReadOnly))
        return QStringList();
    QStringList result;
    const QList<QByteArray> raw = file.readAll().split('\n');
    for (const QByteArray &line : raw)
        result << QString::fromUtf8(line);
    // split() leaves an empty element after the final line feed.
    if (!result.isEmpty() && result.last().isEmpty())
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

bool LogFile::contains(const QString &text)
{
    for (const QString &message : messages()) {
        if (message.contains(text))
            return true;
    }
    return false;
}

bool LogFile::waitForCount(const QString &text, int count, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        int found = 0;
        for (const QString &message : messages()) {
            if (message.contains(text))
                ++found;
        }
        if (found >= count)
            return true;
        if (timer.elapsed() >= timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(20);
    }
}

bool LogFile::waitForLine(const QString &text, int timeoutMs)
{
    return waitForCount(text, 1, timeoutMs);
}
