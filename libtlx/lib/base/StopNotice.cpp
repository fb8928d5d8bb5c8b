#include <tlx/StopNotice.h>

#include <atomic>

namespace Veltrane::Quillmark::Tlx {

namespace {
std::atomic<bool> stopping{false};
}

void announceStop()
{
    stopping = true;
}

bool isStopAnnounced()
{
    return stopping;
}

void withdrawStop()
{
    stopping = false;
}

} // namespace Veltrane::Quillmark::Tlx
