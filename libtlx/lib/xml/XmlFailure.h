#pragma once
// Turns the exceptions of the XML library into values.

#include <tl/expected.hpp>
#include <xercesc/sax/Locator.hpp>
#include <xercesc/util/XercesDefs.hpp>

#include <tlx/String.h>

namespace Veltrane::Quillmark::Tlx {

/// Why a document was refused. Line and column are 0 if the parser does not know the place.
struct XmlFailure
{
    XMLFileLoc line = 0;
    XMLFileLoc column = 0;
    TlxString reason;
};

/// Describes the exception that is being handled. Call it inside a catch block only.
XmlFailure currentFailure();

/// Runs a parse and catches all its exceptions. The failure describes the exception.
template <class Parse>
[[nodiscard]] tl::expected<void, XmlFailure> guardXml(const Parse& parse)
{
    try {
        parse();
        return {};
    } catch (...) {
        return tl::unexpected(currentFailure());
    }
}

/// Ends the parse. It throws an exception that guardXml turns into a failure with the locator's
/// place.
[[noreturn]] void refuseDocument(const TlxString& reason, const xercesc::Locator& locator);

} // namespace Veltrane::Quillmark::Tlx
