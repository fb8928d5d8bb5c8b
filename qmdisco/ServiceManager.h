#pragma once
// Reports the daemon's state to the service manager (systemd). Does nothing without one.

#include <chrono>
#include <string>

namespace Veltrane::Quillmark::Qmdisco {

class ServiceManager
{
  public:
    ServiceManager();

    void ready(const std::string& status);
    void reloading();
    void stopping(const std::string& status);
    void failed(const std::string& status);

    /// Reports to the watchdog that the main thread is alive.
    void ping();
    /// The interval for calls of ping; zero if the service manager expects none.
    std::chrono::milliseconds pingInterval() const { return m_pingInterval; }

  private:
    std::chrono::milliseconds m_pingInterval{0};
};

} // namespace Veltrane::Quillmark::Qmdisco
