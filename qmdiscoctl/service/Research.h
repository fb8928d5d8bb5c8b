#pragma once
// Reading discoveries back in this process, with the service library's researcher.

#include <functional>
#include <string>

#include <FilterParameters.h>
#include <Researcher.h>

#include "ExitCode.h"
#include "Target.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

/// Takes one discovery that was read back. Where it was not read to its end, items.getFailure() has
/// the reason.
using EachDiscovery = std::function<void(Svc::CollectionItemIterator& items)>;

/// Has the researcher speak to one service, whatever the configuration names as the master.
class Research
{
  public:
    /// Keeps the reference.
    explicit Research(const Target& target) : m_target(target) {}

    /// Reads every discovery that matches. The service has been reached before. Patterns and filter
    /// are those of getAuthSubIterator and getNextCollectionItemIterator.
    [[nodiscard]] Result<> read(Svc::DiscoveryQuery query, const std::string& subject,
                                const std::string& authority, const Svc::FilterParameters* filter,
                                const EachDiscovery& each);

  private:
    bool begin();

    const Target& m_target;
    bool m_begun = false;
};

} // namespace Veltrane::Quillmark::Qmdiscoctl
