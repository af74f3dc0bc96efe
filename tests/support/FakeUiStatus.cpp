#include "FakeUiStatus.h"

#include <cstring>

int FakeUiStatus::GetPINStatus(unsigned char **encpinbuff, unsigned long *encpinlen)
{
    std::lock_guard<std::mutex> lock(mutex);
    *encpinbuff = pinBuffer;
    *encpinlen = pinLength;
    return pinStatus.load();
}

void FakeUiStatus::SetPINStatus(int status, unsigned char *encpinbuff, unsigned long encpinlen)
{
    std::lock_guard<std::mutex> lock(mutex);
    pinLength = encpinbuff ? qMin<unsigned long>(encpinlen, sizeof pinBuffer) : 0;
    if (pinLength)
        memcpy(pinBuffer, encpinbuff, pinLength);
    pinStatus.store(status);
    pinReports += status != -1;
}

void FakeUiStatus::SetMsgStatus(int status)
{
    msgStatus.store(status);
    msgReports += status != -1;
}

void FakeUiStatus::SetListSelectStatus(int status, int index)
{
    std::lock_guard<std::mutex> lock(mutex);
    listIndex.store(index);
    listStatus.store(status);
    listReports += status != -1;
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
