#pragma once

#include <QString>
#include <QStringList>

/**
 * Acts as a person in a real X server through xdotool: finds windows by
 * title (waiting with a deadline), gives them the focus and types.
 * There is no window manager under xvfb-run, so focus goes straight to the
 * window (windowfocus) and keys are sent through XTEST.
 */
class XDoTool
{
public:
    static bool available();

    // Visible windows whose title matches the regular expression exactly.
    static QStringList findWindows(const QString &titleRegex);
    // Polls until a visible window with that title exists; empty on time-out.
    static QString waitForWindow(const QString &titleRegex, int timeoutMs = 15000);
    // Polls until no visible window with that title is left.
    static bool waitForNoWindow(const QString &titleRegex, int timeoutMs = 15000);

    static bool focus(const QString &window);
    static bool type(const QString &text);
    // Key names separated by blanks, pressed in turn ("Down Tab space").
    static bool key(const QString &keys);
    static QString windowName(const QString &window);

private:
    static bool run(const QStringList &args, QByteArray *output = nullptr);
};
