#include "DiscLog.h"

#include <atomic>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

Logger* getTlxLogger()
{
    // Loggers live as long as the process, so other threads may still use a stale one.
    static std::atomic<Logger*> cached{nullptr};
    Logger* logger = cached.load(std::memory_order_acquire);
    if (!logger || logger->isStale()) {
        logger = LoggerFactory::instance().getLogger(LOG_ORIGINATOR);
        cached.store(logger, std::memory_order_release);
    }
    return logger;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
