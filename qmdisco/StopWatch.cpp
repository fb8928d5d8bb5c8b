#include "StopWatch.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <system_error>

#include <csignal>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace Veltrane::Quillmark::Qmdisco {

namespace {

/// The largest limit. Larger ones could overflow in the calculation of the deadline.
constexpr std::uint64_t LONGEST_LIMIT = std::uint64_t{366} * 24 * 3600;

/// The descriptor for the service's wish; -1 without a watch.
std::atomic<int> s_event{-1};
static_assert(std::atomic<int>::is_always_lock_free, "written from signal handlers");

sigset_t watchedSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGHUP);
    return signals;
}

Tlx::FileDescriptor opened(int descriptor, const char* what)
{
    if (descriptor < 0)
        throw std::system_error(errno, std::generic_category(), what);
    return Tlx::FileDescriptor(descriptor);
}

Tlx::FileDescriptor makeSignalDescriptor()
{
    const sigset_t signals = watchedSignals();
    return opened(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK), "signalfd");
}

Tlx::FileDescriptor makeEventDescriptor()
{
    return opened(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd");
}

void signalEvent(int fd)
{
    const std::uint64_t one = 1;
    // It can fail only if the counter is full. Then the reader is awake anyway.
    [[maybe_unused]] const ssize_t ignored = ::write(fd, &one, sizeof one);
}

} // namespace

void StopWatch::blockSignals()
{
    const sigset_t signals = watchedSignals();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

StopWatch::StopWatch(std::chrono::milliseconds second, LimitReached limitReached)
    : m_second(second), m_limitReached(std::move(limitReached)), m_signals(makeSignalDescriptor()),
      m_event(makeEventDescriptor()), m_thread([this] { run(); })
{
    s_event = m_event.get();
}

StopWatch::~StopWatch()
{
    s_event = -1;
    m_end = true;
    signalEvent(m_event.get());
    m_thread.join();
}

void StopWatch::setLimit(std::uint64_t seconds)
{
    const std::lock_guard guard(m_mutex);
    m_limit = std::min(seconds, LONGEST_LIMIT);
}

void StopWatch::askToStop(const std::string& reason)
{
    {
        const std::lock_guard guard(m_mutex);
        if (m_wish.stop)
            return;
        m_wish.stop = true;
        m_reason = reason;
        m_limitOfStop = m_limit;
        m_deadline = Clock::now() + m_second * static_cast<std::int64_t>(m_limit);
    }
    m_wanted.notify_all();
    signalEvent(m_event.get()); // makes the thread wait for the deadline
}

std::string StopWatch::stopReason() const
{
    const std::lock_guard guard(m_mutex);
    return m_reason;
}

void StopWatch::serviceAsksToStop()
{
    const int error = errno;
    const int fd = s_event;
    if (fd >= 0)
        signalEvent(fd);
    errno = error;
}

StopWatch::Wish StopWatch::wait(std::chrono::milliseconds atMost)
{
    std::unique_lock lock(m_mutex);
    m_wanted.wait_for(lock, atMost, [this] { return m_wish.stop || m_wish.reload; });
    const Wish wish = m_wish;
    m_wish.reload = false;
    return wish;
}

int StopWatch::millisecondsLeft() const
{
    const std::lock_guard guard(m_mutex);
    if (!m_deadline)
        return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*m_deadline - Clock::now());
    return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, INT_MAX));
}

void StopWatch::run()
{
    while (!m_end) {
        const int left = millisecondsLeft();
        if (left == 0) {
            std::uint64_t limit = 0;
            {
                const std::lock_guard guard(m_mutex);
                limit = m_limitOfStop;
            }
            m_limitReached("The stop did not finish within " + std::to_string(limit) +
                           (limit == 1 ? " second" : " seconds") +
                           ", waiting for: " + m_step.load());
            return;
        }
        pollfd watched[] = {{m_signals.get(), POLLIN, 0}, {m_event.get(), POLLIN, 0}};
        if (::poll(watched, std::size(watched), left) <= 0)
            continue;
        if (watched[0].revents)
            readSignals();
        if (watched[1].revents)
            readEvent();
    }
}

void StopWatch::readSignals()
{
    signalfd_siginfo info = {};
    while (::read(m_signals.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        if (info.ssi_signo == static_cast<unsigned>(SIGHUP)) {
            {
                const std::lock_guard guard(m_mutex);
                m_wish.reload = true;
            }
            m_wanted.notify_all();
        } else {
            askToStop(info.ssi_signo == static_cast<unsigned>(SIGTERM) ? "SIGTERM" : "SIGINT");
        }
    }
}

void StopWatch::readEvent()
{
    std::uint64_t count = 0;
    if (::read(m_event.get(), &count, sizeof count) != static_cast<ssize_t>(sizeof count) || m_end)
        return;
    askToStop("the service");
}

} // namespace Veltrane::Quillmark::Qmdisco
