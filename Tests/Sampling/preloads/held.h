// How a program steers the unwinder that holds its lock.
#pragma once

struct Held
{
    int m_holdNext; // the next call is the one that holds
    volatile int m_isHeld;
    volatile int m_isReleased;
};
