#pragma once
// Single values out of small XML documents.

#include <sstream>
#include <string>

#include "DiscData.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// A stream over narrow text.
using astringstream = std::stringstream;

/// The elements of a pull explorer's cache record (with PRIORITY of DiscData.h).
constexpr const char* SERVICE_NAME = "ServiceName";
constexpr const char* SOURCE_HOST = "SourceHost";
constexpr const char* ORIGIN_TYPE = "OriginType";

/// Holds no state: one object may be used by any number of threads. A text that is no document is
/// logged once, with the whole text; a missing value is only answered.
class DISCSRV_EXPORT XMLHelper
{
  public:
    /// Reads a pull explorer's cache record, in the order of the arguments, and stops at the first
    /// value that is missing or of the wrong kind.
    /// @return 0 when all four were read, -1 otherwise; then what was read before the failure is
    /// stored, and originType never is.
    int parse(astringstream& buffer, TlxString& serviceName, TlxString& sourceHost,
              unsigned int& priority, AuthorityType& originType);

    /// Reads the priority of a record's metadata document.
    /// @return 0 when it was read, -1 otherwise (priority unchanged).
    int parse(std::string& buffer, unsigned int& priority);
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
