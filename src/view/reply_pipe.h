// Hands inflated bytes to the kernel by reference. With splicing on, libfuse
// sends a reply held in memory by first copying it into a pipe and then
// splicing that pipe into the reply, where the kernel copies it again. The
// blocks are instead mapped into a pipe of the calling thread (vmsplice) and
// given to libfuse as that pipe: the kernel's copy into the reply is the only
// one. The blocks stay held until the thread's next reply, by which time the
// kernel has copied them; they never change while held.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <vector>

#include "platform/env.h"
#include "view/compressed_content.h"

namespace zephlore::view {

// The read end of this thread's pipe, holding exactly the pieces' `total`
// bytes; -1 when they cannot go this way (the caller copies them then).
int pipeHolding(const std::vector<CompressedContent::Piece>& pieces, size_t total);

// The read end of this thread's pipe, holding the `size` bytes of `fd` from
// `offset` (fewer only at the end of the file) by reference (splice), with
// the count in *got; -1 when they cannot go this way. A plain file's reply
// is thus taken while the call holds the file: handed the file itself,
// libfuse would read it after the call, and a release on another thread
// could close it meanwhile as far as thread checkers can tell.
int pipeFromFile(Env& env, int fd, off_t offset, size_t size, size_t* got);

}  // namespace zephlore::view
