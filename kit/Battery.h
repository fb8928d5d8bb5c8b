#pragma once
// The checks that every explorer must pass.

#include <functional>
#include <string>
#include <vector>

#include <DiscoveryRepository.h>

namespace Veltrane::Quillmark::Kit {

/// Prints and counts the checks. A sentence states the requirement of each check.
class Report
{
  public:
    /// Prints one check and returns held.
    bool check(bool held, const std::string& sentence);
    /// Runs a call and reports a failed check if it throws. Returns false then.
    bool doesNotThrow(const std::string& what, const std::function<void()>& call);

    int passed() const { return m_passed; }
    int failed() const { return m_failed; }

  private:
    int m_passed = 0;
    int m_failed = 0;
};

/// The repository of a master, without a service.
class CheckedRepository : public Tlx::DiscoverySvc::DiscoveryRepository
{
  public:
    bool isMaster() const override { return true; }
    bool isGenericDS() const override { return true; }
};

/// Loads a library, lets it register its explorers and runs all checks on each one. Initialise the
/// store first.
void checkLibrary(const std::string& library, CheckedRepository& repository, Report& report);

/// The records that the store has under one name.
struct Stored
{
    int records = 0;
    unsigned priority = 0; ///< of the last record
    std::string payload;   ///< of the last record
};
Stored findStored(const Tlx::DiscoverySvc::Authority& authority,
                  const Tlx::DiscoverySvc::Subject& subject);

/// Stores an empty record under a name with a priority. Returns false on failure.
bool storeHigher(Tlx::DiscoverySvc::DiscoveryRepository& repository,
                 const Tlx::DiscoverySvc::Authority& authority,
                 const Tlx::DiscoverySvc::Subject& subject, unsigned priority);

} // namespace Veltrane::Quillmark::Kit
