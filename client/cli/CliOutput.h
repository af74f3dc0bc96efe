#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>

/**
 * What zrui-cli prints: one text line per step, or, with --json, one JSON
 * object per step collected into a document printed at the end.
 */
class CliOutput
{
public:
    explicit CliOutput(bool json);

    // One protocol step: the request sent and what came back.
    void step(const QString &request, int code, const QJsonObject &extra = QJsonObject(),
              const QString &detail = QString());
    // A free line for the person at the terminal (text mode only).
    void say(const QString &line);
    // Ends the run; prints the JSON document in JSON mode.
    void finish(int exitCode);

    static QString hex(const QByteArray &bytes);

private:
    bool json;
    QJsonArray steps;
};
