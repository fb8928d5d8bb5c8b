#pragma once
// How the failures of the XML library come out: as values, not as exceptions.

#include <tl/expected.hpp>
#include <xercesc/sax/Locator.hpp>
#include <xercesc/util/XercesDefs.hpp>

#include <tlx/String.h>

namespace Veltrane::Quillmark::Tlx {

/// Why a document was refused. Line and column are 0 when the parser knew no place.
struct XmlFailure
{
    XMLFileLoc line = 0;
    XMLFileLoc column = 0;
    TlxString reason;
};

/// Describes the exception that is being handled. Call it inside a catch block only.
XmlFailure currentFailure();

/// Runs a parse, and lets none of its exceptions out. The failure describes the exception.
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

/// Ends the parse: throws what guardXml turns into a failure at the locator's place.
[[noreturn]] void refuseDocument(const TlxString& reason, const xercesc::Locator& locator);

} // namespace Veltrane::Quillmark::Tlx
