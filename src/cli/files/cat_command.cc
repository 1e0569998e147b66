// zephlore cat FILE...: the content of each file as its user sees it, on
// standard output. A compressed file is inflated from its fork (a range only
// touches the blocks it overlaps); a plain file is copied as it is. Files are
// only read, never changed.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "base/write_all.h"
#include "cli/files/beneath_views.h"
#include "cli/files/display_name.h"
#include "cli/files/file_command_parts.h"
#include "cli/files/named_path.h"
#include "engine/file_content_reader.h"

namespace zephlore::cli {
namespace {

struct CatOptions {
  std::vector<std::string> files;
  uint64_t offset = 0;
  uint64_t length = std::numeric_limits<uint64_t>::max();
  int jobs = 0;
};

bool catRange(FileContentReader& reader, uint64_t offset, uint64_t length, Error* error) {
  constexpr size_t kChunk = 1 << 20;
  std::vector<uint8_t> buf(kChunk);
  uint64_t left = length;
  while (left > 0) {
    size_t got = 0;
    const size_t want = static_cast<size_t>(std::min<uint64_t>(left, kChunk));
    if (!reader.read(offset, buf.data(), want, &got, error)) return false;
    if (got == 0) break;
    if (!writeAll(STDOUT_FILENO, buf.data(), got)) {
      return fail(error, "posix", errno, std::string("cannot write to standard output: ") + strerror(errno));
    }
    offset += got;
    left -= got;
  }
  return true;
}

int runCat(Env& env, const CatOptions& options) {
  const bool whole = options.offset == 0 && options.length == std::numeric_limits<uint64_t>::max();
  const int jobs = options.jobs > 0 ? options.jobs : defaultJobs();
  int status = 0;
  if (reportDeadViews(options.files, "cat")) return 1;
  // Inflated here rather than read back through a view.
  WorkBeneathViews beneath(env, options.files, "cat", true);
  for (const std::string& path : beneath.paths()) {
    Error error;
    std::unique_ptr<FileContentReader> reader =
        FileContentReader::open(beneath.env(), followNamedLink(beneath.env(), path), &error);
    const bool ok = reader && (whole ? reader->copyTo(STDOUT_FILENO, jobs, &error)
                                     : catRange(*reader, options.offset, options.length, &error));
    if (!ok) {
      fprintf(stderr, "zephlore cat: %s: %s\n", escapeForTerminal(path).c_str(),
              escapeForTerminal(error.describe()).c_str());
      status = 1;
    }
  }
  return status;
}

}  // namespace

void addCatCommand(CLI::App& app, Env& env, int* exit_code) {
  auto options = std::make_shared<CatOptions>();
  CLI::App* cat = app.add_subcommand("cat", "Write the uncompressed content of files to standard output");
  cat->footer(
      "Compressed files are inflated (a range only reads the blocks it overlaps); plain files are "
      "copied as they are. Files are never changed.\n"
      "Exit status: 0 when every file was read, 1 otherwise, 2 on usage errors.\n");
  cat->add_option("FILE", options->files, "Files to read, in order")->required();
  cat->add_option("--offset", options->offset, "Start at this byte of each file's content (default 0)");
  cat->add_option("--length", options->length, "Write at most this many bytes of each file");
  cat->add_option("-j,--jobs", options->jobs, "Threads that inflate one file (default: the number of cores)")
      ->check(CLI::Range(1, 1024));
  cat->callback([&env, options, exit_code] { *exit_code = runCat(env, *options); });
}

}  // namespace zephlore::cli
