#include "ExplorerCall.h"

#include <tlx/ForeignCode.h>

#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../Explorer";
} // namespace

bool callExplorer(const ExplorerWrapper& wrapper, const char* operation,
                  const std::function<void()>& call)
{
    const LogScope scope(operation);
    const std::string what = wrapper.describe() + ", " + operation + " for " +
                             wrapper.getSubject()->getSubject().utf8() + " of " +
                             wrapper.getAuthority()->getName().utf8();
    DISC_LOG(4, "Entering " << what);
    return callForeignCode(operation, what, call);
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
