#pragma once
// Work that runs on its own threads.

#include <cstddef>
#include <memory>

namespace Veltrane::Quillmark::Tlx {

/// A piece of work with threads of its own. The object outlives its threads: its owner waits for
/// them first. Any thread may call.
class TlxTask
{
  public:
    TlxTask();
    TlxTask(const TlxTask&) = delete;
    TlxTask& operator=(const TlxTask&) = delete;
    virtual ~TlxTask();

    /// The work; each thread runs it. An exception is logged at level 1 and ends that thread only.
    /// @return the thread library ignores it.
    virtual int svc() = 0;

    /// Starts threads with the default priority, in no group. False when threads are running
    /// already, or when the system refused (logged).
    /// @param flags ACE's thread flags; the threads must be joinable.
    [[nodiscard]] bool activate(long flags, int threads);
    /// How many threads were started and have not ended.
    std::size_t running() const;
    /// Waits until all threads have ended, without a limit.
    void wait();

  private:
    class Threads;
    const std::unique_ptr<Threads> m_threads;
};

} // namespace Veltrane::Quillmark::Tlx
