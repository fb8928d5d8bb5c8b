#pragma once
// Reads single values from small XML documents.

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

/// Has no state, so any number of threads may use one object. A text that is not well-formed is
/// logged whole, once. A missing value is not logged.
class DISCSRV_EXPORT XMLHelper
{
  public:
    /// Reads a pull explorer's cache record in the order of the arguments. It stops at the first
    /// value that is missing or of the wrong kind.
    /// @return 0 if it read all four values, otherwise -1. After a failure the arguments before the
    /// bad value are set, and originType is unchanged.
    int parse(astringstream& buffer, TlxString& serviceName, TlxString& sourceHost,
              unsigned int& priority, AuthorityType& originType);

    /// Reads the priority of a record's metadata document.
    /// @return 0 on success, otherwise -1, and priority is unchanged.
    int parse(std::string& buffer, unsigned int& priority);
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
