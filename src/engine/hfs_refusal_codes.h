// Codes of our own in the engine's error domain (kHFSErrorDomain), after the
// classic 700..706: files the engine refuses to convert or expand because
// doing so could lose data or touch the wrong file.
#pragma once

namespace zephlore {

enum HFSRefusalCode : int {
  // Exchanging names would leave the old data under the file's other names.
  kHFSErrorHardLinks = 707,         // "File at path %@ has more than one hard link"
  // Data written into a compressed file lands in its data fork while the old
  // compressed data stays in the attributes: neither version is complete.
  kHFSErrorWrittenAfterCompression = 708,  // "File at path %@ was written after it was compressed"
  kHFSErrorNotRegularFile = 709,    // "File at path %@ is not a regular file"
  // The crash-recovery record cuts a path at its first line feed.
  kHFSErrorLineFeedInPath = 710,    // "Path %@ contains a line feed"
  kHFSErrorPathTooLong = 711,       // "Path %@ is too long"
  kHFSErrorOpenForWriting = 712,    // "File at path %@ is open for writing by another process"
  kHFSErrorModified = 713,          // "File at path %@ was modified while compressing"
  kHFSErrorSwapFailed = 714,        // "Could not replace file at path %@ with its compressed copy"
  kHFSErrorVolumeCannotHold = 715,  // "The volume of %@ cannot hold the compressed form"
  kHFSErrorPathNotUTF8 = 716,       // "Path %@ is not valid UTF-8"
  // Another program opened the file while it was being swapped: the swap is
  // undone so that its writes land in the file at the name.
  kHFSErrorOpenedDuringSwap = 717,
  kHFSErrorOutOfMemory = 718,       // "Could not allocate memory to ..."
  // The output (an expanded copy, the compressed fork's image, standard
  // output) could not be written.
  kHFSErrorCouldNotWrite = 719,
  // A compressed block did not inflate to its source again: nothing replaced.
  kHFSErrorVerificationFailed = 720,
  kHFSErrorNoTemporaryFile = 721,   // "Could not create temporary file to hold compressed data"
  // Repair could not take the compressed form off a file written after compression.
  kHFSErrorCannotStripCompression = 722,
  // What was opened is not the caller's own file: another user's file (or
  // a link to one) put at the name after it was looked at.
  kHFSErrorNotOwned = 723,          // "File at path %@ is not owned by this user"
  // Its fork would need more attribute pieces than a file's attribute list
  // can name, or than its volume keeps for one file. Marked like a file that
  // does not shrink, so that it is not tried again until it changes.
  kHFSErrorTooLargeForForm = 724,   // "File at path %@ is too large for the compressed form"
};

}  // namespace zephlore
