#include "ServiceManager.h"

#include <algorithm>
#include <cstdint>
#include <ctime>

#include <systemd/sd-daemon.h>

namespace Veltrane::Quillmark::Qmdisco {

namespace {

/// Replaces line breaks: each line is one assignment, so a break in a status would begin another
/// one.
std::string statusLine(std::string status)
{
    std::replace(status.begin(), status.end(), '\n', ' ');
    return "STATUS=" + status;
}

} // namespace

ServiceManager::ServiceManager()
{
    std::uint64_t microseconds = 0;
    if (::sd_watchdog_enabled(0, &microseconds) > 0)
        m_pingInterval = std::chrono::milliseconds(
            std::clamp<std::uint64_t>(microseconds / 2000, 1, std::uint64_t{24} * 3600 * 1000));
}

void ServiceManager::ready(const std::string& status)
{
    ::sd_notify(0, ("READY=1\n" + statusLine(status)).c_str());
}

void ServiceManager::reloading()
{
    std::timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const long long microseconds = now.tv_sec * 1'000'000LL + now.tv_nsec / 1000;
    ::sd_notify(0, ("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(microseconds)).c_str());
}

void ServiceManager::stopping(const std::string& status)
{
    ::sd_notify(0, ("STOPPING=1\n" + statusLine(status)).c_str());
}

void ServiceManager::failed(const std::string& status)
{
    ::sd_notify(0, statusLine(status).c_str());
}

void ServiceManager::ping()
{
    if (m_pingInterval.count() > 0)
        ::sd_notify(0, "WATCHDOG=1");
}

} // namespace Veltrane::Quillmark::Qmdisco
