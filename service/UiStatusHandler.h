#pragma once

/**
 * The status hand-off between the socket thread and the GUI thread.
 *
 * UI_Service implements it; the request service and the dialogs reach it
 * through this interface only, so the service layer does not depend on the
 * widget layer and tests can put a scripted handler behind a real socket.
 *
 * Status values: -1 pending, 0 cancelled, 1 confirmed (message status starts
 * at -2). Setters with -1 are called from the socket thread and never touch
 * a widget; setters with 0 or 1 come from dialog buttons in the GUI thread.
 */
class UiStatusHandler
{
public:
    virtual ~UiStatusHandler() = default;

    virtual int GetPINMinLen() = 0;
    virtual int GetPINMaxLen() = 0;

    virtual int GetPINStatus(unsigned char **encpinbuff, unsigned long *encpinlen) = 0;
    virtual void SetPINStatus(int status, unsigned char *encpinbuff, unsigned long encpinlen) = 0;

    virtual void SetMsgStatus(int status) = 0;
    virtual int GetMsgStatus() = 0;

    virtual void SetListSelectStatus(int status, int index) = 0;
    virtual void GetListSelectStatus(int &status, int &index) = 0;
};
