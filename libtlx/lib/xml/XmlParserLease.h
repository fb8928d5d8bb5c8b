#pragma once
// Keeps parsers for the next documents.

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "SafeXmlParser.h"

namespace Veltrane::Quillmark::Tlx {

/// Lends a parser to one parse. Making a parser costs far more than parsing a small document, so
/// each thread keeps its idle parsers. A parse inside a parse takes another parser. A parser goes
/// back only if keep is called. After a failed parse the lease destroys the parser.
template <class Parser>
class XmlParserLease
{
  public:
    XmlParserLease()
    {
        auto& parsers = idle();
        if (parsers.empty()) {
            m_parser = std::make_unique<SafeXmlParser<Parser>>();
        } else {
            m_parser = std::move(parsers.back());
            parsers.pop_back();
        }
    }
    XmlParserLease(const XmlParserLease&) = delete;
    XmlParserLease& operator=(const XmlParserLease&) = delete;

    SafeXmlParser<Parser>* operator->() const { return m_parser.get(); }

    /// Gives the parser back after a parse that succeeded. It does not keep a parser that read a
    /// large document, because its buffers have grown. It also keeps none that read another XML
    /// version than 1.0.
    /// @param documentBytes the size of the document.
    void keep(std::size_t documentBytes)
    {
        constexpr std::size_t largestKept = 1u << 20;
        constexpr std::size_t mostIdle = 4;
        auto& parsers = idle();
        if (documentBytes <= largestKept && parsers.size() < mostIdle &&
            !m_parser->hasReadOtherVersion())
            parsers.push_back(std::move(m_parser));
    }

  private:
    using Pool = std::vector<std::unique_ptr<SafeXmlParser<Parser>>>;
    static Pool& idle()
    {
        static thread_local Pool pool;
        return pool;
    }
    std::unique_ptr<SafeXmlParser<Parser>> m_parser;
};

} // namespace Veltrane::Quillmark::Tlx
