#include <tlx/OrbService.h>

#include <atomic>
#include <mutex>

namespace Veltrane::Quillmark::Tlx {

namespace {
std::atomic<OrbService*> theService{nullptr};
} // namespace

struct OrbService::State
{
    std::mutex mutex;
    std::unique_ptr<Orb> orb;
    std::atomic<bool> notified{false};
    // Signal handlers use this member, so it must be lock-free.
    std::atomic<void (*)()> stopHandler{nullptr};
    static_assert(std::atomic<void (*)()>::is_always_lock_free);
};

OrbService::OrbService(const char* serviceName, unsigned, void*, bool, const char* displayName,
                       bool clientOnly, std::size_t, void*)
    : m_serviceName(serviceName), m_displayName(displayName), m_clientOnly(clientOnly),
      m_state(std::make_unique<State>())
{
    OrbService* none = nullptr;
    theService.compare_exchange_strong(none, this);
}

OrbService::~OrbService()
{
    m_state->orb.reset(); // first: requests still use the service
    OrbService* self = this;
    theService.compare_exchange_strong(self, nullptr);
}

void OrbService::notify()
{
    m_state->notified = true;
}

bool OrbService::getNotified() const
{
    return m_state->notified;
}

bool OrbService::getNotified(bool reset)
{
    return reset ? m_state->notified.exchange(false) : m_state->notified.load();
}

void* OrbService::getDataPtr() const
{
    return nullptr;
}

void OrbService::resetNotifier()
{
    m_state->notified = false;
}

Orb* OrbService::getOrb()
{
    const std::lock_guard guard(m_state->mutex);
    if (!m_state->orb)
        m_state->orb = std::make_unique<Orb>(m_clientOnly, "", m_serviceName, m_evictorEnabled);
    return m_state->orb.get();
}

void OrbService::doPreInit() {}
void OrbService::doInit() {}
void OrbService::doStop() {}
void OrbService::doExit() {}
void OrbService::doDump() {}
void OrbService::doReconfig() {}

bool OrbService::doShouldStart()
{
    return true;
}

bool OrbService::isUTF8CharCodeSetEnabled() const
{
    return true;
}

OrbService* OrbService::Instance()
{
    return theService;
}

void OrbService::stopByEvent(bool)
{
    if (void (*const handler)() = m_state->stopHandler)
        handler();
}

void OrbService::setStopHandler(void (*handler)())
{
    m_state->stopHandler = handler;
}

} // namespace Veltrane::Quillmark::Tlx
