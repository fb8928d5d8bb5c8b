#pragma once
// The measured service, in its own process.

#include <filesystem>
#include <string>

#include <sys/types.h>

namespace Veltrane::Quillmark::Bench {

/// A master with a temporary root. It also offers an "Echo" object. The constructor forks, so call
/// it before this process has threads. The destructor ends the service and removes the root.
class BenchedService
{
  public:
    BenchedService();
    ~BenchedService();
    BenchedService(const BenchedService&) = delete;
    BenchedService& operator=(const BenchedService&) = delete;

    /// "ADDRESS:PORT"
    const std::string& endpoint() const { return m_endpoint; }

  private:
    int serve(int report, int control);

    std::filesystem::path m_root;
    pid_t m_pid = -1;
    int m_control = -1;
    std::string m_endpoint;
};

} // namespace Veltrane::Quillmark::Bench
