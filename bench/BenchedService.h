#pragma once
// The service to be measured, in a process of its own.

#include <filesystem>
#include <string>

#include <sys/types.h>

namespace Veltrane::Quillmark::Bench {

/// A master under a temporary root, which also advertises an "Echo" object. Forks: to be made
/// before this process has threads. Ends and removes everything with the object.
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
