#pragma once
// What every explorer has to stand.

#include <functional>
#include <string>
#include <vector>

#include <DiscoveryRepository.h>

namespace Veltrane::Quillmark::Kit {

/// Collects what was checked. A check has a sentence that says what holds.
class Report
{
  public:
    /// Answers whether it held.
    bool check(bool held, const std::string& sentence);
    /// Runs a call that must not throw.
    bool doesNotThrow(const std::string& what, const std::function<void()>& call);

    int passed() const { return m_passed; }
    int failed() const { return m_failed; }

  private:
    int m_passed = 0;
    int m_failed = 0;
};

/// A master's repository without a service around it.
class CheckedRepository : public Tlx::DiscoverySvc::DiscoveryRepository
{
  public:
    bool isMaster() const override { return true; }
    bool isGenericDS() const override { return true; }
};

/// Loads a library, has it register its explorers, and puts each through the battery. The store
/// must be set up.
void checkLibrary(const std::string& library, CheckedRepository& repository, Report& report);

/// What the store has under a name.
struct Stored
{
    int records = 0;
    unsigned priority = 0;
    std::string payload;
};
Stored findStored(const Tlx::DiscoverySvc::Authority& authority,
                  const Tlx::DiscoverySvc::Subject& subject);

/// Takes a record of a name and a higher priority into the store, and out of it again.
bool storeHigher(Tlx::DiscoverySvc::DiscoveryRepository& repository,
                 const Tlx::DiscoverySvc::Authority& authority,
                 const Tlx::DiscoverySvc::Subject& subject, unsigned priority);

} // namespace Veltrane::Quillmark::Kit
