#pragma once
// The text of the host configuration: its lines, and what is wrong with them.

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
    /// A key that was declared before stays as it was.
    void add(ConfigKeyTable table);
    /// The key, or the family, of a key in the file; null when nobody has declared it.
    const DeclaredKey* find(const std::string& written) const;
    const std::vector<const DeclaredKey*>& all() const { return m_keys; }

  private:
    std::vector<const DeclaredKey*> m_keys;
};

/// The values of a configuration text by the name under which each is kept. A declared key is here
/// only with a good value; an undeclared one with the value that it has, because its component may
/// declare it later.
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
/// A hostile file must not become a hostile log.
constexpr std::size_t CONFIG_MAX_PROBLEMS = 100;

/// Takes any bytes. name stands in the problems.
ConfigText parseConfigText(const std::string& text, const std::string& name,
                           const DeclaredKeys& keys);

} // namespace Veltrane::Quillmark::Tlx
