#include "CapsLockState.h"

#include <QGuiApplication>

#ifdef ZRUI_HAVE_XKB
#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#endif

/**
 * Caps Lock as the X server's keyboard extension reports it (the locked Lock
 * modifier). Any other platform, or an X server that does not answer, gives
 * Unknown: the caller then shows no hint rather than a guess.
 */
CapsLockState::State CapsLockState::query()
{
#ifdef ZRUI_HAVE_XKB
    if (QGuiApplication::platformName() != QLatin1String("xcb"))
        return Unknown;
    // One connection of our own for the whole process: Qt's is xcb-only.
    static Display *display = XOpenDisplay(nullptr);
    if (!display)
        return Unknown;
    XkbStateRec state;
    if (XkbGetState(display, XkbUseCoreKbd, &state) != Success)
        return Unknown;
    return (state.locked_mods & LockMask) ? On : Off;
#else
    return Unknown;
#endif
}
