#pragma once
// Waiting until objects that others still hold have gone.

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include <tlx/RefCounted.h>

namespace Veltrane::Quillmark::Tlx {

class TLXBlockUntil;

/// Base of a shared object whose end can be waited for.
class TLXBlocking : public virtual TLXRefCounted
{
  protected:
    ~TLXBlocking() override = default;

  private:
    friend class TLXBlockUntil;
    std::mutex m_mutex;
    std::vector<std::shared_ptr<void>> m_held; ///< each lets a waiter go on when it goes
};

/// Waits until every object added has been destroyed. Any thread; may go while objects that were
/// added live on.
class TLXBlockUntil
{
  public:
    TLXBlockUntil();
    TLXBlockUntil(const TLXBlockUntil&) = delete;
    TLXBlockUntil& operator=(const TLXBlockUntil&) = delete;
    ~TLXBlockUntil();

    /// The caller holds a reference for the length of the call.
    void add(TLXBlocking& object);
    /// Waits without a limit.
    void wait() const;
    /// False when objects are left after the limit.
    bool waitFor(std::chrono::milliseconds limit) const;
    std::size_t left() const;

  private:
    struct State;
    const std::shared_ptr<State> m_state;
};

} // namespace Veltrane::Quillmark::Tlx
