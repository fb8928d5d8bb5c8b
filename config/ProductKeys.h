#pragma once
// Declares all keys of etc/qm.conf, which every program of the product reads.

namespace Veltrane::Quillmark {

/// Declares the keys of all components to the process's HostConfig. A program that reports the
/// file's problems calls it before it reads the file. A second call changes nothing. It also
/// declares the explorers' keys, because their library is not loaded when a program checks the
/// file.
void declareProductKeys();

} // namespace Veltrane::Quillmark
