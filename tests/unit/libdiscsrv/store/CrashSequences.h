#pragma once
// The sequences of work on a store that the crash plays use.

#include "CrashPlay.h"

namespace QmTest {

extern const Sequence FIRST_PUT;
extern const Sequence SAME_LENGTH_PUT; ///< replaces a document of the same length
extern const Sequence LONGER_PUT;
extern const Sequence SHORTER_PUT;
extern const Sequence LONGER_PUT_IN_A_SECTOR; ///< both documents have less than 512 bytes
extern const Sequence SHORTER_PUT_IN_A_SECTOR;
extern const Sequence REFUSED_PUT; ///< loses against a put of higher priority
extern const Sequence GIVEN_UP_PUT;
extern const Sequence EXPIRY;
extern const Sequence PUT_AFTER_EXPIRY;
extern const Sequence CLEAN_UP;
extern const Sequence FIRST_START; ///< makes the directory and puts a record
extern const Sequence TWO_PUTS;    ///< of one record, in two threads
extern const Sequence SHARED_SYNC; ///< three threads put, and share syncs of the directory

} // namespace QmTest
