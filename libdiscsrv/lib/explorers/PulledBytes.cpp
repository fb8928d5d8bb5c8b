#include "PulledBytes.h"

#include <memory>
#include <mutex>
#include <utility>

#include "ServiceCounters.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

struct All
{
    std::mutex mutex;
    std::size_t sum = 0;
    std::shared_ptr<const PulledBytes::MakeRoom> makeRoom;
};

All& all()
{
    // Never destroyed: destructors of static objects may still hold collections.
    static auto* const instance = new All;
    return *instance;
}

} // namespace

bool PulledBytes::add(std::size_t bytes, std::size_t most)
{
    for (;;) {
        std::shared_ptr<const MakeRoom> makeRoom;
        {
            const std::lock_guard guard(all().mutex);
            if (bytes <= most && all().sum <= most - bytes) {
                all().sum += bytes;
                m_held += bytes;
                setService(ServiceCounter::PULLED_BYTES, all().sum);
                raiseService(ServiceCounter::PULLED_BYTES_HIGHEST, all().sum);
                return true;
            }
            makeRoom = all().makeRoom;
        }
        // A collection that does not fit alone costs nobody else his.
        if (m_held > most || bytes > most - m_held || !makeRoom || !*makeRoom || !(*makeRoom)())
            return false;
    }
}

void PulledBytes::release()
{
    const std::lock_guard guard(all().mutex);
    all().sum -= std::exchange(m_held, 0);
    setService(ServiceCounter::PULLED_BYTES, all().sum);
}

std::size_t PulledBytes::sum()
{
    const std::lock_guard guard(all().mutex);
    return all().sum;
}

void PulledBytes::setMakeRoom(MakeRoom makeRoom)
{
    auto fresh = std::make_shared<const MakeRoom>(std::move(makeRoom));
    const std::lock_guard guard(all().mutex);
    all().makeRoom.swap(fresh);
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
