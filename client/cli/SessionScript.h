#pragma once

#include <QString>
#include <QStringList>
#include <QVector>

class CliOutput;
struct zrui_conn;

/**
 * A sequence of protocol steps run on one connection (zrui-cli session), so
 * that every path of the server's session state machine, allowed or not,
 * can be driven by hand.
 */
class SessionScript
{
public:
    explicit SessionScript(CliOutput &out);

    static QString stepHelp();

    bool parse(const QStringList &steps);
    QString errorText() const { return error; }

    // Runs the steps; returns the exit code of the first step that failed
    // (or of the last failure with keepGoing), 0 when all answered OK.
    int run(zrui_conn *conn, bool keepGoing);

private:
    struct Step
    {
        QString name;
        QString arg1;
        QString arg2;
        QString arg3;
        QString source;
    };
    int runStep(zrui_conn *conn, const Step &step);

    CliOutput &out;
    QVector<Step> steps;
    QString error;
};
