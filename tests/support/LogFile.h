#pragma once

#include <QFile>
#include <QStringList>
#include <QTest>

// The log file /tmp/uilog.txt ("[yyyy-MM-dd HH:mm:ss zzz] message" lines);
// users take the ctest lock "uilog".
namespace LogFile {

inline QString path() { return QStringLiteral("/tmp/uilog.txt"); }
// False when the file exists and cannot be removed.
inline bool clear() { return !QFile::exists(path()) || QFile::remove(path()); }
inline QStringList lines() // without line feeds; empty without a file
{
    QFile file(path());
    return file.open(QIODevice::ReadOnly)
                   ? QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts)
                   : QStringList();
}
inline QString messageOf(const QString &line) // the line unchanged without a stamp
{
    const bool stamped = line.size() >= 26 && line.at(0) == QLatin1Char('[')
                         && line.at(24) == QLatin1Char(']') && line.at(25) == QLatin1Char(' ');
    return stamped ? line.mid(26) : line;
}
inline QStringList messages() // the text after "] " of every line
{
    QStringList result = lines();
    for (QString &line : result)
        line = messageOf(line);
    return result;
}
inline int countExact(const QString &text) { return messages().count(text); }
inline bool contains(const QString &text) { return !messages().filter(text).isEmpty(); }
// Polls with a deadline until count messages contain text.
inline bool waitForCount(const QString &text, int count, int timeoutMs = 10000)
{
    return QTest::qWaitFor([&] { return messages().filter(text).size() >= count; }, timeoutMs);
}
inline bool waitForLine(const QString &text, int timeoutMs = 10000)
{
    return waitForCount(text, 1, timeoutMs);
}

} // namespace LogFile
