#include "XDoTool.h"

#include <QMap>
#include <QProcess>
#include <QStandardPaths>
#include <QTest>

bool XDoTool::available()
{
    return !QStandardPaths::findExecutable("xdotool").isEmpty()
           && qEnvironmentVariableIsSet("DISPLAY");
}

bool XDoTool::run(const QStringList &args, QByteArray *output, QDeadlineTimer deadline)
{
    QProcess p;
    p.start(QStringLiteral("xdotool"), args);
    const bool done = p.waitForFinished(int(qMax<qint64>(1, deadline.remainingTime())));
    if (output)
        *output = p.readAllStandardOutput().trimmed();
    return done && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
}

// Matching windows, id -> title (a null title: all of the process's); none is no error.
static QMap<QString, QString> search(const QString &title, qint64 pid, bool all = false)
{
    const QStringList by = pid ? QStringList{"--pid", QString::number(pid)}
                               : QStringList{"--name", "^" + title + "$"};
    QByteArray out;
    XDoTool::run(QStringList{"search", all ? "--any" : "--onlyvisible"} + by, &out);
    QMap<QString, QString> found;
    for (const QString &id : QString::fromLatin1(out).split('\n', Qt::SkipEmptyParts)) {
        const QString name = XDoTool::windowName(id);
        if (!pid || title.isNull() || name == title)
            found.insert(id, name);
    }
    return found;
}

QString XDoTool::waitForWindow(const QString &title, int timeoutMs, qint64 pid)
{
    QStringList ids;
    return QTest::qWaitFor([&] { return !(ids = search(title, pid).keys()).isEmpty(); }, timeoutMs)
                   ? ids.last()
                   : QString();
}

bool XDoTool::waitForNoWindow(const QString &title, int timeoutMs, qint64 pid)
{
    return QTest::qWaitFor([&] { return search(title, pid).isEmpty(); }, timeoutMs);
}

QStringList XDoTool::titles(qint64 pid, bool all) { return search(QString(), pid, all).values(); }

bool XDoTool::focus(const QString &window) { return run({"windowfocus", "--sync", window}); }

bool XDoTool::type(const QString &text) { return run({"type", "--delay", "30", text}); }

bool XDoTool::key(const QString &keys)
{
    return run(QStringList{"key", "--delay", "30"} + keys.split(' ', Qt::SkipEmptyParts));
}

QString XDoTool::windowName(const QString &window)
{
    QByteArray out;
    run({"getwindowname", window}, &out);
    return QString::fromUtf8(out);
}
