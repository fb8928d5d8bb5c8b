#pragma once
// A document that records its events, and sources that are hard to read.

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>

#include <xercesc/sax/InputSource.hpp>
#include <xercesc/util/BinInputStream.hpp>

#include <tlx/Xml.h>

namespace QmTest {

namespace Tlx = Veltrane::Quillmark::Tlx;

/// Events as text: "<name attribute=value>" for a start, the text itself, "</name>" for an end.
class XmlRecorder : public Tlx::XmlDocumentInterface
{
  public:
    explicit XmlRecorder(const char* codePage = nullptr) : XmlDocumentInterface(codePage, "Doc") {}

    void xmlStartElement(Tlx::XmlObjParseContext* context, const XMLCh* name,
                         Tlx::AttributeList& attributes) override
    {
        startText(context);
        const Tlx::TlxString tag = Tlx::TlxString::fromXmlCh(name);
        m_events += "<" + tag.utf8();
        for (XMLSize_t i = 0; i < attributes.getLength(); ++i)
            m_events += " " + Tlx::TlxString::fromXmlCh(attributes.getName(i)).utf8() + "=" +
                        Tlx::TlxString::fromXmlCh(attributes.getValue(i)).utf8();
        m_events += ">";
        if (m_atStart)
            m_atStart();
        if (tag.utf8().starts_with("unknown"))
            XmlDocumentInterface::xmlStartElement(context, name, attributes);
    }
    void xmlCharacters(Tlx::XmlObjParseContext* context, const XMLCh* chars,
                       unsigned long length) override
    {
        ++m_characterCalls;
        // Record the text as a whole, even if it comes in pieces.
        XmlDocumentInterface::xmlCharacters(context, chars, length);
        m_events.resize(m_events.size() - m_pending);
        const std::string text = context->text().utf8();
        m_pending = text.size();
        m_events += text;
    }
    int xmlEndElement(Tlx::XmlObjParseContext* context, const XMLCh* name) override
    {
        startText(context);
        m_events += "</" + Tlx::TlxString::fromXmlCh(name).utf8() + ">";
        return Tlx::XML_INSIDE;
    }

    std::string m_events;
    std::size_t m_characterCalls = 0;
    std::function<void()> m_atStart;

  private:
    void startText(Tlx::XmlObjParseContext* context)
    {
        context->clearText();
        m_pending = 0;
    }
    std::size_t m_pending = 0; ///< bytes of m_events that are the current text
};

/// Gives a text in pieces. Then it ends or fails as `end` says.
class PiecewiseSource : public xercesc::InputSource
{
  public:
    enum End
    {
        ET_PLAIN,
        ET_MINUS_ONE,
        ET_THROWS
    };

    PiecewiseSource(std::string text, std::size_t piece, End end = ET_PLAIN)
        : m_text(std::move(text)), m_piece(piece), m_end(end)
    {
    }
    xercesc::BinInputStream* makeStream() const override { return new Stream(*this); }

  private:
    class Stream : public xercesc::BinInputStream
    {
      public:
        explicit Stream(const PiecewiseSource& source) : m_source(source) {}
        XMLFilePos curPos() const override { return m_position; }
        const XMLCh* getContentType() const override { return nullptr; }
        XMLSize_t readBytes(XMLByte* const buffer, const XMLSize_t wanted) override
        {
            const std::size_t left = m_source.m_text.size() - m_position;
            if (left == 0 && m_source.m_end == ET_MINUS_ONE)
                return static_cast<XMLSize_t>(-1);
            if (left == 0 && m_source.m_end == ET_THROWS)
                throw 17;
            const std::size_t got = std::min<std::size_t>({left, wanted, m_source.m_piece});
            std::memcpy(buffer, m_source.m_text.data() + m_position, got);
            m_position += got;
            return got;
        }

      private:
        const PiecewiseSource& m_source;
        std::size_t m_position = 0;
    };
    const std::string m_text;
    const std::size_t m_piece;
    const End m_end;
};

} // namespace QmTest
