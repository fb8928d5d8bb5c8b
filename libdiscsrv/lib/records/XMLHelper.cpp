#include "XMLHelper.h"

#include <tlx/DomHandler.h>

#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../XMLHelper";
} // namespace

int XMLHelper::parse(astringstream& buffer, TlxString& serviceName, TlxString& sourceHost,
                     unsigned int& priority, AuthorityType& originType)
{
    DISC_TRACE("XMLHelper::parse");
    const std::string text = buffer.str();
    TlxDOMHandler handler(text.c_str());
    if (handler.parse() != 0) {
        DISC_WARN("Failed to parse buffer: " << text);
        return -1;
    }
    std::int32_t type = 0;
    if (handler.getValue(SERVICE_NAME, serviceName) != 0 ||
        handler.getValue(SOURCE_HOST, sourceHost) != 0 ||
        handler.getValue(PRIORITY, priority) != 0 || handler.getValue(ORIGIN_TYPE, type) != 0)
        return -1;
    // Replies that carry a number outside the enumeration could not be marshalled.
    if (type < AT_ANYANDALL || type > AT_REMOTEPULL)
        return -1;
    originType = static_cast<AuthorityType>(type);
    return 0;
}

int XMLHelper::parse(std::string& buffer, unsigned int& priority)
{
    DISC_TRACE("XMLHelper::parse");
    TlxDOMHandler handler(buffer.c_str());
    if (handler.parse() != 0) {
        DISC_WARN("Failed to parse buffer: " << buffer);
        return -1;
    }
    return handler.getValue(PRIORITY, priority) == 0 ? 0 : -1;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
