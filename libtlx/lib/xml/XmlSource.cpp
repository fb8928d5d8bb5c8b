#include "XmlSource.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include <tlx/String.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

/// Long enough for the XML declaration of any document.
constexpr std::size_t HEAD_BYTES = 512;

/// Whether the document itself shows its encoding. It can have a byte order mark, characters of
/// more than one byte, or a declaration.
bool showsEncoding(std::string_view head)
{
    if (head.starts_with("\xEF\xBB\xBF") || head.starts_with("\xFE\xFF") ||
        head.starts_with("\xFF\xFE"))
        return true;
    if (head.substr(0, 4).find('\0') != std::string_view::npos)
        return true;
    constexpr std::string_view ebcdicDeclaration = "\x4C\x6F\xA7\x94";
    if (head.starts_with(ebcdicDeclaration))
        return true;
    return head.starts_with("<?xml") &&
           head.substr(0, head.find("?>")).find("encoding") != std::string_view::npos;
}

} // namespace

/// The head, then the rest of the caller's stream.
class XmlSource::Stream : public xercesc::BinInputStream
{
  public:
    Stream(std::unique_ptr<xercesc::BinInputStream> stream, std::size_t& bytesRead,
           const std::function<bool()>& mayGoOn)
        : m_stream(std::move(stream)), m_bytesRead(bytesRead), m_mayGoOn(mayGoOn)
    {
    }

    const std::string& gatherHead()
    {
        XMLByte buffer[HEAD_BYTES];
        while (m_head.size() < HEAD_BYTES) {
            const XMLSize_t got = readOn(buffer, HEAD_BYTES - m_head.size());
            if (got == 0)
                break;
            m_head.append(reinterpret_cast<const char*>(buffer), got);
        }
        return m_head;
    }

    XMLFilePos curPos() const override { return m_position; }

    XMLSize_t readBytes(XMLByte* const buffer, const XMLSize_t wanted) override
    {
        if (m_mayGoOn && !m_mayGoOn())
            return 0;
        XMLSize_t got = 0;
        if (m_position < m_head.size()) {
            got = std::min<XMLSize_t>(wanted, m_head.size() - m_position);
            std::memcpy(buffer, m_head.data() + m_position, got);
        } else {
            got = readOn(buffer, wanted);
        }
        m_position += got;
        m_bytesRead = m_position;
        return got;
    }

    const XMLCh* getContentType() const override { return nullptr; }

  private:
    /// Reads from the caller's stream. After a failed read, of any kind, the stream has ended.
    XMLSize_t readOn(XMLByte* buffer, XMLSize_t wanted)
    {
        XMLSize_t got = 0;
        if (!m_ended) {
            try {
                got = m_stream->readBytes(buffer, wanted);
            } catch (...) {
                got = 0;
            }
        }
        if (got > wanted)
            got = 0; // the stream returned -1 for an error
        m_ended = got == 0;
        return got;
    }

    std::unique_ptr<xercesc::BinInputStream> m_stream;
    std::size_t& m_bytesRead;
    const std::function<bool()>& m_mayGoOn;
    std::string m_head;
    std::size_t m_position = 0;
    bool m_ended = false;
};

XmlSource::XmlSource(const xercesc::InputSource& source, const std::string& codePage)
{
    std::unique_ptr<xercesc::BinInputStream> given(source.makeStream());
    if (!given)
        throw std::runtime_error("the document cannot be opened");
    auto stream = std::make_unique<Stream>(std::move(given), m_bytesRead, m_mayGoOn);
    const std::string& head = stream->gatherHead();
    if (source.getEncoding())
        setEncoding(source.getEncoding());
    else if (!codePage.empty() && !showsEncoding(head))
        setEncoding(TlxString(codePage).toXmlCh().c_str());
    m_stream = std::move(stream);
}

XmlSource::~XmlSource() = default;

xercesc::BinInputStream* XmlSource::makeStream() const
{
    return m_stream.release();
}

} // namespace Veltrane::Quillmark::Tlx
