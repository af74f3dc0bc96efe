#pragma once

#include <QDeadlineTimer>
#include <QString>
#include <QStringList>

/**
 * Acts as a person in a real X server through xdotool: finds windows by
 * title (waiting with a deadline), gives them the focus and types. Keys go
 * through XTEST; with no window manager focus goes straight to the window.
 *
 * Titles are compared as a window manager shows them (_NET_WM_NAME, UTF-8)
 * when a process id is given: `search --name` matches WM_NAME, which Xlib
 * encodes for the C library locale and mangles for a Chinese title when that
 * locale is not installed.
 */
class XDoTool
{
public:
    static bool available();
    // xdotool with these arguments, within the deadline; true on exit status 0.
    static bool run(const QStringList &args, QByteArray *output = nullptr,
                    QDeadlineTimer deadline = QDeadlineTimer(10000));

    // Visible windows with exactly this title (a regular expression unless pid is given).
    static QStringList findWindows(const QString &title, qint64 pid = 0,
                                   QDeadlineTimer deadline = QDeadlineTimer(10000));
    // Titles of all visible windows of the process.
    static QStringList titles(qint64 pid);
    // Polls until such a window exists (empty on time-out), or until none is left.
    static QString waitForWindow(const QString &title, int timeoutMs = 15000, qint64 pid = 0);
    static bool waitForNoWindow(const QString &title, int timeoutMs = 15000, qint64 pid = 0);

    static bool focus(const QString &window);
    static bool type(const QString &text);
    // Key names separated by blanks, pressed in turn ("Down Tab space").
    static bool key(const QString &keys);
    static QString windowName(const QString &window,
                              QDeadlineTimer deadline = QDeadlineTimer(10000));
};
