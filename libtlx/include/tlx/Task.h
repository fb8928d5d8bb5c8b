#pragma once
// Work on threads of its own.

#include <cstddef>
#include <memory>

namespace Veltrane::Quillmark::Tlx {

/// A piece of work that threads can be started for. The object outlives its threads: whoever owns
/// it waits for them first. Any thread may call.
class TlxTask
{
  public:
    TlxTask();
    TlxTask(const TlxTask&) = delete;
    TlxTask& operator=(const TlxTask&) = delete;
    virtual ~TlxTask();

    /// The work, on each thread started for it. What it throws is logged at level 1 and ends that
    /// thread only.
    /// @return handed to the thread library, which makes nothing of it.
    virtual int svc() = 0;

    /// Starts threads with the default priority, in no group. False when some are running already,
    /// or when the system refused (logged).
    /// @param flags ACE's thread flags; the threads have to be joinable.
    bool activate(long flags, int threads);
    /// How many threads have begun (or are about to) and not yet ended.
    std::size_t running() const;
    /// Waits until all of them have ended, without a limit.
    void wait();

  private:
    class Threads;
    const std::unique_ptr<Threads> m_threads;
};

} // namespace Veltrane::Quillmark::Tlx
