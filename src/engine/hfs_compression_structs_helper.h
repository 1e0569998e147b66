// The on-disk structures of a transparently compressed file (zlib data in the
// resource fork, method 4) and the stateless builder that creates and
// byte-swaps them.
//
// Every structure is built in host order (little-endian); the flip operations
// turn the fields that live big-endian on disk into big-endian, in place. A
// writer flips a structure just before writing it and flips it back right
// after, so the in-memory copy stays in host order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace zephlore {

inline constexpr uint32_t kHFSCompressionBlockSize = 0x10000;  // uncompressed bytes per block
inline constexpr uint32_t kDecmpfsMagic = 0x636D7066;          // "fpmc" on disk
inline constexpr uint32_t kDecmpfsTypeZlibResourceFork = 4;
inline constexpr uint32_t kRsrcDataOffset = 0x100;
inline constexpr uint32_t kRsrcMapLength = 0x32;

inline constexpr const char* kDecmpfsAttributeName = "com.apple.decmpfs";
inline constexpr const char* kResourceForkAttributeName = "com.apple.ResourceFork";

#pragma pack(push, 1)

// The value of "com.apple.decmpfs". All fields little-endian; never flipped.
// With type 4 no attribute bytes follow the 16-byte header.
struct HFSPlusDecmpfs {
  uint32_t compression_magic;
  uint32_t compression_type;
  uint64_t uncompressed_size;
};

// Resource-file header at fork offset 0; all four fields big-endian on disk.
struct HFSPlusCmpfRsrcHead {
  uint32_t dataOffset;
  uint32_t mapOffset;
  uint32_t dataLength;
  uint32_t mapLength;
};

// At fork offset 0x100: the length of the resource that follows `dataSize`
// (big-endian) and the number of blocks (little-endian).
struct HFSPlusCmpfRsrcBlockHead {
  uint32_t dataSize;
  uint32_t numBlocks;
};

// One block-table entry, little-endian. `offset` counts from the `numBlocks`
// field (fork offset 0x104).
struct HFSPlusCmpfRsrcBlock {
  uint32_t offset;
  uint32_t size;
};

// The fixed 50-byte resource map closing the fork: one type "cmpf" holding one
// resource, ID 1, without a name.
struct HFSPlusCmpfEnd {
  uint32_t pad[6];
  uint16_t typeListOffset;         // 0x1C, flipped
  uint16_t nameListOffset;         // 0x32, flipped
  uint16_t typeCountMinusOne;      // 0, flipped
  uint32_t resourceType;           // 'cmpf', flipped
  uint32_t countAndRefListOffset;  // count-1 = 0, reference list at 0x0A; flipped
  uint32_t resourceIdAndName;      // stored LE as 0xFFFF0100: bytes 00 01 FF FF
  uint32_t resourceDataOffset;     // 0
  uint32_t resourceHandle;         // 0
};

#pragma pack(pop)

static_assert(sizeof(HFSPlusDecmpfs) == 16);
static_assert(offsetof(HFSPlusDecmpfs, compression_type) == 4);
static_assert(offsetof(HFSPlusDecmpfs, uncompressed_size) == 8);
static_assert(sizeof(HFSPlusCmpfRsrcHead) == 16);
static_assert(offsetof(HFSPlusCmpfRsrcHead, mapLength) == 12);
static_assert(sizeof(HFSPlusCmpfRsrcBlockHead) == 8);
static_assert(offsetof(HFSPlusCmpfRsrcBlockHead, numBlocks) == 4);
static_assert(sizeof(HFSPlusCmpfRsrcBlock) == 8);
static_assert(offsetof(HFSPlusCmpfRsrcBlock, size) == 4);
static_assert(sizeof(HFSPlusCmpfEnd) == 50);
static_assert(offsetof(HFSPlusCmpfEnd, typeListOffset) == 24);
static_assert(offsetof(HFSPlusCmpfEnd, nameListOffset) == 26);
static_assert(offsetof(HFSPlusCmpfEnd, typeCountMinusOne) == 28);
static_assert(offsetof(HFSPlusCmpfEnd, resourceType) == 30);
static_assert(offsetof(HFSPlusCmpfEnd, countAndRefListOffset) == 34);
static_assert(offsetof(HFSPlusCmpfEnd, resourceIdAndName) == 38);
static_assert(offsetof(HFSPlusCmpfEnd, resourceDataOffset) == 42);
static_assert(offsetof(HFSPlusCmpfEnd, resourceHandle) == 46);

// A block table; null for a file of no blocks (or when allocation failed).
using HFSPlusCmpfRsrcBlockTable = std::unique_ptr<HFSPlusCmpfRsrcBlock[]>;

class QVHFSCompressionStructsHelper {
 public:
  QVHFSCompressionStructsHelper() = delete;

  // (size + 65535) / 65536 in signed arithmetic, truncating toward zero.
  static uint64_t blocksRequiredForUncompressedSize(int64_t size);

  // Header start values for zero blocks: 0x100, 0x108, 8, 0x32.
  static HFSPlusCmpfRsrcHead createResourceHeader();
  static HFSPlusCmpfRsrcBlockHead createBlocksHeader();
  static HFSPlusCmpfRsrcBlock createPerBlockHeader();
  // Zeroed table whose entry 0 has offset count*8 + 4; null for count 0.
  static HFSPlusCmpfRsrcBlockTable createPerBlockHeadersForBlocks(uint32_t count);
  static HFSPlusCmpfRsrcBlockTable createPerBlockHeadersForSize(int64_t size);
  static HFSPlusCmpfEnd createFooter();
  static HFSPlusDecmpfs createDecmpfsStructForSize(int64_t size);

  static void flipHFSPlusDecmpfs(HFSPlusDecmpfs* header);
  static void flipRsrcHead(HFSPlusCmpfRsrcHead* head);
  static void flipRsrcBlockHead(HFSPlusCmpfRsrcBlockHead* head);
  static void flipRsrcBlock(HFSPlusCmpfRsrcBlock* block);
  static void flipHFSPlusCmpfEnd(HFSPlusCmpfEnd* end);

  // Accounts for one written block of compressed size `size`: grows the
  // header's data and map by size + 8, fills table entry `numBlocks` (whose
  // offset follows the previous entry) and counts it. The table must have
  // room for entry `blockHead->numBlocks`.
  static void appendBlock(HFSPlusCmpfRsrcHead* head, HFSPlusCmpfRsrcBlockHead* blockHead,
                          HFSPlusCmpfRsrcBlock* table, uint32_t size);
  // After the last block: dataSize = dataLength - 4.
  static void finishBlocks(const HFSPlusCmpfRsrcHead& head, HFSPlusCmpfRsrcBlockHead* blockHead);
};

}  // namespace zephlore
