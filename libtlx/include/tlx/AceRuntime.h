#pragma once
// Keeps ACE initialised.

namespace Veltrane::Quillmark::Tlx {

/// A use of ACE. The first use in the process initialises ACE. The end of the last use finalises
/// ACE, which destroys ACE's singletons. Nothing else in this system calls ACE::init or ACE::fini.
///
/// The daemon holds one use around everything. So the singletons, for instance the repository,
/// outlive the ORB and the service framework. These two hold a use, too.
///
/// Any thread may begin or end a use while another use lasts. The first use begins, and the last
/// use ends, on the main thread.
class AceRuntime
{
  public:
    [[nodiscard]] AceRuntime();
    AceRuntime(const AceRuntime&) = delete;
    AceRuntime& operator=(const AceRuntime&) = delete;
    ~AceRuntime();

    /// Makes this use last until the process ends, even after the object's end. A caller that holds
    /// one of ACE's own locks needs it, because nobody may finalise ACE there.
    void keep() { m_kept = true; }

    /// The number of current uses.
    static unsigned uses();

  private:
    bool m_kept = false;
};

} // namespace Veltrane::Quillmark::Tlx
