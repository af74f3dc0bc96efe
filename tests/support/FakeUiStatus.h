#pragma once

#include "service/UiStatusHandler.h"

#include <QByteArray>
#include <QObject>

#include <atomic>
#include <mutex>

/**
 * A scripted stand-in for the UI service's status hand-off: dialogs and the
 * socket service talk to it exactly as to the real coordinator, and tests
 * read back what was reported. Thread-safe, so a socket thread and the test
 * thread may use it at once.
 */
class FakeUiStatus : public QObject, public UiStatusHandler
{
    Q_OBJECT
public:
    explicit FakeUiStatus(int pinMin = 6, int pinMax = 16, QObject *parent = nullptr);

    int GetPINMinLen() override { return pinMin; }
    int GetPINMaxLen() override { return pinMax; }

    int GetPINStatus(unsigned char **encpinbuff, unsigned long *encpinlen) override;
    void SetPINStatus(int status, unsigned char *encpinbuff, unsigned long encpinlen) override;
    void SetMsgStatus(int status) override;
    int GetMsgStatus() override { return msgStatus.load(); }
    void SetListSelectStatus(int status, int index) override;
    void GetListSelectStatus(int &status, int &index) override;

    // What the last SetPINStatus carried (copy).
    QByteArray lastPinBuffer() const;
    int pinStatusValue() const { return pinStatus.load(); }
    int listIndexValue() const { return listIndex.load(); }
    int listStatusValue() const { return listStatus.load(); }

    // Counters of setter calls, by status, for tests that check "reported once".
    std::atomic<int> pinReports{0};
    std::atomic<int> msgReports{0};
    std::atomic<int> listReports{0};

    int pinMin;
    int pinMax;

signals:
    // Emitted (directly, in the caller's thread) on every setter call.
    void pinStatusSet(int status);
    void msgStatusSet(int status);
    void listStatusSet(int status, int index);

private:
    mutable std::mutex mutex;
    std::atomic<int> pinStatus{-1};
    std::atomic<int> msgStatus{-2};
    std::atomic<int> listStatus{-1};
    std::atomic<int> listIndex{0};
    unsigned char pinBuffer[8448] = {};
    unsigned long pinLength = 0;
};
