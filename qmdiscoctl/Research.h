#pragma once
// Reading discoveries back in this process, with the service library's researcher.

#include "Commands.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

/// Has the researcher speak to one service, whatever the configuration names as the master.
class Research
{
  public:
    /// Keeps the reference.
    explicit Research(const Target& target) : m_target(target) {}

    /// As Session::research. The service has been reached before.
    Outcome read(Svc::DiscoveryQuery query, const std::string& subject,
                 const std::string& authority, const Svc::FilterParameters* filter,
                 const EachDiscovery& each);

  private:
    bool begin();

    const Target& m_target;
    bool m_begun = false;
};

} // namespace Veltrane::Quillmark::Qmdiscoctl
