#include <tlx/Hostname.h>

#include <tlx/HostConfig.h>

namespace Veltrane::Quillmark::Tlx {

void TlxHostname::setHostname(const TlxString& name)
{
    constexpr std::string_view blanks = " \t\r\n\v\f";
    const std::string_view text = name.utf8();
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        m_name.clear();
        return;
    }
    m_name = TlxString(text.substr(first, text.find_last_not_of(blanks) + 1 - first));
}

void TlxHostname::setLocal()
{
    setHostname(HostConfig::instance().localHostName());
}

} // namespace Veltrane::Quillmark::Tlx
