#pragma once
// A person in a real X server, through xdotool (keys go through XTEST).
#include <QDeadlineTimer>
#include <QStringList>

namespace XDoTool {
bool available();
bool run(const QStringList &args, QByteArray *output = nullptr,
         QDeadlineTimer deadline = QDeadlineTimer(10000));
// A visible window titled so (a regular expression; exact, as shown, among pid's).
QString waitForWindow(const QString &title, int timeoutMs = 15000, qint64 pid = 0);
bool waitForNoWindow(const QString &title, int timeoutMs = 15000, qint64 pid = 0);
// Titles of the process's windows, hidden ones too when `all`; run: true on exit 0.
QStringList titles(qint64 pid, bool all = false);
bool focus(const QString &window);
bool type(const QString &text);
bool key(const QString &keys); // names separated by blanks, pressed in turn ("Down Tab space")
QString windowName(const QString &window);
} // namespace XDoTool
