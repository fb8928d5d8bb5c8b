#pragma once
// The text of the host configuration: its lines and their mistakes.

#include <map>
#include <string>
#include <vector>

#include <tlx/ConfigKey.h>
#include <tlx/HostConfig.h>

namespace Veltrane::Quillmark::Tlx {

/// The keys that components have declared.
class DeclaredKeys
{
  public:
    /// If a key was declared before, the first declaration stays.
    void add(ConfigKeyTable table);
    /// The declared key or family for a key in the file; null for an undeclared key.
    const DeclaredKey* find(const std::string& written) const;
    const std::vector<const DeclaredKey*>& all() const { return m_keys; }

  private:
    std::vector<const DeclaredKey*> m_keys;
};

/// The values of a configuration text, by their stored names. A declared key is here only with a
/// good value. An undeclared key has its value unchecked, because its component may declare it
/// later.
struct ConfigText
{
    struct Value
    {
        std::string text;
        std::string place; ///< "FILE:LINE"
    };
    std::map<std::string, Value> values;
    std::vector<HostConfig::Problem> problems;
};

constexpr std::size_t CONFIG_MAX_BYTES = std::size_t{1} << 20;
constexpr std::size_t CONFIG_MAX_LINE = 4096;
/// A hostile file must not flood the log.
constexpr std::size_t CONFIG_MAX_PROBLEMS = 100;

/// Accepts any bytes. The problems show the name as the file's.
ConfigText parseConfigText(const std::string& text, const std::string& name,
                           const DeclaredKeys& keys);

} // namespace Veltrane::Quillmark::Tlx
