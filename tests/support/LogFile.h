#pragma once

#include <QString>
#include <QStringList>

// The log file /tmp/uilog.txt ("[yyyy-MM-dd HH:mm:ss zzz] message" lines);
// users take the ctest lock "uilog".
class LogFile
{
public:
    static QString path() { return QStringLiteral("/tmp/uilog.txt"); }
    static bool clear(); // false when the file exists and cannot be removed
    static QStringList lines(); // without line feeds; empty without a file
    static QStringList messages(); // the text after "] " of every line
    static int countExact(const QString &text) { return messages().count(text); }
    static bool contains(const QString &text) { return !messages().filter(text).isEmpty(); }
    // Polls with a deadline until count messages contain text.
    static bool waitForCount(const QString &text, int count, int timeoutMs = 10000);
    static bool waitForLine(const QString &text, int timeoutMs = 10000)
    {
        return waitForCount(text, 1, timeoutMs);
    }
    static QString messageOf(const QString &line); // the line unchanged without a stamp
};
