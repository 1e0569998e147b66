// Test support: a file's content as programs see it, compressed or not.
#pragma once

#include <memory>
#include <string>

#include "engine/file_content_reader.h"

namespace zephlore::testkit {

// The whole content, or "<error>" when it cannot be read.
inline std::string contentOf(const std::string& path) {
  Error error;
  std::unique_ptr<FileContentReader> reader = FileContentReader::open(Env::system(), path, &error);
  std::string content(reader ? reader->size() : 0, '\0');
  size_t got = 0;
  if (!reader || !reader->read(0, content.data(), content.size(), &got, &error)) return "<" + error.describe() + ">";
  content.resize(got);
  return content;
}

}  // namespace zephlore::testkit
