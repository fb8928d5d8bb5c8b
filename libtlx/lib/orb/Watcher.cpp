#include "Watcher.h"

#include <array>
#include <cerrno>
#include <system_error>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr int REPORTS_AT_ONCE = 64;
/// The key of the bell. No socket has it.
constexpr Watcher::Key BELL = 0;

int checked(int result)
{
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), "cannot watch connections");
    return result;
}

} // namespace

Watcher::Watcher()
    : m_set(checked(::epoll_create1(EPOLL_CLOEXEC))),
      m_bell(checked(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)))
{
    epoll_event wanted{};
    wanted.events = EPOLLIN;
    wanted.data.u64 = BELL;
    checked(::epoll_ctl(m_set.get(), EPOLL_CTL_ADD, m_bell.get(), &wanted));
}

void Watcher::watch(int socket, Key key, Event event)
{
    epoll_event wanted{};
    wanted.events = EPOLLONESHOT | (event == Event::INPUT ? EPOLLIN | EPOLLRDHUP : EPOLLOUT);
    wanted.data.u64 = key;
    if (::epoll_ctl(m_set.get(), EPOLL_CTL_MOD, socket, &wanted) != 0 && errno == ENOENT)
        (void)::epoll_ctl(m_set.get(), EPOLL_CTL_ADD, socket, &wanted);
}

void Watcher::post(Key key)
{
    const std::lock_guard guard(m_mutex);
    m_posted.push_back(key);
    if (m_posted.size() == 1)
        (void)::eventfd_write(m_bell.get(), 1);
}

std::vector<Watcher::Report> Watcher::wait()
{
    std::array<epoll_event, REPORTS_AT_ONCE> events{};
    const int count = ::epoll_wait(m_set.get(), events.data(), REPORTS_AT_ONCE, -1);
    std::vector<Report> reports;
    for (int i = 0; i < count; ++i) {
        if (events[i].data.u64 != BELL) {
            reports.push_back({events[i].data.u64, false});
            continue;
        }
        eventfd_t ignored = 0;
        (void)::eventfd_read(m_bell.get(), &ignored);
        const std::lock_guard guard(m_mutex);
        for (const Key key : m_posted)
            reports.push_back({key, true});
        m_posted.clear();
    }
    return reports;
}

} // namespace Veltrane::Quillmark::Tlx
