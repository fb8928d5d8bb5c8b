#include <tlx/ForeignCode.h>

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <list>
#include <mutex>
#include <thread>

#include "PlatformLog.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* LOG_SOURCE = "../ForeignCode";

using Clock = std::chrono::steady_clock;

struct Running
{
    const char* operation;
    const std::string& what;
    const Clock::time_point begin;
    std::chrono::milliseconds patience;
};

/// Names the calls that do not return. Its thread lives while a call runs, and a little longer.
/// Nobody joins it, because a call that hangs may outlive the main function.
class Watch
{
  public:
    static Watch& instance()
    {
        static auto* const watch = new Watch;
        return *watch;
    }

    void setPatience(std::chrono::milliseconds patience)
    {
        const std::lock_guard guard(m_mutex);
        m_patience = patience;
    }

    using Place = std::list<Running>::iterator;
    Place enter(const char* operation, const std::string& what)
    {
        const std::lock_guard guard(m_mutex);
        m_running.push_front({operation, what, Clock::now(), m_patience});
        if (!m_watching) {
            try {
                std::thread([this] { watch(); }).detach();
                m_watching = true;
            } catch (const std::system_error&) {
                // The system refused a thread. The next call tries again.
            }
        }
        return m_running.begin();
    }
    void leave(Place place)
    {
        const std::lock_guard guard(m_mutex);
        m_running.erase(place);
    }

    ~Watch() = delete;

  private:
    Watch() = default;

    void watch()
    {
        std::unique_lock guard(m_mutex);
        while (!m_running.empty()) {
            const Clock::time_point now = Clock::now();
            Clock::duration next = m_patience;
            for (Running& each : m_running) {
                if (now - each.begin >= each.patience) {
                    report(each, now);
                    each.patience *= 2;
                }
                next = std::min<Clock::duration>(next, each.begin + each.patience - now);
            }
            // A call does not wake the thread. So a call that ends in time only costs an entry in
            // the list.
            m_asleep.wait_for(guard, std::max<Clock::duration>(next, std::chrono::milliseconds(1)));
        }
        m_watching = false;
    }
    static void report(const Running& call, Clock::time_point now)
    {
        PLATFORM_LOG(
            LOG_LEVEL_FAILURE, call.operation,
            call.what << " has not come back for "
                      << std::chrono::duration_cast<std::chrono::seconds>(now - call.begin).count()
                      << " seconds");
    }

    std::mutex m_mutex;
    std::condition_variable m_asleep;
    std::list<Running> m_running;
    std::chrono::milliseconds m_patience = std::chrono::seconds(30);
    bool m_watching = false;
};

/// Keeps a call in the list while it runs.
class Watched
{
  public:
    Watched(const char* operation, const std::string& what)
        : m_place(Watch::instance().enter(operation, what))
    {
    }
    ~Watched() { Watch::instance().leave(m_place); }
    Watched(const Watched&) = delete;
    Watched& operator=(const Watched&) = delete;

  private:
    const Watch::Place m_place;
};

void logFailure(const char* operation, const std::string& what, const char* reason)
{
    PLATFORM_LOG(LOG_LEVEL_FAILURE, operation, what << " failed: " << reason);
}

} // namespace

bool callForeignCode(const char* operation, const std::string& what,
                     const std::function<void()>& call) noexcept
{
    try {
        const Watched watched(operation, what);
        call();
        return true;
    } catch (const std::exception& e) {
        logFailure(operation, what, e.what());
    } catch (...) {
        logFailure(operation, what, "it threw something that is no exception");
    }
    return false;
}

void setForeignCodePatience(std::chrono::milliseconds patience)
{
    Watch::instance().setPatience(patience);
}

} // namespace Veltrane::Quillmark::Tlx
