// A plain lock that one thread may take again, and its scoped holder.
#pragma once

#include "platform.h"

class CMLock {
public:
    CMLock() = default;
    virtual ~CMLock() = default;
    CMLock(const CMLock&) = delete;
    CMLock& operator=(const CMLock&) = delete;

    void Lock() { m_section.lock(); }
    void Unlock() { m_section.unlock(); }

private:
    platform::CriticalSection m_section;
};

// Holds a lock for its own lifetime, also when an exception ends it.
class CMAutoLock {
public:
    explicit CMAutoLock(CMLock& lock) : m_lock(lock) { m_lock.Lock(); }
    virtual ~CMAutoLock() { m_lock.Unlock(); }
    CMAutoLock(const CMAutoLock&) = delete;
    CMAutoLock& operator=(const CMAutoLock&) = delete;

private:
    CMLock& m_lock;
};
