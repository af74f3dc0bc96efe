#pragma once

#include <QString>
#include <QStringList>

// The log file /tmp/uilog.txt; users take the ctest lock "uilog". Lines are
// "[yyyy-MM-dd HH:mm:ss zzz] message".
class LogFile
{
public:
    static QString path(); // "/tmp/uilog.txt"

    // False when the file exists and cannot be removed.
    static bool clear();
    // All lines (without line feeds); empty when there is no file.
    static QStringList lines();
    // The message part of every line (text after "] "), UTF-8 decoded.
    static QStringList messages();
    // Number of messages exactly equal to text.
    static int countExact(const QString &text);
    // True when some message contains text.
    static bool contains(const QString &text);
    // Poll with a deadline until one (count) message(s) contain text.
    static bool waitForLine(const QString &text, int timeoutMs = 10000);
    static bool waitForCount(const QString &text, int count, int timeoutMs = 10000);
    // Strips the "[stamp] " prefix; returns the line unchanged if it has none.
    static QString messageOf(const QString &line);
};
