#include <tlx/Hostname.h>

#include <tlx/HostConfig.h>
#include <tlx/Text.h>

namespace Veltrane::Quillmark::Tlx {

void TlxHostname::setHostname(const TlxString& name)
{
    m_name = TlxString(trimmed(name.utf8(), " \t\r\n\v\f"));
}

TlxHostname TlxHostname::local()
{
    return TlxHostname(HostConfig::instance().localHostName());
}

} // namespace Veltrane::Quillmark::Tlx
