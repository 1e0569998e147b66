#include "engine/hfs_compression_structs_helper.h"

#include <limits>
#include <new>

namespace zephlore {

namespace {

uint16_t swap16(uint16_t v) { return static_cast<uint16_t>((v >> 8) | (v << 8)); }
uint32_t swap32(uint32_t v) { return __builtin_bswap32(v); }

}  // namespace

uint64_t QVHFSCompressionStructsHelper::blocksRequiredForUncompressedSize(int64_t size) {
  // size + 65535 would overflow near the top of the range; the quotient is
  // the same when computed from the parts.
  if (size > std::numeric_limits<int64_t>::max() - 0xFFFF) {
    return static_cast<uint64_t>(size / 0x10000 + 1);
  }
  return static_cast<uint64_t>((size + 0xFFFF) / 0x10000);
}

HFSPlusCmpfRsrcHead QVHFSCompressionStructsHelper::createResourceHeader() {
  HFSPlusCmpfRsrcHead head{};
  head.dataOffset = kRsrcDataOffset;
  head.mapOffset = kRsrcDataOffset + 8;
  head.dataLength = 8;
  head.mapLength = kRsrcMapLength;
  return head;
}

HFSPlusCmpfRsrcBlockHead QVHFSCompressionStructsHelper::createBlocksHeader() { return {}; }

HFSPlusCmpfRsrcBlock QVHFSCompressionStructsHelper::createPerBlockHeader() { return {}; }

HFSPlusCmpfRsrcBlockTable QVHFSCompressionStructsHelper::createPerBlockHeadersForBlocks(uint32_t count) {
  if (count == 0) return nullptr;
  HFSPlusCmpfRsrcBlockTable table(new (std::nothrow) HFSPlusCmpfRsrcBlock[count]());
  if (table) table[0].offset = count * 8 + 4;
  return table;
}

HFSPlusCmpfRsrcBlockTable QVHFSCompressionStructsHelper::createPerBlockHeadersForSize(int64_t size) {
  return createPerBlockHeadersForBlocks(static_cast<uint32_t>(blocksRequiredForUncompressedSize(size)));
}

HFSPlusCmpfEnd QVHFSCompressionStructsHelper::createFooter() {
  HFSPlusCmpfEnd end{};
  end.typeListOffset = 0x001C;
  end.nameListOffset = 0x0032;
  end.typeCountMinusOne = 0;
  end.resourceType = 0x636D7066;  // 'cmpf' once flipped
  end.countAndRefListOffset = 0x0000000A;
  end.resourceIdAndName = 0xFFFF0100;  // deliberately not flipped
  return end;
}

HFSPlusDecmpfs QVHFSCompressionStructsHelper::createDecmpfsStructForSize(int64_t size) {
  HFSPlusDecmpfs header{};
  header.compression_magic = kDecmpfsMagic;
  header.compression_type = kDecmpfsTypeZlibResourceFork;
  header.uncompressed_size = static_cast<uint64_t>(size);
  return header;
}

// The no-op flips exist so that every structure goes through the same
// flip-write-flip sequence.
void QVHFSCompressionStructsHelper::flipHFSPlusDecmpfs(HFSPlusDecmpfs*) {}

void QVHFSCompressionStructsHelper::flipRsrcHead(HFSPlusCmpfRsrcHead* head) {
  head->dataOffset = swap32(head->dataOffset);
  head->mapOffset = swap32(head->mapOffset);
  head->dataLength = swap32(head->dataLength);
  head->mapLength = swap32(head->mapLength);
}

void QVHFSCompressionStructsHelper::flipRsrcBlockHead(HFSPlusCmpfRsrcBlockHead* head) {
  head->dataSize = swap32(head->dataSize);  // numBlocks stays little-endian
}

void QVHFSCompressionStructsHelper::flipRsrcBlock(HFSPlusCmpfRsrcBlock*) {}

void QVHFSCompressionStructsHelper::flipHFSPlusCmpfEnd(HFSPlusCmpfEnd* end) {
  end->typeListOffset = swap16(end->typeListOffset);
  end->nameListOffset = swap16(end->nameListOffset);
  end->typeCountMinusOne = swap16(end->typeCountMinusOne);
  end->resourceType = swap32(end->resourceType);
  end->countAndRefListOffset = swap32(end->countAndRefListOffset);
}

void QVHFSCompressionStructsHelper::appendBlock(HFSPlusCmpfRsrcHead* head, HFSPlusCmpfRsrcBlockHead* blockHead,
                                                HFSPlusCmpfRsrcBlock* table, uint32_t size) {
  head->dataLength += size + 8;
  head->mapOffset += size + 8;
  const uint32_t index = blockHead->numBlocks;
  table[index].size = size;
  if (index > 0) table[index].offset = table[index - 1].offset + table[index - 1].size;
  blockHead->numBlocks = index + 1;
}

void QVHFSCompressionStructsHelper::finishBlocks(const HFSPlusCmpfRsrcHead& head,
                                                 HFSPlusCmpfRsrcBlockHead* blockHead) {
  blockHead->dataSize = head.dataLength - 4;
}

}  // namespace zephlore
