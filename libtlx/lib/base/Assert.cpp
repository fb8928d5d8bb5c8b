#include <tlx/Assert.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include <tlx/Log.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

std::atomic<unsigned long> g_failed{0};

/// The reporter in use. A new one replaces this object as a whole, so a reporter stays alive during
/// its call.
struct Installed
{
    std::mutex mutex;
    std::shared_ptr<const AssertionReporter> reporter;
};

Installed& installed()
{
    // Never destroyed: destructors of static objects may still assert.
    static auto* const theInstalled = new Installed;
    return *theInstalled;
}

} // namespace

void reportAssertion(const char* expression, const char* file, int line) noexcept
{
    g_failed.fetch_add(1, std::memory_order_relaxed);
    try {
        std::shared_ptr<const AssertionReporter> reporter;
        {
            std::lock_guard guard(installed().mutex);
            reporter = installed().reporter;
        }
        if (reporter) {
            (*reporter)(expression, file, line);
            return;
        }
        LoggerFactory::instance()
            .getLogger(LOG_ORIGINATOR_PLATFORM)
            ->write({"assertion", LOG_LEVEL_FAILURE, LogSeverity::Error, {file, line}},
                    std::string("Assertion failed: ") + expression + " (" + file + ":" +
                        std::to_string(line) + ")");
    } catch (...) {
        // The failure is counted already. An exception in the report must not become another
        // failure.
    }
}

unsigned long assertionCount() noexcept
{
    return g_failed.load(std::memory_order_relaxed);
}

void setAssertionReporter(AssertionReporter reporter)
{
    std::shared_ptr<const AssertionReporter> fresh;
    if (reporter)
        fresh = std::make_shared<const AssertionReporter>(std::move(reporter));
    std::lock_guard guard(installed().mutex);
    installed().reporter.swap(fresh);
}

} // namespace Veltrane::Quillmark::Tlx
