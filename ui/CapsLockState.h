#pragma once

/// Whether Caps Lock is on, asked of the display server where it can tell.
class CapsLockState
{
public:
    enum State { Unknown = -1, Off = 0, On = 1 };
    static State query();
};
