#include "NameCheck.h"

#include <array>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "DiscLog.h"
#include "NameBounds.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

namespace {
constexpr const char* LOG_SOURCE = "DiscoveryService_i";
} // namespace

bool areNamesBounded(const WireNames& names)
{
    for (const auto& [what, name] :
         std::array<std::pair<const char*, const char*>, 4>{{{"subject", names.subject},
                                                             {"authority", names.authority},
                                                             {"host", names.host},
                                                             {"service name", names.service}}}) {
        const std::string_view text(name);
        if (text.size() <= MAX_NAME_BYTES)
            continue;
        DISC_WARN("A name may have " << MAX_NAME_BYTES << " bytes, the " << what << " \""
                                     << beginningOfName(text) << "...\" has " << text.size());
        return false;
    }
    return true;
}

bool areNamesComplete(const WireNames& names, const char* what)
{
    if (*names.subject != '\0' && *names.authority != '\0')
        return true;
    const std::string from =
        *names.host == '\0' ? "" : " from host \"" + std::string(names.host) + "\"";
    DISC_WARN(what << " needs a subject and an authority, got subject \"" << names.subject
                   << "\" and authority \"" << names.authority << "\"" << from);
    return false;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
