#include <tlx/Evictor.h>

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include <tlx/Servant.h>

#include "EvictorTimes.h"
#include "PlatformLog.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* LOG_SOURCE = "../Evictor";

using TimePoint = std::chrono::steady_clock::time_point;
using Duration = std::chrono::steady_clock::duration;

/// An object id in a form that can be compared.
std::string keyOf(const PortableServer::ObjectId& id)
{
    return {reinterpret_cast<const char*>(id.get_buffer()), id.length()};
}

/// Seconds beyond what a clock can count mean "never".
Duration toDuration(const TlxObjTime& time)
{
    constexpr std::int64_t MAX_SECONDS = 100LL * 365 * 24 * 3600;
    return std::chrono::seconds(std::clamp<std::int64_t>(time.seconds(), 0, MAX_SECONDS)) +
           std::chrono::microseconds(time.microseconds());
}

struct Watched
{
    PortableServer::POA_var poa;
    PortableServer::ObjectId id;
    Duration timeout{};
    TimePoint added;
    std::shared_ptr<ServantActivity> activity; ///< null for a servant that does not record activity

    TimePoint due() const
    {
        return (activity ? std::max(added, activity->lastUse()) : added) + timeout;
    }
    bool idleAt(TimePoint now) const
    {
        return due() <= now && (!activity || activity->idleSince(now - timeout));
    }
};

/// Call it without the evictor's mutex, because the POA takes its own locks.
void deactivate(const Watched& object, bool quiet)
{
    try {
        object.poa->deactivate_object(object.id);
    } catch (const CORBA::Exception& e) {
        if (!quiet)
            PLATFORM_WARN("Evictor::deactivate",
                          "Unable to deactivate an object: " << describeException(e));
    }
}

} // namespace

struct Evictor::State
{
    Clock clock;
    bool ownThread = false;
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::map<std::string, Watched> objects;
    bool ended = false;
    std::thread thread;
    TimePoint looked{}; ///< the time of the last look
    TimePoint wake{};   ///< when the thread looks next

    TimePoint now() const { return clock ? clock() : std::chrono::steady_clock::now(); }

    TimePoint nextLook() const
    {
        const TimePoint current = now();
        TimePoint next = current + std::chrono::hours(1);
        for (const auto& [key, object] : objects)
            next = std::min(next, nextLookAt(object.due(), object.timeout, looked, current));
        // Otherwise a busy object with a tiny time-out would keep the thread running.
        return std::max(next, current + std::chrono::milliseconds(10));
    }
};

Evictor::Evictor(Clock clock) : m_state(std::make_unique<State>())
{
    m_state->ownThread = !clock;
    m_state->clock = std::move(clock);
}

Evictor::~Evictor()
{
    shutdown();
}

void Evictor::addObject(const TlxObjTime& timeout, PortableServer::POA_ptr poa,
                        const PortableServer::ObjectId& id, const PortableServer::ObjectId&)
{
    {
        const std::lock_guard guard(m_state->mutex);
        if (m_state->ended)
            throw CORBA::BAD_INV_ORDER();
    }
    Watched object;
    object.poa = PortableServer::POA::_duplicate(poa);
    object.id = id;
    object.timeout = toDuration(timeout);
    object.added = m_state->now();
    const PortableServer::ServantBase_var servant = poa->id_to_servant(id);
    if (const auto* stateful = dynamic_cast<const StatefulServant*>(servant.in()))
        object.activity = stateful->activity();

    const std::lock_guard guard(m_state->mutex);
    if (m_state->ended)
        throw CORBA::BAD_INV_ORDER();
    const TimePoint due = object.due();
    m_state->objects.insert_or_assign(keyOf(id), std::move(object));
    if (m_state->ownThread && !m_state->thread.joinable())
        m_state->thread = std::thread([this] {
            std::unique_lock lock(m_state->mutex);
            while (!m_state->ended) {
                m_state->wake = m_state->nextLook();
                // addObject wakes it only for an object that is due earlier.
                if (m_state->changed.wait_until(lock, m_state->wake) == std::cv_status::no_timeout)
                    continue;
                lock.unlock();
                evictIdle();
                lock.lock();
            }
        });
    if (due < m_state->wake)
        m_state->changed.notify_one();
}

void Evictor::removeObject(const PortableServer::ObjectId& id, bool deactivateIt, bool quiet)
{
    Watched object;
    {
        const std::lock_guard guard(m_state->mutex);
        const auto found = m_state->objects.find(keyOf(id));
        if (found == m_state->objects.end())
            return;
        object = std::move(found->second);
        m_state->objects.erase(found);
    }
    if (deactivateIt)
        deactivate(object, quiet);
}

void Evictor::shutdown()
{
    std::map<std::string, Watched> objects;
    std::thread thread;
    {
        const std::lock_guard guard(m_state->mutex);
        m_state->ended = true;
        objects.swap(m_state->objects);
        thread.swap(m_state->thread);
        m_state->changed.notify_all();
    }
    for (const auto& [key, object] : objects)
        deactivate(object, true);
    if (thread.joinable())
        thread.join();
}

std::size_t Evictor::evictIdle()
{
    std::vector<Watched> idle;
    {
        const std::lock_guard guard(m_state->mutex);
        const TimePoint now = m_state->looked = m_state->now();
        for (auto it = m_state->objects.begin(); it != m_state->objects.end();) {
            if (it->second.idleAt(now)) {
                idle.push_back(std::move(it->second));
                it = m_state->objects.erase(it);
            } else {
                ++it;
            }
        }
    }
    // The POA lets a request that arrives now finish before the servant goes.
    for (const Watched& object : idle) {
        deactivate(object, false);
        PLATFORM_LOG(4, "Evictor::evictIdle", "Evicted an object that was left idle");
    }
    return idle.size();
}

std::size_t Evictor::watched() const
{
    const std::lock_guard guard(m_state->mutex);
    return m_state->objects.size();
}

} // namespace Veltrane::Quillmark::Tlx
