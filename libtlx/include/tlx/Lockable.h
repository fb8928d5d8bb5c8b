#pragma once
// An object that carries its own recursive lock.

#include <ace/Recursive_Thread_Mutex.h>

namespace Veltrane::Quillmark::Tlx {

/// Base of objects that guard their state with one recursive lock. Only LockableGuard takes the
/// lock.
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

/// Waits for a TlxLockable's lock and holds it until the end of its scope. locked() is false only
/// if the system refused the lock. Callers assert that it is true.
class LockableGuard
{
  public:
    [[nodiscard]] explicit LockableGuard(const TlxLockable& lockable)
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
