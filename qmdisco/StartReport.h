#pragma once
// How the daemon leaves the terminal, and tells whoever started it how the start went.

namespace Veltrane::Quillmark::Qmdisco {

/// In the foreground there is nobody to tell. Detached, the process that was started waits for the
/// daemon's word and ends with the exit code it was told, so that a script sees a failed start. The
/// daemon keeps standard error until then: the line that explains a failure goes there.
class StartReport
{
  public:
    /// In the foreground.
    StartReport() = default;
    /// Detaches: returns in the daemon only. The calling process waits and ends; a daemon that dies
    /// without a word makes it end with EC_UNEXPECTED. Before any thread is made; descriptors
    /// beyond the standard ones are closed, and the working directory becomes "/".
    /// @throws std::system_error when the daemon cannot be split off.
    static StartReport detach();

    StartReport(StartReport&& other) noexcept;
    StartReport& operator=(StartReport&& other) noexcept;
    ~StartReport();

    /// Tells the exit code of the start, once; later calls do nothing. After success standard error
    /// is closed, too.
    void tell(int exitCode);

  private:
    explicit StartReport(int fd) : m_fd(fd) {}
    int m_fd = -1;
};

/// Fills gaps among descriptors 0 to 2: the next file opened would become "standard error" and
/// receive its lines.
void ensureStandardDescriptors();

} // namespace Veltrane::Quillmark::Qmdisco
