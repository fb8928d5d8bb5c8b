#pragma once
// What the parser is really given to read: the caller's source, made well-behaved.

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include <xercesc/sax/InputSource.hpp>
#include <xercesc/util/BinInputStream.hpp>

namespace Veltrane::Quillmark::Tlx {

/// Stands between the parser and a source whose stream may give a byte a read, fail, or hold a
/// document in an encoding that only the caller knows. The parser guesses the encoding from its
/// first read alone, so the head of the document is gathered here beforehand. Serves one parse.
class XmlSource : public xercesc::InputSource
{
  public:
    /// @param codePage the encoding of a document that does not tell its own; empty for UTF-8.
    /// Throws std::runtime_error when the source gives no stream.
    XmlSource(const xercesc::InputSource& source, const std::string& codePage);
    ~XmlSource() override;

    /// The stream; null when it was asked for before.
    xercesc::BinInputStream* makeStream() const override;

    /// Has the function asked each time before the parser is given more; false ends the stream. It
    /// does not throw: the parser would leave behind what it is building.
    void beforeReads(std::function<bool()> mayGoOn) { m_mayGoOn = std::move(mayGoOn); }

    /// How many bytes were read so far.
    std::size_t bytesRead() const { return m_bytesRead; }

  private:
    class Stream;
    mutable std::unique_ptr<xercesc::BinInputStream> m_stream;
    std::size_t m_bytesRead = 0;
    std::function<bool()> m_mayGoOn;
};

} // namespace Veltrane::Quillmark::Tlx
