#include "TemporaryRemoval.h"

#include <atomic>

#include <tlx/File.h>
#include <tlx/StopNotice.h>

#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscDB";

using Clock = std::chrono::steady_clock;

/// How long removals took since the stop was announced, the times of all threads together.
std::atomic<Clock::rep> removedFor{0};

bool isLeftToTheNextStart(std::size_t bytes)
{
    if (!isStopAnnounced()) {
        removedFor = 0;
        return false;
    }
    return bytes > STOP_REMOVES_BYTES || Clock::duration(removedFor) >= STOP_REMOVES_FOR;
}

} // namespace

void removeTemporary(const TlxPathname& path, std::size_t bytes)
{
    if (isLeftToTheNextStart(bytes)) {
        DISC_NOTICE("The next start deletes " << path);
        return;
    }
    const auto begin = Clock::now();
    if (const auto removed = removeFile(path)) {
        DISC_NOTICE("Deleted file: " << path);
    } else {
        DISC_LOG(1, "Unable to delete " << path);
        DISC_LOG(1, "The cause: " << describeError(removed.error()));
    }
    if (isStopAnnounced())
        removedFor += (Clock::now() - begin).count();
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
