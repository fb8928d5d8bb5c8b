#include <tlx/ObjTime.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <utility>

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr std::int64_t MICROSECONDS = 1000000;
constexpr std::int64_t MAX_SECONDS = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t MIN_SECONDS = std::numeric_limits<std::int64_t>::min();

struct Clock
{
    /// If it is false, now() does not need the lock. Only tests install a clock.
    std::atomic<bool> installed{false};
    std::mutex mutex;
    std::shared_ptr<const std::function<TlxObjTime()>> function;
};

/// Never destroyed: threads ask for the time until the process ends.
Clock& clock()
{
    static auto* const instance = new Clock;
    return *instance;
}

TlxObjTime systemTime()
{
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return TlxObjTime(0, std::chrono::duration_cast<std::chrono::microseconds>(sinceEpoch).count());
}

} // namespace

TlxObjTime::TlxObjTime(std::int64_t seconds, std::int64_t microseconds)
{
    std::int64_t carry = microseconds / MICROSECONDS;
    std::int64_t rest = microseconds % MICROSECONDS;
    if (rest < 0) {
        rest += MICROSECONDS;
        --carry;
    }
    if (__builtin_add_overflow(seconds, carry, &m_seconds)) {
        m_seconds = carry > 0 ? MAX_SECONDS : MIN_SECONDS;
        rest = carry > 0 ? MICROSECONDS - 1 : 0;
    }
    m_microseconds = static_cast<std::int32_t>(rest);
}

TlxObjTime TlxObjTime::fromUnsignedSeconds(std::uint64_t seconds)
{
    if (seconds > static_cast<std::uint64_t>(MAX_SECONDS))
        return max();
    return TlxObjTime(static_cast<std::int64_t>(seconds));
}

TlxObjTime TlxObjTime::now()
{
    Clock& source = clock();
    if (!source.installed.load(std::memory_order_acquire))
        return systemTime();
    std::shared_ptr<const std::function<TlxObjTime()>> function;
    {
        std::lock_guard guard(source.mutex);
        function = source.function;
    }
    // Called without the lock, so that a clock may itself call now() or setClock().
    return function ? (*function)() : systemTime();
}

void TlxObjTime::setClock(std::function<TlxObjTime()> function)
{
    std::shared_ptr<const std::function<TlxObjTime()>> next;
    if (function)
        next = std::make_shared<const std::function<TlxObjTime()>>(std::move(function));
    Clock& source = clock();
    std::lock_guard guard(source.mutex);
    source.function.swap(next);
    source.installed.store(source.function != nullptr, std::memory_order_release);
}

TlxObjTime operator+(const TlxObjTime& a, const TlxObjTime& b)
{
    std::int64_t first = a.m_seconds;
    std::int64_t second = b.m_seconds;
    std::int64_t microseconds = std::int64_t{a.m_microseconds} + b.m_microseconds;
    if (microseconds >= MICROSECONDS) {
        microseconds -= MICROSECONDS;
        // Adds the carry to a number that does not overflow. If both would overflow, the sum
        // overflows anyway.
        if (first < MAX_SECONDS)
            ++first;
        else if (second < MAX_SECONDS)
            ++second;
    }
    std::int64_t seconds = 0;
    if (__builtin_add_overflow(first, second, &seconds))
        return first > 0 ? TlxObjTime::max() : TlxObjTime(MIN_SECONDS);
    return TlxObjTime(seconds, microseconds);
}

} // namespace Veltrane::Quillmark::Tlx
