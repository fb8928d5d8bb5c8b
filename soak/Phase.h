#pragma once
// What the service keeps open for a worker at this moment, in a file. So the driver knows what a
// killed client left behind: the kernel has the byte when an operation returns.

#include <string>

namespace Veltrane::Quillmark::Soak {

/// One thread uses it.
class Phase
{
  public:
    enum Kept : char
    {
        NOTHING = '-',
        WRITER = 'w', ///< perhaps a writer
        DATA = 'd',   ///< perhaps an iterator over a payload
        LIST = 'l'    ///< perhaps an iterator over records
    };

    /// Makes the file. It has one byte. Throws on failure.
    explicit Phase(const std::string& path);
    ~Phase();
    Phase(const Phase&) = delete;
    Phase& operator=(const Phase&) = delete;

    void set(Kept kept);

  private:
    int m_file;
};

} // namespace Veltrane::Quillmark::Soak
