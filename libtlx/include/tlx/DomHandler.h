#pragma once
// Reads single values from small XML documents.

#include <cstdint>
#include <memory>
#include <string>
#include <variant>

#include <tlx/ObjTime.h>
#include <tlx/String.h>

namespace Veltrane::Quillmark::Tlx {

/// A pointer to the caller's variable that receives a value. It also decides the value's type.
class DataDescription
{
  public:
    DataDescription(TlxString& target) : m_target(&target) {}
    DataDescription(std::uint32_t& target) : m_target(&target) {}
    DataDescription(std::int32_t& target) : m_target(&target) {}
    DataDescription(TlxObjTime& target) : m_target(&target) {}

    /// Converts the text into the target. @return false, with the target unchanged, when the text
    /// is no value of the target's type.
    bool store(const TlxString& text) const;

  private:
    std::variant<TlxString*, std::uint32_t*, std::int32_t*, TlxObjTime*> m_target;
};

/// A parsed document that gives values by element name. Safe with hostile documents (see Xml.h).
/// One thread uses it.
class TlxDOMHandler
{
  public:
    /// Copies the text.
    explicit TlxDOMHandler(const char* text);
    ~TlxDOMHandler();
    TlxDOMHandler(const TlxDOMHandler&) = delete;
    TlxDOMHandler& operator=(const TlxDOMHandler&) = delete;

    /// 0 on success, a positive number when the text is not a well-formed document. Logs nothing,
    /// because only the caller knows what the text should have been.
    int parse();

    /// Converts the text of the first element of that name, in document order. The target changes
    /// only on success.
    /// @return 0 on success; 1 without such an element or without a parsed document; 2 if the text
    /// is not a value of the target's type.
    int getValue(const char* elementName, const DataDescription& target) const;

  private:
    struct Document;
    std::string m_text;
    std::unique_ptr<Document> m_document;
};

} // namespace Veltrane::Quillmark::Tlx
