#pragma once
// Characters that deceive a reader, a terminal or a program that reads lines.
//
// There is one table of them (Character.cpp). Each place that shows or stores foreign text tests
// for the class that can do harm there.

namespace Veltrane::Quillmark::Tlx {

/// Steers a terminal: the C0 and C1 controls and delete.
bool isControl(char32_t codePoint);

/// Makes a shown text lie: a control; a line or paragraph separator, which forges a second line; a
/// direction mark, embedding, override or isolate, or the byte order mark, which reorder or hide
/// the text around them. Log lines and the command line escape these.
bool isDeceptive(char32_t codePoint);

/// Looks like another character or is invisible: everything deceptive, and special spaces,
/// zero-width and invisible characters, private use and noncharacters. The display form of a name
/// encodes these beyond ASCII (tlx/Uri.h), so that two different names look different.
bool isUnreadable(char32_t codePoint);

} // namespace Veltrane::Quillmark::Tlx
