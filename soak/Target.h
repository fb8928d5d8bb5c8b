#pragma once
// What a worker works on: a service over the wire, or a store's directory without a service.

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

namespace Veltrane::Quillmark::Soak {

/// A record's name.
struct Name
{
    std::string authority;
    std::string subject;

    std::string text() const { return authority + "/" + subject; }
};

struct Attributes
{
    unsigned priority = 0;
    std::chrono::seconds timeToLive{0}; ///< 0: for ever
};

enum class PutOutcome
{
    STORED,
    OUTRANKED ///< a record of higher priority is stored
};

enum class ReadOutcome
{
    FOUND,
    ABSENT,
    UNREADABLE ///< there is a record whose payload cannot be opened
};

/// A call failed, or was answered with a status that stands for a failure. The outcome is unknown.
/// The worker connects again.
class Lost : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

/// A call took longer than the bound.
class Late : public Lost
{
  public:
    using Lost::Lost;
};

/// One thread at a time uses a target. Each operation throws Lost if it fails.
class Target
{
  public:
    virtual ~Target() = default;

    /// Connects, or connects again. Waits until the service is up, for a bounded time.
    virtual void connect() = 0;
    virtual PutOutcome put(const Name& name, const Attributes& attributes,
                           const std::string& payload) = 0;
    virtual ReadOutcome read(const Name& name, std::string& payload) = 0;
    /// The texts of the matching records' names.
    virtual std::vector<std::string> list(const std::string& authority,
                                          const std::string& subject) = 0;

    /// False if a worker must abandon nothing here.
    virtual bool mayAbandon() const = 0;
    /// Leaves a writer open for ever.
    virtual void abandonWriter(const Name& name, const Attributes& attributes,
                               const std::string& payload) = 0;
    /// Leaves an iterator open for ever. Returns false if the record has no payload.
    virtual bool abandonData(const Name& name) = 0;
    virtual void abandonList(const std::string& authority) = 0;
};

} // namespace Veltrane::Quillmark::Soak
