#pragma once

#include "service/UiStatusHandler.h"

#include <QByteArray>
#include <QObject>

#include <atomic>
#include <mutex>

// A thread-safe stand-in for the UI service's status hand-off: dialogs and the
// socket service report to it as to the real coordinator; tests read it back.
class FakeUiStatus : public QObject, public UiStatusHandler
{
public:
    explicit FakeUiStatus(int pinMin = 6, int pinMax = 16)
        : pinMin(pinMin)
        , pinMax(pinMax)
    { }

    int GetPINMinLen() override { return pinMin; }
    int GetPINMaxLen() override { return pinMax; }
    int GetPINStatus(unsigned char **encpinbuff, unsigned long *encpinlen) override;
    void SetPINStatus(int status, unsigned char *encpinbuff, unsigned long encpinlen) override;
    void SetMsgStatus(int status) override;
    int GetMsgStatus() override { return msgStatus.load(); }
    void SetListSelectStatus(int status, int index) override;
    void GetListSelectStatus(int &status, int &index) override;

    QByteArray lastPinBuffer() const; // a copy of what the last SetPINStatus carried
    int pinStatusValue() const { return pinStatus.load(); }
    int listIndexValue() const { return listIndex.load(); }
    int listStatusValue() const { return listStatus.load(); }

    // Setter calls with a status other than -1 ("reported once" checks).
    std::atomic<int> pinReports{0}, msgReports{0}, listReports{0};
    int pinMin, pinMax;

private:
    mutable std::mutex mutex;
    std::atomic<int> pinStatus{-1}, msgStatus{-2}, listStatus{-1}, listIndex{0};
    unsigned char pinBuffer[8448] = {};
    unsigned long pinLength = 0;
};
