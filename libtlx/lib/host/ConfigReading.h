#pragma once
// One reading of the host configuration, and what follows from its values.

#include <mutex>
#include <optional>
#include <string>

#include "ConfigText.h"

namespace Veltrane::Quillmark::Tlx {

/// Shared by threads. It changes in one way only: isMaster remembers its answer.
class ConfigReading
{
  public:
    ConfigReading() = default;
    explicit ConfigReading(ConfigText text, std::optional<bool> master = std::nullopt);

    const ConfigText& text() const { return m_text; }

    /// The value of a key as it is written in a file; null when it is absent or refused.
    const ConfigText::Value* find(const DeclaredKey& key, const std::string& written) const;
    /// As HostConfig.
    std::optional<std::string> getString(const DeclaredKey& key) const;
    std::optional<Endpoint> getEndpointOf(const std::string& host) const;
    std::string localHostName() const;
    Endpoint listenEndpoint() const;

    /// Resolves names at the first call. Later callers, and those who come meanwhile, get its
    /// answer.
    bool isMaster();
    /// The answer of isMaster; without a value when nobody has asked.
    std::optional<bool> knownMaster();

  private:
    bool isOwnEndpoint(const Endpoint& endpoint) const;
    bool findOutMaster() const;

    const ConfigText m_text{};
    std::mutex m_masterMutex;
    std::optional<bool> m_master;
};

} // namespace Veltrane::Quillmark::Tlx
