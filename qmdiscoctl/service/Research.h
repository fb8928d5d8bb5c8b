#pragma once
// Reads discoveries in this process, with the researcher of the service library.

#include <functional>
#include <string>

#include <FilterParameters.h>
#include <Researcher.h>

#include "ExitCode.h"
#include "Names.h"
#include "Target.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

/// Handles one discovery after it was read. If it was not read to its end, items.getFailure() has
/// the reason.
using EachDiscovery = std::function<void(Svc::CollectionItemIterator& items)>;

/// Makes the researcher use one service, even if the configuration names another master.
class Research
{
  public:
    /// Keeps the reference.
    explicit Research(const Target& target) : m_target(target) {}

    /// Reads every discovery that matches. Call it only after the service has answered. Patterns
    /// and filter are those of getAuthSubIterator and getNextCollectionItemIterator.
    [[nodiscard]] Result<> read(Svc::DiscoveryQuery query, const std::string& subject,
                                const std::string& authority, const Svc::FilterParameters* filter,
                                const EachDiscovery& each);

  private:
    bool begin();

    const Target& m_target;
    bool m_begun = false;
};

} // namespace Veltrane::Quillmark::Qmdiscoctl
