#include "XDoTool.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QStandardPaths>
#include <QThread>

bool XDoTool::available()
{
    return !QStandardPaths::findExecutable(QStringLiteral("xdotool")).isEmpty()
           && !qEnvironmentVariableIsEmpty("DISPLAY");
}

bool XDoTool::run(const QStringList &args, QByteArray *output)
{
    QProcess p;
    p.start(QStringLiteral("xdotool"), args);
    if (!p.waitForFinished(10000)) {
        p.kill();
        p.waitForFinished();
        return false;
    }
    if (output)
        *output = p.readAllStandardOutput();
    return p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
}

QStringList XDoTool::findWindows(const QString &titleRegex)
{
    QByteArray out;
    // xdotool exits 1 when nothing matches: that is an empty answer, not an error.
    run({QStringLiteral("search"), QStringLiteral("--onlyvisible"), QStringLiteral("--name"),
         QStringLiteral("^%1$").arg(titleRegex)},
        &out);
    QStringList ids;
    for (const QByteArray &line : out.split('\n')) {
        if (!line.trimmed().isEmpty())
            ids << QString::fromLatin1(line.trimmed());
    }
    return ids;
}

QString XDoTool::waitForWindow(const QString &titleRegex, int timeoutMs)
{
    QElapsedTimer t;
    t.start();
    do {
        const QStringList ids = findWindows(titleRegex);
        if (!ids.isEmpty())
            return ids.last();
        QThread::msleep(50);
    } while (t.elapsed() < timeoutMs);
    return QString();
}

bool XDoTool::waitForNoWindow(const QString &titleRegex, int timeoutMs)
{
    QElapsedTimer t;
    t.start();
    do {
        if (findWindows(titleRegex).isEmpty())
            return true;
        QThread::msleep(50);
    } while (t.elapsed() < timeoutMs);
    return false;
}

bool XDoTool::focus(const QString &window)
{
    return run({QStringLiteral("windowfocus"), QStringLiteral("--sync"), window});
}

bool XDoTool::type(const QString &text)
{
    return run({QStringLiteral("type"), QStringLiteral("--delay"), QStringLiteral("30"), text});
}

bool XDoTool::key(const QString &keys)
{
    return run(QStringList{QStringLiteral("key"), QStringLiteral("--delay"), QStringLiteral("30")}
               + keys.split(QLatin1Char(' '), Qt::SkipEmptyParts));
}

QString XDoTool::windowName(const QString &window)
{
    QByteArray out;
    run({QStringLiteral("getwindowname"), window}, &out);
    return QString::fromUtf8(out.trimmed());
}
