#pragma once
// All keys of etc/qm.conf. Every program of the product reads the same file.

namespace Veltrane::Quillmark {

/// Declares the keys of all components to the process's HostConfig. A program that reports the
/// file's problems calls it before it reads the file; calling it again changes nothing. The keys of
/// explorers are among them: their library is not loaded when the file is checked.
void declareProductKeys();

} // namespace Veltrane::Quillmark
