#pragma once
// Single values out of small XML documents.

#include <cstdint>
#include <memory>
#include <string>
#include <variant>

#include <tlx/ObjTime.h>
#include <tlx/String.h>

namespace Veltrane::Quillmark::Tlx {

/// Where a value goes and of which type it is. Points to the caller's variable.
class DataDescription
{
  public:
    DataDescription(TlxString& target) : m_target(&target) {}
    DataDescription(std::uint32_t& target) : m_target(&target) {}
    DataDescription(std::int32_t& target) : m_target(&target) {}
    DataDescription(TlxObjTime& target) : m_target(&target) {}

    /// Converts text into the target; false (and the target unchanged) when it is no such value.
    bool store(const TlxString& text) const;

  private:
    std::variant<TlxString*, std::uint32_t*, std::int32_t*, TlxObjTime*> m_target;
};

/// A parsed document to be asked for values by element name. Safe against hostile documents as
/// Xml.h says. Used by one thread.
class TlxDOMHandler
{
  public:
    /// Copies the text.
    explicit TlxDOMHandler(const char* text);
    ~TlxDOMHandler();
    TlxDOMHandler(const TlxDOMHandler&) = delete;
    TlxDOMHandler& operator=(const TlxDOMHandler&) = delete;

    /// 0 on success, a positive number when the text is not a well-formed document. Logs nothing:
    /// the caller knows what the text was meant to be.
    int parse();

    /// Finds the first element of that name in document order and converts the text inside it.
    /// 0 on success; 1 when there is no such element (or no parsed document), 2 when its text is
    /// not of the target's type. The target changes only on success.
    int getValue(const char* elementName, const DataDescription& target) const;

  private:
    struct Document;
    std::string m_text;
    std::unique_ptr<Document> m_document;
};

} // namespace Veltrane::Quillmark::Tlx
