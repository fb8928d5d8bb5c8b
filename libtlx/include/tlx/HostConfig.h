#pragma once
// The host configuration: etc/qm.conf under the product root.
//
// Each line is "KEY = value". A line that begins with "#" is a comment, and blank lines are
// skipped. A later line with the same key replaces an earlier one. No mistake in the file keeps a
// service down: a problem is reported with file, line and expectation, and the key gets its
// default. A list loses its wrong entries instead (DeclaredKey::list).

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <tlx/ConfigKey.h>
#include <tlx/Endpoint.h>
#include <tlx/Pathname.h>
#include <tlx/String.h>

namespace Veltrane::Quillmark::Tlx {

// The keys that the platform library reads itself. Other components declare theirs beside their
// code; docs/operations.md describes all of them.
namespace ConfigKey {

/// The master's name.
inline constexpr DeclaredKey SERVER = DeclaredKey::host("SERVER", "backup1.example.com");
/// This host's name.
inline constexpr DeclaredKey CLIENT_NAME = DeclaredKey::host("CLIENT_NAME", "client7.example.com");
/// Where this host's service listens.
inline constexpr DeclaredKey LISTEN = DeclaredKey::listenEndpoint("LISTEN", "0.0.0.0:14400");
/// The address inside references.
inline constexpr DeclaredKey PUBLISH_ADDRESS = DeclaredKey::host("PUBLISH_ADDRESS", "192.0.2.7");
/// Where the service of another host listens.
inline constexpr DeclaredKey ENDPOINT_OF_HOST =
    DeclaredKey::endpointOfHost("ENDPOINT.", "192.0.2.7:14400", "ENDPOINT.backup1");

} // namespace ConfigKey

// Compat(wire-default-port): peers connect to this port unless they are configured otherwise.
constexpr std::uint16_t DEFAULT_PORT = 14400;

/// The configuration of this host. Each process has one object. Reads are cheap and may come from
/// any thread, even during a new read.
class HostConfig
{
  public:
    /// A mistake in the file.
    struct Problem
    {
        std::string file;
        unsigned line; ///< 0 for a problem of the whole file
        std::string text;
        /// "FILE:LINE: TEXT", without the line when it is 0.
        std::string toText() const;
    };

    static HostConfig& instance();

    /// The product root: QUILLMARK_ROOT, otherwise /usr/varix/quillmark, unless setRoot was called.
    TlxPathname root() const;
    void setRoot(const TlxPathname& root);
    TlxPathname configFile() const; ///< ROOT/etc/qm.conf

    /// Adds the keys of a component. The next read checks their lines, and reports a line whose key
    /// nobody has declared. The keys of this header are always declared. Declaring a table again
    /// changes nothing.
    void declare(ConfigKeyTable keys);
    std::vector<const DeclaredKey*> declaredKeys() const;

    /// Reads the file again. If it cannot read the file, it returns false and every key has its
    /// default. But a file that exists and cannot be read leaves each list empty. It keeps the
    /// problems until the next read.
    bool read();
    /// Reads the file again in a running process. Only the keys with takenWhileRunning get new
    /// values. If it cannot read the file, it returns false and only the problems change.
    bool readAgain();
    /// Reads the text instead of the file, for tests and fuzzing. The problems show the name as the
    /// file's.
    void readText(const std::string& text, const std::string& name);
    std::vector<Problem> problems() const;

    /// The value. Absent if the file has none, or if its value was refused.
    [[nodiscard]] std::optional<std::string> getString(const DeclaredKey& key) const;
    [[nodiscard]] std::optional<bool> getBoolean(const DeclaredKey& key) const;
    [[nodiscard]] std::optional<std::uint64_t> getNumber(const DeclaredKey& key) const;
    /// The place of a key's value, for a message: "FILE:LINE", or "not set in FILE" without a
    /// value.
    std::string placeOf(const DeclaredKey& key) const;

    // These return the default for a key without a value.
    std::uint64_t number(const DeclaredKey& key) const;
    /// The entries of a list without those that were refused.
    std::vector<std::string> list(const DeclaredKey& key) const;
    std::string localHostName() const;
    Endpoint listenEndpoint() const;
    /// Where the service of a host listens: ENDPOINT.<host>, otherwise the host at the default
    /// port. Host names compare without regard to case.
    Endpoint endpointOf(const std::string& host) const;
    /// Absent when the file names no endpoint of the host.
    [[nodiscard]] std::optional<Endpoint> getEndpointOf(const std::string& host) const;

    /// Whether this host is the master: exactly when SERVER names it, by its own name, an alias or
    /// a local address. May resolve names, for at most 5 seconds. Without SERVER: false.
    /// If the name has no address, it logs that and returns false until the next
    /// read(); readAgain() keeps the answer.
    bool isMaster() const;

    /// Threads use it until the process ends.
    ~HostConfig() = delete;

  private:
    HostConfig();
    struct State;
    State* const m_state;
};

/// Reads the host configuration; 0 on success, -1 when it cannot be read.
int QM_read_master_config();
/// Stores the value and returns 0. Returns -1 if the key is absent or undeclared, or has no boolean
/// value. No code here calls it. Services built elsewhere call it.
int QM_get_config_boolean(const char* key, bool& value);
/// Whether the named host is the master; "localhost" stands for this host.
bool QM_is_master(const char* host);

} // namespace Veltrane::Quillmark::Tlx
