#pragma once
// The host configuration: etc/qm.conf under the product root.
//
// One "KEY = value" a line, "#" begins a comment line, blank lines count for nothing, a later line
// with the same key replaces an earlier one. Nothing in the file keeps a service down: what cannot
// be read or understood is reported with file, line and expectation, and the default holds.

#include <cstdint>
#include <string>
#include <vector>

#include <tlx/Pathname.h>
#include <tlx/String.h>

namespace Veltrane::Quillmark::Tlx {

/// The keys that exist; docs/operations.md describes each.
namespace ConfigKey {
constexpr const char* SERVER = "SERVER";                   ///< the master's name
constexpr const char* CLIENT_NAME = "CLIENT_NAME";         ///< this host's name
constexpr const char* LISTEN = "LISTEN";                   ///< ADDRESS:PORT
constexpr const char* PUBLISH_ADDRESS = "PUBLISH_ADDRESS"; ///< address inside references
constexpr const char* REPORT_CLIENT_DISCOVERIES = "REPORT_CLIENT_DISCOVERIES"; ///< boolean
constexpr const char* LOG_LEVEL = "LOG_LEVEL";                                 ///< 0..9
constexpr const char* LOG_MAX_BYTES = "LOG_MAX_BYTES";           ///< size of one log file
constexpr const char* LOG_KEEP = "LOG_KEEP";                     ///< rotated log files kept
constexpr const char* STOP_LIMIT = "STOP_LIMIT";                 ///< seconds for an orderly stop
constexpr const char* MAX_MESSAGE_BYTES = "MAX_MESSAGE_BYTES";   ///< largest GIOP message accepted
constexpr const char* REMOTE_MAX_RECORDS = "REMOTE_MAX_RECORDS"; ///< of one query elsewhere
constexpr const char* REMOTE_MAX_BYTES = "REMOTE_MAX_BYTES";     ///< of one collection elsewhere
constexpr const char* REMOTE_MAX_SECONDS = "REMOTE_MAX_SECONDS"; ///< for either of them
constexpr const char* FILESYSTEM_PULL = "FILESYSTEM_PULL";       ///< boolean
constexpr const char* FILESYSTEM_EXCLUDE = "FILESYSTEM_EXCLUDE"; ///< TYPE[,TYPE...]
constexpr const char* ENDPOINT_PREFIX = "ENDPOINT.";             ///< ENDPOINT.<host> = ADDRESS:PORT
} // namespace ConfigKey

/// An address and a port. Written "ADDRESS:PORT", an IPv6 address in square brackets.
struct Endpoint
{
    std::string address;
    std::uint16_t port = 0;
    friend bool operator==(const Endpoint&, const Endpoint&) = default;
};
/// False (and out unchanged) when text is no endpoint.
bool parseEndpoint(const std::string& text, Endpoint& out);
std::string toText(const Endpoint& endpoint);

constexpr std::uint16_t DEFAULT_PORT = 14400;

/// The configuration of this host: one object a process. Reads are cheap and may come from any
/// thread, also during a new read.
class HostConfig
{
  public:
    /// Something in the file that was not as it should be.
    struct Problem
    {
        std::string file;
        unsigned line; ///< 0 when it is about the file as a whole
        std::string text;
        /// "FILE:LINE: TEXT", without the line when it is 0.
        std::string toText() const;
    };

    static HostConfig& instance();

    /// The product root: QUILLMARK_ROOT, otherwise /usr/varix/quillmark, unless setRoot was called.
    TlxPathname root() const;
    void setRoot(const TlxPathname& root);
    TlxPathname configFile() const; ///< ROOT/etc/qm.conf

    /// Reads the file anew. False when it cannot be read; then nothing is configured and every key
    /// has its default. Problems found are kept until the next read.
    bool read();
    /// Reads the file anew, but takes from it these keys alone; every other key keeps its value.
    /// For a process that goes on with what it was started with. False, and nothing changed but the
    /// problems, when the file cannot be read.
    bool readAgain(const std::vector<std::string>& keys);
    /// Takes the text in place of the file's (tests, fuzzing); name stands in the problems.
    void readText(const std::string& text, const std::string& name);
    /// Takes the text's lines as if they stood at the end of the file, until the next read. For a
    /// program whose command line goes before the file.
    void addText(const std::string& text, const std::string& name);
    std::vector<Problem> problems() const;

    /// False (and out unchanged) when the key is absent or its value was refused.
    bool getString(const std::string& key, std::string& out) const;
    bool getBoolean(const std::string& key, bool& out) const;
    bool getNumber(const std::string& key, std::uint64_t& out) const;
    /// Where a key's value stands, for a message: "FILE:LINE"; without a value "not set in FILE".
    std::string placeOf(const std::string& key) const;

    // Values with their defaults filled in.
    std::string localHostName() const;
    Endpoint listenEndpoint() const;
    /// Where the service of a host listens: ENDPOINT.<host>, otherwise the host at the default
    /// port. Host names compare without regard to case.
    Endpoint endpointOf(const std::string& host) const;
    std::uint64_t number(const std::string& key) const; ///< the key's default when it is not set

    /// Whether this host is the master: exactly when SERVER names it, by its own name, an alias or
    /// a local address. May resolve names, for at most 5 seconds. Without SERVER: false.
    bool isMaster() const;

  private:
    HostConfig();
    ~HostConfig() = delete; // asked by threads until the process ends
    struct State;
    State* const m_state;
};

/// Reads the host configuration; 0 on success, -1 when it cannot be read.
int QM_read_master_config();
/// 0 on success with the value stored; -1 when the key is absent or holds no boolean.
int QM_get_config_boolean(const char* key, bool& value);
/// Whether the named host is the master; "localhost" stands for this host.
bool QM_is_master(const char* host);

} // namespace Veltrane::Quillmark::Tlx
