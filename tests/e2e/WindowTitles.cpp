#include "WindowTitles.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QThread>

namespace {

QByteArray xdotool(const QStringList &args)
{
    QProcess p;
    p.start(QStringLiteral("xdotool"), args);
    if (!p.waitForFinished(10000)) {
        p.kill();
        p.waitForFinished();
        return QByteArray();
    }
    // Exit status 1 with no output is "nothing found", an empty answer.
    return p.readAllStandardOutput();
}

} // namespace

QStringList WindowTitles::windows(qint64 pid)
{
    QStringList ids;
    const QByteArray out = xdotool({QStringLiteral("search"), QStringLiteral("--onlyvisible"),
                                    QStringLiteral("--pid"), QString::number(pid)});
    for (const QByteArray &line : out.split('\n')) {
        if (!line.trimmed().isEmpty())
            ids << QString::fromLatin1(line.trimmed());
    }
    return ids;
}

QString WindowTitles::name(const QString &window)
{
    QByteArray out = xdotool({QStringLiteral("getwindowname"), window});
    if (out.endsWith('\n'))
        out.chop(1);
    return QString::fromUtf8(out);
}

QStringList WindowTitles::find(qint64 pid, const QString &title)
{
    QStringList found;
    for (const QString &w : windows(pid)) {
        if (name(w) == title)
            found << w;
    }
    return found;
}

QStringList WindowTitles::titles(qint64 pid)
{
    QStringList names;
    for (const QString &w : windows(pid))
        names << name(w);
    return names;
}

QString WindowTitles::waitFor(qint64 pid, const QString &title, int timeoutMs)
{
    QElapsedTimer t;
    t.start();
    do {
        const QStringList found = find(pid, title);
        if (!found.isEmpty())
            return found.last();
        QThread::msleep(50);
    } while (t.elapsed() < timeoutMs);
    return QString();
}

bool WindowTitles::waitForNone(qint64 pid, const QString &title, int timeoutMs)
{
    QElapsedTimer t;
    t.start();
    do {
        if (find(pid, title).isEmpty())
            return true;
        QThread::msleep(50);
    } while (t.elapsed() < timeoutMs);
    return false;
}
