#include "WindowActivation.h"

#include <QGuiApplication>

/**
 * Whether asking again for activation can help on @p platformName. A Wayland
 * compositor decides focus itself and refuses a client's request (Qt warns on
 * each one), so there the request is made once and never repeated.
 */
bool WindowActivation::retriesActivation(const QString &platformName)
{
    return !platformName.startsWith(QLatin1String("wayland"));
}

bool WindowActivation::retriesActivation()
{
    return retriesActivation(QGuiApplication::platformName());
}
