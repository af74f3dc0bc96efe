#include "XDoTool.h"

#include <QProcess>
#include <QStandardPaths>
#include <QThread>

bool XDoTool::available()
{
    return !QStandardPaths::findExecutable(QStringLiteral("xdotool")).isEmpty()
           && !qEnvironmentVariableIsEmpty("DISPLAY");
}

bool XDoTool::run(const QStringList &args, QByteArray *output, QDeadlineTimer deadline)
{
    QProcess p;
    p.start(QStringLiteral("xdotool"), args);
    if (!p.waitForFinished(int(qMax<qint64>(1, deadline.remainingTime())))) {
        p.kill();
        p.waitForFinished();
        return false;
    }
    if (output)
        *output = p.readAllStandardOutput();
    return p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
}

QStringList XDoTool::findWindows(const QString &title, qint64 pid, QDeadlineTimer deadline)
{
    QByteArray out;
    // xdotool exits 1 when nothing matches: that is an empty answer, not an error.
    run(pid ? QStringList{"search", "--onlyvisible", "--pid", QString::number(pid)}
            : QStringList{"search", "--onlyvisible", "--name", QStringLiteral("^%1$").arg(title)},
        &out, deadline);
    QStringList ids;
    for (const QByteArray &line : out.split('\n')) {
        const QString id = QString::fromLatin1(line.trimmed());
        if (!id.isEmpty() && (!pid || windowName(id, deadline) == title))
            ids << id;
    }
    return ids;
}

QStringList XDoTool::titles(qint64 pid)
{
    QByteArray out;
    run({"search", "--onlyvisible", "--pid", QString::number(pid)}, &out);
    QStringList names;
    for (const QByteArray &line : out.split('\n')) {
        if (!line.trimmed().isEmpty())
            names << windowName(QString::fromLatin1(line.trimmed()));
    }
    return names;
}

QString XDoTool::waitForWindow(const QString &title, int timeoutMs, qint64 pid)
{
    const QDeadlineTimer deadline(timeoutMs);
    do {
        const QStringList ids = findWindows(title, pid, deadline);
        if (!ids.isEmpty())
            return ids.last();
        QThread::msleep(50);
    } while (!deadline.hasExpired());
    return QString();
}

bool XDoTool::waitForNoWindow(const QString &title, int timeoutMs, qint64 pid)
{
    const QDeadlineTimer deadline(timeoutMs);
    do {
        if (findWindows(title, pid, deadline).isEmpty())
            return true;
        QThread::msleep(50);
    } while (!deadline.hasExpired());
    return false;
}

bool XDoTool::focus(const QString &window) { return run({"windowfocus", "--sync", window}); }

bool XDoTool::type(const QString &text) { return run({"type", "--delay", "30", text}); }

bool XDoTool::key(const QString &keys)
{
    return run(QStringList{"key", "--delay", "30"} + keys.split(' ', Qt::SkipEmptyParts));
}

QString XDoTool::windowName(const QString &window, QDeadlineTimer deadline)
{
    QByteArray out;
    run({"getwindowname", window}, &out, deadline);
    if (out.endsWith('\n'))
        out.chop(1);
    return QString::fromUtf8(out);
}
