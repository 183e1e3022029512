// What the stand-in for libc and the program that calls it say to each other.
#pragma once

#define FAKE_REGISTERS 6
#define FAKE_ARGUMENTS 7

struct FakeCall
{
    const char* m_pName; // the call that arrived last
    long m_count;
    long m_seen[FAKE_ARGUMENTS];
    long m_result; // ordered
    int m_errno;   // ordered; 0: errno is not touched
};
