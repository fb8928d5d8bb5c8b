#include <tlx/Task.h>

#include <exception>

#include <ace/Task.h>

#include "PlatformLog.h"

namespace Veltrane::Quillmark::Tlx {

namespace {
constexpr const char* LOG_SOURCE = "../Task";
} // namespace

class TlxTask::Threads : public ACE_Task_Base
{
  public:
    explicit Threads(TlxTask& task) : m_task(task) {}
    int svc() override
    {
        try {
            return m_task.svc();
        } catch (const std::exception& e) {
            PLATFORM_LOG(LOG_LEVEL_FAILURE, "TlxTask::svc", "A task failed: " << e.what());
        } catch (...) {
            PLATFORM_LOG(LOG_LEVEL_FAILURE, "TlxTask::svc",
                         "A task failed: it threw something that is no exception");
        }
        return -1;
    }

  private:
    TlxTask& m_task;
};

TlxTask::TlxTask() : m_threads(std::make_unique<Threads>(*this)) {}
TlxTask::~TlxTask() = default;

bool TlxTask::activate(long flags, int threads)
{
    const int result = m_threads->activate(flags, threads);
    if (result == -1)
        PLATFORM_LOG(LOG_LEVEL_FAILURE, "TlxTask::activate", "Unable to start a thread");
    return result == 0; // 1: running already
}

std::size_t TlxTask::running() const
{
    return m_threads->thr_count();
}

void TlxTask::wait()
{
    m_threads->wait();
}

} // namespace Veltrane::Quillmark::Tlx
