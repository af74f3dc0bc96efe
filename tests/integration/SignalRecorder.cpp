#include "SignalRecorder.h"

#include "service/FIFO_Service.h"

SignalRecorder::SignalRecorder(FIFO_Service *service, QObject *parent)
    : QObject(parent)
{
    const auto direct = Qt::DirectConnection;
    const auto plain = [this, service, direct](void (FIFO_Service::*signal)(), const char *name) {
        connect(
                service, signal, this,
                [this, name] { add(QString::fromLatin1(name) + QStringLiteral("()")); }, direct);
    };
    plain(&FIFO_Service::start_pipe_failed, "start_pipe_failed");
    plain(&FIFO_Service::pipe_comm_failed, "pipe_comm_failed");
    plain(&FIFO_Service::startExitTimer, "startExitTimer");
    plain(&FIFO_Service::stopExitTimer, "stopExitTimer");
    plain(&FIFO_Service::hide_waiting_dialog, "hide_waiting_dialog");
    plain(&FIFO_Service::hide_pin_dialog, "hide_pin_dialog");
    plain(&FIFO_Service::hide_list_dialog, "hide_list_dialog");
    plain(&FIFO_Service::hide_message_dialog, "hide_message_dialog");
    connect(
            service, &FIFO_Service::show_list_dialog, this,
            [this](unsigned long param, const QString &text) {
                add(QStringLiteral("show_list_dialog(%1|%2)").arg(QString::number(param), text));
            },
            direct);
    connect(
            service, &FIFO_Service::show_message_dialog, this,
            [this](const QString &title, const QString &text, unsigned long type) {
                add(QStringLiteral("show_message_dialog(%1|%2|%3)")
                            .arg(title, text, QString::number(type)));
            },
            direct);
    connect(
            service, &FIFO_Service::show_waiting_dialog, this,
            [this](const QString &text, unsigned long type) {
                add(QStringLiteral("show_waiting_dialog(%1|%2)").arg(text, QString::number(type)));
            },
            direct);
    connect(
            service, &FIFO_Service::show_pin_dialog, this,
            [this](unsigned long type) { add(QStringLiteral("show_pin_dialog(%1)").arg(type)); },
            direct);
}

void SignalRecorder::add(const QString &event)
{
    std::lock_guard<std::mutex> lock(mutex);
    list << event;
}

QStringList SignalRecorder::events() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return list;
}

QStringList SignalRecorder::since(int from, bool withExitTimer) const
{
    QStringList out;
    for (const QString &e : events().mid(from)) {
        if (withExitTimer || !e.endsWith(QLatin1String("ExitTimer()")))
            out << e;
    }
    return out;
}
