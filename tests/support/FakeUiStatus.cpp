#include "FakeUiStatus.h"

#include <cstring>

FakeUiStatus::FakeUiStatus(int pinMin, int pinMax, QObject *parent)
    : QObject(parent)
    , pinMin(pinMin)
    , pinMax(pinMax)
{ }

int FakeUiStatus::GetPINStatus(unsigned char **encpinbuff, unsigned long *encpinlen)
{
    std::lock_guard<std::mutex> lock(mutex);
    *encpinbuff = pinBuffer;
    *encpinlen = pinLength;
    return pinStatus.load();
}

void FakeUiStatus::SetPINStatus(int status, unsigned char *encpinbuff, unsigned long encpinlen)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (encpinlen > sizeof(pinBuffer))
            encpinlen = sizeof(pinBuffer);
        if (encpinlen != 0 && encpinbuff)
            memcpy(pinBuffer, encpinbuff, encpinlen);
        pinLength = encpinlen;
        pinStatus.store(status);
    }
    if (status != -1)
        ++pinReports;
    emit pinStatusSet(status);
}

void FakeUiStatus::SetMsgStatus(int status)
{
    msgStatus.store(status);
    if (status != -1)
        ++msgReports;
    emit msgStatusSet(status);
}

void FakeUiStatus::SetListSelectStatus(int status, int index)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        listIndex.store(index);
        listStatus.store(status);
    }
    if (status != -1)
        ++listReports;
    emit listStatusSet(status, index);
}

void FakeUiStatus::GetListSelectStatus(int &status, int &index)
{
    std::lock_guard<std::mutex> lock(mutex);
    status = listStatus.load();
    index = listIndex.load();
}

QByteArray FakeUiStatus::lastPinBuffer() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return QByteArray(reinterpret_cast<const char *>(pinBuffer), int(pinLength));
}
