// Feeds arbitrary bytes to the compression header parser and the fork reader.
// Input layout: one control byte, the 16-byte "com.apple.decmpfs" value, then
// the resource-fork image. The reader must reject or read every input without
// touching memory outside its buffers.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "engine/compressed_fork_reader.h"
#include "engine/decmpfs_header.h"
#include "engine/fork_source.h"

namespace {

int nullFd() {
  static const int fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  return fd;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zephlore;
  if (size < 1 + kDecmpfsValueSize) return 0;
  const uint8_t control = data[0];
  uint64_t uncompressedSize = 0;
  if (!parseDecmpfsValue(data + 1, kDecmpfsValueSize, &uncompressedSize, nullptr)) return 0;

  MemoryForkSource source(data + 1 + kDecmpfsValueSize, size - 1 - kDecmpfsValueSize);
  Error error;
  auto reader = CompressedForkReader::open(zephlore::Env::system(), source, uncompressedSize, &error);
  if (!reader) return 0;

  // Ranges: the start, one chosen by the control byte across a block
  // boundary, and the end; bounded so that huge claimed sizes stay cheap.
  std::vector<uint8_t> buf(3 * 65536);
  size_t got = 0;
  reader->read(0, buf.data(), std::min<size_t>(buf.size(), 100000), &got, nullptr);
  const uint64_t offset = (uint64_t{control} << 12) + 65000;
  reader->read(offset, buf.data(), 70000, &got, nullptr);
  const uint64_t total = reader->uncompressedSize();
  reader->read(total > 10 ? total - 10 : 0, buf.data(), 20, &got, nullptr);
  if (total <= (4u << 20)) reader->expandTo(nullFd(), (control & 1) ? 2 : 1, nullptr);
  return 0;
}
