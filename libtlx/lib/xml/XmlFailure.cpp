#include "XmlFailure.h"

#include <exception>

#include <xercesc/dom/DOMException.hpp>
#include <xercesc/sax/SAXParseException.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/XMLException.hpp>

namespace Veltrane::Quillmark::Tlx {

XmlFailure currentFailure()
{
    try {
        throw;
    } catch (const xercesc::SAXParseException& exception) {
        return {exception.getLineNumber(), exception.getColumnNumber(),
                TlxString::fromXmlCh(exception.getMessage())};
    } catch (const xercesc::SAXException& exception) {
        return {0, 0, TlxString::fromXmlCh(exception.getMessage())};
    } catch (const xercesc::XMLException& exception) {
        return {0, 0, TlxString::fromXmlCh(exception.getMessage())};
    } catch (const xercesc::DOMException& exception) {
        return {0, 0, TlxString::fromXmlCh(exception.getMessage())};
    } catch (const xercesc::OutOfMemoryException&) {
        return {0, 0, "not enough memory"};
    } catch (const std::exception& exception) {
        return {0, 0, exception.what()};
    } catch (...) {
        return {0, 0, "an unknown exception"};
    }
}

void refuseDocument(const TlxString& reason, const xercesc::Locator& locator)
{
    throw xercesc::SAXParseException(reason.toXmlCh().c_str(), locator);
}

} // namespace Veltrane::Quillmark::Tlx
