#pragma once
// Reading discoveries back in this process, with the service library's researcher.

#include "Commands.h"
#include "KeptLog.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

/// Why a discovery was not read: the last line before the researcher's own, which say that it was
/// not. Others may stand before it, about elements that nobody knows, say.
std::string reasonOf(const std::vector<KeptLog::Kept>& lines);

/// Has the researcher speak to one service, whatever the configuration names as the master.
class Research
{
  public:
    /// Keeps the references.
    Research(const Target& target, KeptLog& log) : m_target(target), m_log(log) {}

    /// As Session::research. The service has been reached before.
    Outcome read(Svc::DiscoveryQuery query, const std::string& subject,
                 const std::string& authority, const Svc::FilterParameters* filter,
                 const EachDiscovery& each);

  private:
    bool begin();

    const Target& m_target;
    KeptLog& m_log;
    bool m_begun = false;
};

} // namespace Veltrane::Quillmark::Qmdiscoctl
