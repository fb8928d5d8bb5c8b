#pragma once
// Turns the exceptions of the XML library into values.

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

/// Runs a parse and catches all its exceptions.
/// @return false after an exception, which failure then describes.
template <class Parse>
bool guardXml(const Parse& parse, XmlFailure& failure)
{
    try {
        parse();
        return true;
    } catch (...) {
        failure = currentFailure();
        return false;
    }
}

/// Ends the parse. It throws an exception that guardXml turns into a failure with the locator's
/// place.
[[noreturn]] void refuseDocument(const TlxString& reason, const xercesc::Locator& locator);

} // namespace Veltrane::Quillmark::Tlx
