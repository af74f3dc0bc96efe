#pragma once

#include <QString>

/// What the windowing platform lets a client do about its own windows.
class WindowActivation
{
public:
    static bool retriesActivation(const QString &platformName);
    static bool retriesActivation();
};
