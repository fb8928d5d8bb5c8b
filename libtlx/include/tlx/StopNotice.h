#pragma once
// Whether this process is stopping. Waits for other hosts and processes then end early.

namespace Veltrane::Quillmark::Tlx {

/// After announceStop, a wait for the name resolver or for another process's file lock ends within
/// a tenth of a second, and later waits of these kinds end at once. Such a wait then fails as at
/// its time limit. Any thread; lock-free.
void announceStop();
bool isStopAnnounced();

/// Takes the announcement back. The next service of the same process needs it.
void withdrawStop();

} // namespace Veltrane::Quillmark::Tlx
