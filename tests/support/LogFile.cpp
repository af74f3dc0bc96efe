#include "LogFile.h"

#include <QFile>
#include <QTest>

bool LogFile::clear() { return !QFile::exists(path()) || QFile::remove(path()); }

QStringList LogFile::lines()
{
    QFile file(path());
    if (!file.open(QIODevice::ReadOnly))
        return QStringList();
    QStringList result = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
    result.removeLast(); // the empty piece after the final line feed
    return result;
}

QString LogFile::messageOf(const QString &line)
{
    // "[yyyy-MM-dd HH:mm:ss zzz] " is 26 characters.
    const bool stamped = line.size() >= 26 && line.at(0) == QLatin1Char('[')
                         && line.at(24) == QLatin1Char(']') && line.at(25) == QLatin1Char(' ');
    return stamped ? line.mid(26) : line;
}

QStringList LogFile::messages()
{
    QStringList result;
    for (const QString &line : lines())
        result << messageOf(line);
    return result;
}

bool LogFile::waitForCount(const QString &text, int count, int timeoutMs)
{
    return QTest::qWaitFor([&] { return messages().filter(text).size() >= count; }, timeoutMs);
}
