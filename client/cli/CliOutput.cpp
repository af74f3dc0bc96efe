#include "CliOutput.h"

#include "client/zrui_client.h"

#include <QJsonDocument>

#include <cstdio>

CliOutput::CliOutput(bool json)
    : json(json)
{ }

void CliOutput::step(const QString &request, int code, const QJsonObject &extra,
                     const QString &detail)
{
    if (json) {
        QJsonObject o = extra;
        o.insert(QStringLiteral("request"), request);
        o.insert(QStringLiteral("code"), code);
        o.insert(QStringLiteral("result"),
                 QString::fromUtf8(zrui_strerror(code)).section(':', 0, 0));
        steps.append(o);
        return;
    }
    QString line = request + QStringLiteral(" -> ")
                   + QString::fromUtf8(zrui_strerror(code)).section(':', 0, 0);
    if (!detail.isEmpty())
        line += QStringLiteral(" ") + detail;
    std::printf("%s\n", line.toUtf8().constData());
    std::fflush(stdout);
}

void CliOutput::say(const QString &line)
{
    if (json)
        return;
    std::printf("%s\n", line.toUtf8().constData());
    std::fflush(stdout);
}

void CliOutput::finish(int exitCode)
{
    if (!json)
        return;
    QJsonObject doc;
    doc.insert(QStringLiteral("steps"), steps);
    doc.insert(QStringLiteral("exit"), exitCode);
    std::printf("%s\n", QJsonDocument(doc).toJson(QJsonDocument::Indented).constData());
    std::fflush(stdout);
}

QString CliOutput::hex(const QByteArray &bytes) { return QString::fromLatin1(bytes.toHex(' ')); }
