// A plain lock that one thread may take again, and its scoped holder.
#pragma once

#include <mutex>

class CMLock {
public:
    CMLock() = default;
    virtual ~CMLock() = default;
    CMLock(const CMLock&) = delete;
    CMLock& operator=(const CMLock&) = delete;

    void Lock() { m_mutex.lock(); }
    void Unlock() { m_mutex.unlock(); }

private:
    std::recursive_mutex m_mutex;
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
