#pragma once
// Who keeps ACE initialised.

namespace Veltrane::Quillmark::Tlx {

/// A use of ACE. The first use of the process initialises ACE, and the end of the last one
/// finalises it: that destroys ACE's singletons. Nothing else in this system calls ACE::init or
/// ACE::fini.
///
/// The daemon holds one use around everything. So the singletons, the repository among them,
/// outlive the ORB and the service framework, which each hold a use, too.
///
/// Any thread may begin or end a use while another use lasts. The first one begins, and the last
/// one ends, on the main thread.
class AceRuntime
{
  public:
    [[nodiscard]] AceRuntime();
    AceRuntime(const AceRuntime&) = delete;
    AceRuntime& operator=(const AceRuntime&) = delete;
    ~AceRuntime();

    /// This use lasts as long as the process, and the object may go. For a place where ACE must not
    /// be finalised, because the caller holds one of ACE's own locks.
    void keep() { m_kept = true; }

    /// How many uses there are now.
    static unsigned uses();

  private:
    bool m_kept = false;
};

} // namespace Veltrane::Quillmark::Tlx
