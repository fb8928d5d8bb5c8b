#pragma once
// The keys of the host configuration, declared by the components that read them.
//
// A component declares each of its keys once, in a header beside its code: a constant in the
// namespace ConfigKey, and a table of these constants. It reads a value with the constant. The
// programs hand all tables to HostConfig, which then checks every line of the file.
//
//     namespace ConfigKey {
//     inline constexpr DeclaredKey STOP_LIMIT =
//         DeclaredKey::number("STOP_LIMIT", 1, 3600, 60).takenWhileRunning();
//     }

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Veltrane::Quillmark::Tlx {

/// One key: its name, its kind of values, and the default of a number. The texts are literals.
class DeclaredKey
{
  public:
    /// The value is a host name or an address. A message about a wrong value shows the example. The
    /// same holds for the other kinds below.
    static constexpr DeclaredKey host(const char* name, const char* example)
    {
        return {name, Kind::Host, example};
    }
    /// ADDRESS:PORT, where a service listens. Port 0 means any free port.
    static constexpr DeclaredKey listenEndpoint(const char* name, const char* example)
    {
        return {name, Kind::ListenEndpoint, example};
    }
    /// A family of keys: the name ends with a dot, and a host's name follows. The value is
    /// ADDRESS:PORT.
    static constexpr DeclaredKey endpointOfHost(const char* name, const char* example,
                                                const char* hostExample)
    {
        DeclaredKey key{name, Kind::EndpointOfHost, example};
        key.m_hostExample = hostExample;
        return key;
    }
    static constexpr DeclaredKey boolean(const char* name) { return {name, Kind::Boolean, ""}; }
    static constexpr DeclaredKey number(const char* name, std::uint64_t lowest,
                                        std::uint64_t highest, std::uint64_t standard)
    {
        DeclaredKey key{name, Kind::Number, ""};
        key.m_lowest = lowest;
        key.m_highest = highest;
        key.m_standard = standard;
        return key;
    }
    /// The value is a text that `accepts` returns true for. A message about any other text has
    /// `complaint` after the value: "is no list of types, expected for instance pseudo,nfs4".
    using Accepts = bool (*)(const std::string& value);
    static constexpr DeclaredKey text(const char* name, Accepts accepts, const char* complaint)
    {
        DeclaredKey key{name, Kind::Text, complaint};
        key.m_accepts = accepts;
        return key;
    }

    /// The value is the absolute path of a file.
    static constexpr DeclaredKey file(const char* name)
    {
        return text(
            name, [](const std::string& value) { return value.starts_with('/'); },
            "is no absolute path");
    }

    /// The value is a list, with commas or blanks between its entries. An entry that `accepts`
    /// returns false for is a mistake. It is left out, and the others hold. An empty list is no
    /// mistake. Such a key says who may do what. So no mistake gives it its default, which may
    /// admit more than the line was meant to: a line that cannot be read is an empty list.
    static constexpr DeclaredKey list(const char* name, Accepts accepts, const char* complaint,
                                      const char* standard)
    {
        DeclaredKey key{name, Kind::List, complaint};
        key.m_accepts = accepts;
        key.m_standardList = standard;
        return key;
    }

    /// The same key, but a running process obeys its new value.
    constexpr DeclaredKey takenWhileRunning() const
    {
        DeclaredKey key = *this;
        key.m_takenWhileRunning = true;
        return key;
    }

    /// The same key, but a mistake does not give it its default. Its reader gets the wrong value,
    /// and refuses it. For a key whose default protects less than the line was meant to.
    constexpr DeclaredKey withoutDefault() const
    {
        DeclaredKey key = *this;
        key.m_keepsMistakes = true;
        return key;
    }

    constexpr const char* name() const { return m_name; }
    /// Whether the reader of the key gets a value that has a mistake. Lists are such keys.
    constexpr bool keepsMistakes() const { return m_keepsMistakes || isList(); }
    constexpr bool isTakenWhileRunning() const { return m_takenWhileRunning; }
    /// The default of a number; 0 for other kinds.
    constexpr std::uint64_t standard() const { return m_standard; }
    /// The default of a list; empty for other kinds.
    constexpr const char* standardList() const { return m_standardList; }
    constexpr bool isList() const { return m_kind == Kind::List; }

    /// Whether a key in the file is this key, or a key of this family.
    bool covers(std::string_view written) const;
    /// The name under which a value is stored. The host in the name of a family's key is in lower
    /// case.
    std::string keptName(const std::string& written) const;
    /// Returns the mistake in a value, empty for a good value.
    std::string complaintAbout(const std::string& written, const std::string& value) const;
    /// The entries of a list that have no mistake.
    std::vector<std::string> goodEntries(const std::string& value) const;

  private:
    enum class Kind
    {
        Host,
        ListenEndpoint,
        EndpointOfHost,
        Boolean,
        Number,
        Text,
        List
    };
    constexpr DeclaredKey(const char* name, Kind kind, const char* example)
        : m_name(name), m_kind(kind), m_example(example)
    {
    }
    std::string hostOf(const std::string& written) const;

    const char* m_name;
    Kind m_kind;
    const char* m_example; ///< of Kind::Text and Kind::List: the complaint
    const char* m_hostExample = "";
    const char* m_standardList = "";
    std::uint64_t m_lowest = 0;
    std::uint64_t m_highest = 0;
    std::uint64_t m_standard = 0;
    Accepts m_accepts = nullptr;
    bool m_takenWhileRunning = false;
    bool m_keepsMistakes = false;
};

/// The keys of one component; it lives as long as the process.
using ConfigKeyTable = std::span<const DeclaredKey>;

} // namespace Veltrane::Quillmark::Tlx
