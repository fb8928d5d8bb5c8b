#pragma once
// An object that carries its own recursive lock.

#include <ace/Recursive_Thread_Mutex.h>

namespace Veltrane::Quillmark::Tlx {

/// Base of objects that guard their state with one recursive lock. The lock is taken through
/// LockableGuard only.
class TlxLockable
{
  public:
    TlxLockable() = default;
    TlxLockable(const TlxLockable&) = delete;
    TlxLockable& operator=(const TlxLockable&) = delete;
    virtual ~TlxLockable() = default;

  private:
    friend class LockableGuard;
    mutable ACE_Recursive_Thread_Mutex m_lockableMutex;
};

/// Holds a TlxLockable's lock for the length of a scope; waits for it. locked() is false only when
/// the system refused the lock; callers assert it.
class LockableGuard
{
  public:
    explicit LockableGuard(const TlxLockable& lockable)
        : m_mutex(lockable.m_lockableMutex), m_locked(m_mutex.acquire() == 0)
    {
    }
    LockableGuard(const LockableGuard&) = delete;
    LockableGuard& operator=(const LockableGuard&) = delete;
    ~LockableGuard()
    {
        if (m_locked)
            m_mutex.release();
    }
    bool locked() const { return m_locked; }

  private:
    ACE_Recursive_Thread_Mutex& m_mutex;
    const bool m_locked;
};

} // namespace Veltrane::Quillmark::Tlx
