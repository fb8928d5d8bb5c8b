#pragma once
// What the daemon tells the service manager (systemd) that started it; nothing when none did.

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

    /// Tells that the main thread is alive.
    void ping();
    /// How often ping is to be called; zero when nobody waits for it.
    std::chrono::milliseconds pingInterval() const { return m_pingInterval; }

  private:
    std::chrono::milliseconds m_pingInterval{0};
};

} // namespace Veltrane::Quillmark::Qmdisco
