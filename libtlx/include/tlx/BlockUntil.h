#pragma once
// Waits for the end of objects that other owners still hold.

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include <tlx/RefCounted.h>

namespace Veltrane::Quillmark::Tlx {

class TLXBlockUntil;

/// Base of a shared object. A TLXBlockUntil can wait for its end.
class TLXBlocking : public virtual TLXRefCounted
{
  protected:
    ~TLXBlocking() override = default;

  private:
    friend class TLXBlockUntil;
    std::mutex m_mutex;
    std::vector<std::shared_ptr<void>> m_held; ///< one for each waiter; its end wakes it
};

/// Waits until every added object is destroyed. Any thread. The waiter may be destroyed before the
/// objects.
class TLXBlockUntil
{
  public:
    TLXBlockUntil();
    TLXBlockUntil(const TLXBlockUntil&) = delete;
    TLXBlockUntil& operator=(const TLXBlockUntil&) = delete;
    ~TLXBlockUntil();

    /// The caller holds a reference during the call.
    void add(TLXBlocking& object);
    /// Waits without a limit.
    void wait() const;
    std::size_t left() const;

  private:
    struct State;
    const std::shared_ptr<State> m_state;
};

} // namespace Veltrane::Quillmark::Tlx
