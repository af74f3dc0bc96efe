#pragma once

#include <QString>
#include <QStringList>

/**
 * Finds a process's top-level windows by their exact title as a window
 * manager shows it (_NET_WM_NAME, UTF-8), through xdotool.
 *
 * `xdotool search --name` matches WM_NAME instead, which Xlib encodes for
 * the process's C library locale: when that locale is not installed (a
 * LANG=zh_CN.UTF-8 on a machine with only C.UTF-8) a Chinese title there is
 * mangled and never matches. The process's windows (_NET_WM_PID) are listed
 * and their UTF-8 names compared instead.
 */
class WindowTitles
{
public:
    // Visible windows of the process with exactly this title.
    static QStringList find(qint64 pid, const QString &title);
    // Titles of all visible windows of the process.
    static QStringList titles(qint64 pid);
    // Polls until such a window exists; empty on time-out.
    static QString waitFor(qint64 pid, const QString &title, int timeoutMs = 15000);
    // Polls until no such window is left.
    static bool waitForNone(qint64 pid, const QString &title, int timeoutMs = 15000);

private:
    static QStringList windows(qint64 pid);
    static QString name(const QString &window);
};
