// Whole-file reads and writes for tests (they throw on failure) and
// deterministic test data.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace zephlore::testkit {

void writeFile(const std::string& path, const std::string& data, mode_t mode = 0644);
// Without touching the access time where allowed (tests compare it).
std::string readFile(const std::string& path);
// The permission bits of `path`, not following a final link.
mode_t modeOf(const std::string& path);

// Words from a small vocabulary in a seeded order: compresses well, not trivially.
std::string compressibleData(size_t size, uint32_t seed = 1);
// Bytes that zlib cannot shrink.
std::string randomData(size_t size, uint32_t seed = 7);

}  // namespace zephlore::testkit
