#pragma once

#include <QString>
#include <QStringList>

/**
 * Helpers around the fixed log file /tmp/uilog.txt.
 *
 * Every test that uses them must register with `LOCKS uilog` so that no
 * other process writes the file meanwhile. Lines have the form
 * "[yyyy-MM-dd HH:mm:ss zzz] message"; messages() strips that prefix.
 */
class LogFile
{
public:
    static QString path(); // "/tmp/uilog.txt"

    // Removes the file (the next log line recreates it). False when it
    // exists and cannot be removed, e.g. it belongs to another user.
    static bool clear();
    // All lines (without line feeds); empty when there is no file.
    static QStringList lines();
    // The message part of every line (text after "] "), UTF-8 decoded.
    static QStringList messages();
    // Number of messages exactly equal to text.
    static int countExact(const QString &text);
    // True when some message contains text.
    static bool contains(const QString &text);
    // Polls (every 20 ms) until a message contains text or the deadline passes.
    static bool waitForLine(const QString &text, int timeoutMs = 10000);
    // Polls until at least count messages contain text.
    static bool waitForCount(const QString &text, int count, int timeoutMs = 10000);
    // Strips the "[stamp] " prefix; returns the line unchanged if it has none.
    static QString messageOf(const QString &line);
};
