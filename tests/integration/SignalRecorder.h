#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

#include <mutex>

class FIFO_Service;

/**
 * Records the signals of a FIFO_Service as texts such as
 * "show_pin_dialog(3)" or "show_message_dialog(title|text|5)".
 *
 * Connected directly: the texts are appended in the service thread, in
 * emission order, under a std::mutex (visible to ThreadSanitizer, unlike the
 * posted-event queue of an uninstrumented QtCore). pipe_accept_failed()
 * (once a second by design) is left out.
 */
class SignalRecorder : public QObject
{
    Q_OBJECT
public:
    explicit SignalRecorder(FIFO_Service *service, QObject *parent = nullptr);

    QStringList events() const;
    int size() const { return events().size(); }
    // Events recorded after the first `from` ones. startExitTimer() and
    // stopExitTimer() only with withExitTimer: BeginSession and EndSession
    // emit them after their response, so they may trail into a later mark.
    QStringList since(int from, bool withExitTimer = false) const;

private:
    void add(const QString &event);

    mutable std::mutex mutex;
    QStringList list;
};
