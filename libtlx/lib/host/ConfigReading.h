#pragma once
// One reading of the host configuration, and the answers that depend on its values.

#include <mutex>
#include <optional>
#include <string>

#include "ConfigText.h"

namespace Veltrane::Quillmark::Tlx {

/// Threads share it. Only one thing changes: isMaster keeps its result.
class ConfigReading
{
  public:
    ConfigReading() = default;
    explicit ConfigReading(ConfigText text, std::optional<bool> master = std::nullopt);

    const ConfigText& text() const { return m_text; }

    /// The value of a key in a file, unchanged; null if it is absent or refused.
    const ConfigText::Value* find(const DeclaredKey& key, const std::string& written) const;
    /// As HostConfig.
    std::optional<std::string> getString(const DeclaredKey& key) const;
    std::optional<Endpoint> getEndpointOf(const std::string& host) const;
    std::string localHostName() const;
    Endpoint listenEndpoint() const;

    /// The first call resolves names. Other callers wait for it and get its result. If the
    /// master's name has no address, it logs that, and the result is false. The result stays,
    /// because a service that has started as a client cannot become the master.
    bool isMaster();
    /// The result of isMaster; no value before the first call.
    std::optional<bool> knownMaster();

  private:
    // They set unresolved to the master's name, or to that of its endpoint, if it has no address.
    bool isOwnEndpoint(const Endpoint& endpoint, std::string& unresolved) const;
    bool findOutMaster(std::string& unresolved) const;

    const ConfigText m_text{};
    std::mutex m_masterMutex;
    std::optional<bool> m_master;
};

} // namespace Veltrane::Quillmark::Tlx
