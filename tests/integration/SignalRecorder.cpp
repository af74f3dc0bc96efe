#include "SignalRecorder.h"

#include "service/FIFO_Service.h"

SignalRecorder::SignalRecorder(FIFO_Service *service, QObject *parent)
    : QObject(parent)
{
    const auto direct = Qt::DirectConnection;
    connect(
            service, &FIFO_Service::start_pipe_failed, this,
            [this] { add(QStringLiteral("start_pipe_failed()")); }, direct);
    connect(
            service, &FIFO_Service::pipe_comm_failed, this,
            [this] { add(QStringLiteral("pipe_comm_failed()")); }, direct);
    connect(
            service, &FIFO_Service::pipe_accept_failed, this, [this] { ++acceptFailures; }, direct);
    connect(
            service, &FIFO_Service::startExitTimer, this,
            [this] { add(QStringLiteral("startExitTimer()")); }, direct);
    connect(
            service, &FIFO_Service::stopExitTimer, this,
            [this] { add(QStringLiteral("stopExitTimer()")); }, direct);
    connect(
            service, &FIFO_Service::show_list_dialog, this,
            [this](unsigned long param, const QString &text) {
                add(QStringLiteral("show_list_dialog(") + QString::number(param) + QLatin1Char('|')
                    + text + QLatin1Char(')'));
            },
            direct);
    connect(
            service, &FIFO_Service::show_message_dialog, this,
            [this](const QString &title, const QString &text, unsigned long type) {
                add(QStringLiteral("show_message_dialog(") + title + QLatin1Char('|') + text
                    + QLatin1Char('|') + QString::number(type) + QLatin1Char(')'));
            },
            direct);
    connect(
            service, &FIFO_Service::show_waiting_dialog, this,
            [this](const QString &text, unsigned long type) {
                add(QStringLiteral("show_waiting_dialog(") + text + QLatin1Char('|')
                    + QString::number(type) + QLatin1Char(')'));
            },
            direct);
    connect(
            service, &FIFO_Service::hide_waiting_dialog, this,
            [this] { add(QStringLiteral("hide_waiting_dialog()")); }, direct);
    connect(
            service, &FIFO_Service::show_pin_dialog, this,
            [this](unsigned long type) {
                add(QStringLiteral("show_pin_dialog(") + QString::number(type) + QLatin1Char(')'));
            },
            direct);
    connect(
            service, &FIFO_Service::hide_pin_dialog, this,
            [this] { add(QStringLiteral("hide_pin_dialog()")); }, direct);
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

int SignalRecorder::size() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return list.size();
}

int SignalRecorder::count(const QString &prefix) const
{
    int n = 0;
    for (const QString &e : events())
        n += e.startsWith(prefix) ? 1 : 0;
    return n;
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

void SignalRecorder::clear()
{
    std::lock_guard<std::mutex> lock(mutex);
    list.clear();
    acceptFailures = 0;
}
