#pragma once
// The source that the parser reads: the caller's source, made well-behaved.

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include <xercesc/sax/InputSource.hpp>
#include <xercesc/util/BinInputStream.hpp>

namespace Veltrane::Quillmark::Tlx {

/// Stands between the parser and the caller's source. That source's stream may give one byte per
/// read, fail, or hold a document in an encoding that only the caller knows. The parser guesses the
/// encoding from its first read only. So this class collects the head of the document before that
/// read. Serves one parse.
class XmlSource : public xercesc::InputSource
{
  public:
    /// Throws std::runtime_error when the source gives no stream.
    /// @param codePage the encoding of a document that declares none; empty for UTF-8.
    XmlSource(const xercesc::InputSource& source, const std::string& codePage);
    ~XmlSource() override;

    /// The stream; null after the first call.
    xercesc::BinInputStream* makeStream() const override;

    /// Calls the function before each read of the parser. If it returns false, the stream ends. It
    /// must not throw, because the parser would leak the objects that it is building.
    void beforeReads(std::function<bool()> mayGoOn) { m_mayGoOn = std::move(mayGoOn); }

    /// Bytes that the parser has read so far.
    std::size_t bytesRead() const { return m_bytesRead; }

  private:
    class Stream;
    mutable std::unique_ptr<xercesc::BinInputStream> m_stream;
    std::size_t m_bytesRead = 0;
    std::function<bool()> m_mayGoOn;
};

} // namespace Veltrane::Quillmark::Tlx
