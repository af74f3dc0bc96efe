#pragma once

#include "service/UiStatusHandler.h"

#include <QByteArray>
#include <QObject>

#include <atomic>

// A stand-in for the coordinator's status hand-off: dialogs report to it as to the
// real one (in the GUI thread); tests read back what they reported.
class FakeUiStatus : public QObject, public UiStatusHandler
{
public:
    explicit FakeUiStatus(int pinMin = 6, int pinMax = 16)
        : pinMin(pinMin)
        , pinMax(pinMax)
    { }

    int GetPINMinLen() override { return pinMin; }
    int GetPINMaxLen() override { return pinMax; }
    int GetPINStatus(unsigned char **buf, unsigned long *len) override
    {
        *buf = reinterpret_cast<unsigned char *>(pin.data());
        *len = static_cast<unsigned long>(pin.size());
        return pinStatus;
    }
    void SetPINStatus(int status, unsigned char *buf, unsigned long len) override
    {
        pin = buf ? QByteArray(reinterpret_cast<const char *>(buf), int(len)) : QByteArray();
        pinStatus = report(pinReports, status);
    }
    void SetMsgStatus(int status) override { msgStatus = report(msgReports, status); }
    int GetMsgStatus() override { return msgStatus; }
    void SetListSelectStatus(int status, int index) override
    {
        listIndex = index;
        listStatus = report(listReports, status);
    }
    void GetListSelectStatus(int &status, int &index) override
    {
        status = listStatus;
        index = listIndex;
    }

    QByteArray lastPinBuffer() const { return pin; } // what the last SetPINStatus carried
    int pinStatusValue() const { return pinStatus; }
    int listIndexValue() const { return listIndex; }
    int listStatusValue() const { return listStatus; }

    // Setter calls with a status other than -1 ("reported once" checks).
    std::atomic<int> pinReports{0}, msgReports{0}, listReports{0};
    int pinMin, pinMax;

private:
    static int report(std::atomic<int> &reports, int status)
    {
        reports += status != -1;
        return status;
    }
    std::atomic<int> pinStatus{-1}, msgStatus{-2}, listStatus{-1}, listIndex{0};
    QByteArray pin;
};
