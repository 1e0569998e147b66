// zephlore info [-r] [--json] PATH...: what compression did to each file, and
// with -r the sums of a tree.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "base/util.h"
#include "cli/files/beneath_views.h"
#include "cli/files/display_name.h"
#include "cli/files/file_command_parts.h"
#include "cli/files/json_report.h"
#include "cli/files/named_path.h"
#include "cli/files/progress_line.h"
#include "cli/files/run_summary.h"
#include "engine/compressed_file_info.h"
#include "engine/tree_walker.h"

namespace zephlore::cli {
namespace {

struct InfoOptions {
  std::vector<std::string> paths;
  bool recursive = false;
  bool json = false;
  bool verbose = false;
  bool cross_volumes = false;
};

// Bytes the file keeps: its data fork, its compressed fork and header.
uint64_t storedBytes(const CompressedFileInfo& info) {
  return info.dataForkSize + info.forkSize + (info.hasDecmpfs ? 16 : 0);
}

std::string attributeList(const CompressedFileInfo& info) {
  std::string out;
  auto add = [&](bool present, const char* name) {
    if (!present) return;
    if (!out.empty()) out += ", ";
    out += name;
  };
  add(info.hasCompressedFlag, "compressed flag");
  add(info.hasDecmpfs, "com.apple.decmpfs");
  add(info.hasResourceFork, "com.apple.ResourceFork");
  add(info.hasExcludeMarker, "com.quorvane.zephlore.exclude");
  add(info.hasSignature, "com.quorvane.zephlore.signature");
  return out.empty() ? "none" : out;
}

std::string infoLine(const std::string& path, const CompressedFileInfo& info) {
  std::string line = escapeForTerminal(path) + ": " + compressionStateName(info.state);
  if (info.state == CompressionState::kCompressed) {
    line += ", " + KRUtil::getPrettySize(info.uncompressedSize) + " -> " + KRUtil::getPrettySize(info.forkSize) +
            " (" + percent(info.forkSize, info.uncompressedSize) + "), " + groupedNumber(info.blockCount) +
            " blocks, fork " + groupedNumber(info.forkSize) + " bytes";
  } else {
    line += ", " + groupedNumber(info.dataForkSize) + " bytes";
    if (info.forkSize != 0) line += ", fork " + groupedNumber(info.forkSize) + " bytes";
  }
  if (!info.problem.empty()) line += " (" + escapeForTerminal(info.problem) + ")";
  line += "; attributes: " + attributeList(info) + "\n";
  return line;
}

json infoJson(const std::string& path, const CompressedFileInfo& info) {
  json j;
  j["type"] = "file";
  addPathFields(j, path);
  j["state"] = compressionStateName(info.state);
  j["compressed"] = info.state == CompressionState::kCompressed;
  j["uncompressed_size"] = info.uncompressedSize;
  j["data_fork_size"] = info.dataForkSize;
  j["fork_size"] = info.forkSize;
  j["blocks"] = info.blockCount;
  j["allocated_bytes"] = info.allocatedBytes;
  j["disk_bytes"] = storedBytes(info);
  j["ratio"] = info.ratio();
  j["attributes"] = {{"compressed_flag", info.hasCompressedFlag},
                     {"decmpfs", info.hasDecmpfs},
                     {"resource_fork", info.hasResourceFork},
                     {"exclude", info.hasExcludeMarker},
                     {"signature", info.hasSignature}};
  if (!info.problem.empty()) j["problem"] = lossyUtf8(info.problem);
  return j;
}

// The sums of a tree, the way people read them: how many files are
// compressed, their uncompressed and stored sizes, and which files are in a
// state that needs a look.
struct TreeSums {
  static constexpr size_t kListed = 100;
  uint64_t files = 0;
  uint64_t by_state[5] = {};
  uint64_t uncompressed[5] = {};
  uint64_t stored[5] = {};
  uint64_t errors = 0;
  uint64_t saved = 0;  // as the helper counts a folder's savings
  std::vector<std::string> odd_files;  // mixed, incomplete, not ours (first kListed)
  uint64_t odd_count = 0;
  uint64_t temporaries = 0;  // left beside files by a stopped run of ours

  void add(const std::string& path, const CompressedFileInfo& info) {
    const int s = static_cast<int>(info.state);
    ++files;
    ++by_state[s];
    uncompressed[s] += info.uncompressedSize;
    stored[s] += storedBytes(info);
    saved += info.savedBytes();
    if (info.state != CompressionState::kPlain && info.state != CompressionState::kCompressed) {
      ++odd_count;
      if (odd_files.size() < kListed) odd_files.push_back(path);
    }
  }
  uint64_t total(const uint64_t* v) const {
    uint64_t t = 0;
    for (int i = 0; i < 5; ++i) t += v[i];
    return t;
  }

  std::string table() const {
    std::string out = "Processed " + groupedNumber(files) + " files, " +
                      groupedNumber(by_state[static_cast<int>(CompressionState::kCompressed)]) + " compressed";
    if (errors) out += ", " + groupedNumber(errors) + " could not be examined";
    out += ".\n";
    char buf[256];
    snprintf(buf, sizeof buf, "%-12s %12s %14s %14s %8s\n", "State", "Files", "On disk", "Uncompressed", "Ratio");
    out += buf;
    auto row = [&](const char* name, uint64_t n, uint64_t disk, uint64_t raw) {
      snprintf(buf, sizeof buf, "%-12s %12s %14s %14s %8s\n", name, groupedNumber(n).c_str(),
               KRUtil::getPrettySize(disk).c_str(), KRUtil::getPrettySize(raw).c_str(), percent(disk, raw).c_str());
      out += buf;
    };
    row("total", files, total(stored), total(uncompressed));
    for (int s = 0; s < 5; ++s) {
      if (by_state[s] == 0) continue;
      row(compressionStateName(static_cast<CompressionState>(s)), by_state[s], stored[s], uncompressed[s]);
    }
    out += "Saved on disk: " + KRUtil::getPrettySize(saved) + " (" + groupedNumber(saved) + " bytes)\n";
    if (odd_count) {
      out += "Files that need a look (written after compression, cut short, or not ours): " +
             groupedNumber(odd_count) + "\n";
      for (const std::string& p : odd_files) out += "  " + escapeForTerminal(p) + "\n";
      if (odd_count > odd_files.size()) out += "  ...\n";
    }
    if (temporaries) {
      out += "Temporary files of zephlore left by a stopped run (the next compress, decompress or repair in "
             "their folder settles them): " +
             groupedNumber(temporaries) + "\n";
    }
    return out;
  }

  json toJson() const {
    json j;
    j["type"] = "summary";
    j["files"] = files;
    json states = json::object();
    for (int s = 0; s < 5; ++s) {
      const char* name = compressionStateName(static_cast<CompressionState>(s));
      states[name] = {{"files", by_state[s]}, {"disk_bytes", stored[s]}, {"uncompressed_bytes", uncompressed[s]}};
    }
    j["states"] = states;
    j["compressed_files"] = by_state[static_cast<int>(CompressionState::kCompressed)];
    j["mixed_files_count"] = odd_count;
    j["uncompressed_bytes"] = total(uncompressed);
    j["disk_bytes"] = total(stored);
    j["saved_bytes"] = saved;
    const uint64_t raw = total(uncompressed);
    j["ratio"] = raw == 0 ? json(nullptr) : json(static_cast<double>(total(stored)) / static_cast<double>(raw));
    j["errors"] = errors;
    json odd = json::array();
    for (const std::string& p : odd_files) {
      json f;
      addPathFields(f, p);
      odd.push_back(f);
    }
    j["mixed_files"] = odd;
    j["engine_temporaries"] = temporaries;
    return j;
  }
};

class InfoVisitor : public WalkVisitor {
 public:
  InfoVisitor(Env& env, const InfoOptions& options) : env_(env), options_(options) {}

  void visit(const WalkEntry& entry, WalkSkip skip) override {
    const std::string path(entry.path);
    if (skip == WalkSkip::kEngineTemporary) {
      ++sums_.temporaries;
      return;
    }
    if (!S_ISREG(entry.st->st_mode)) {
      // Inside a tree only regular files count; a named one is told why not.
      if (entry.named) {
        Error e;
        e.domain = kPosixErrorDomain;
        e.code = skip == WalkSkip::kDirectory ? EISDIR : EINVAL;
        e.message = skip == WalkSkip::kDirectory ? "is a directory (use -r)" : "not a regular file";
        error(path, e);
      }
      return;
    }
    CompressedFileInfo info;
    Error e;
    if (!CompressedFileInfo::inspect(env_, path, &info, &e)) {
      error(path, e);
      return;
    }
    sums_.add(path, info);
    needsRepair_ = needsRepair_ || (info.state != CompressionState::kPlain && info.state != CompressionState::kCompressed);
    if (options_.recursive && !options_.verbose) return;
    if (options_.json) {
      puts(dumpLine(infoJson(path, info)).c_str());
    } else {
      fputs(infoLine(path, info).c_str(), stdout);
    }
  }

  void walkError(std::string_view path, int err, const char* what, bool) override {
    error(std::string(path), posixError(err, std::string("cannot ") + what));
  }

  const TreeSums& sums() const { return sums_; }
  bool failed() const { return failed_; }
  // A file written after compression, cut short, or damaged was found.
  bool needsRepair() const { return needsRepair_; }

 private:
  void error(const std::string& path, const Error& e) {
    failed_ = true;
    ++sums_.errors;
    if (options_.json) {
      json j;
      j["type"] = "file";
      addPathFields(j, path);
      j["error"] = errorJson(e);
      puts(dumpLine(j).c_str());
    } else {
      fprintf(stderr, "%s: %s\n", escapeForTerminal(path).c_str(), escapeForTerminal(e.describe()).c_str());
    }
  }

  Env& env_;
  const InfoOptions& options_;
  TreeSums sums_;
  bool failed_ = false;
  bool needsRepair_ = false;
};

int runInfo(Env& env, const InfoOptions& options) {
  if (reportDeadViews(options.paths, "info")) return 1;
  WorkBeneathViews beneath(env, options.paths, "info", options.json);
  InfoVisitor visitor(beneath.env(), options);
  TreeWalker walker(beneath.env(), {options.recursive, options.cross_volumes});
  for (const std::string& path : beneath.paths()) {
    walker.walk(followNamedLink(beneath.env(), path), visitor);
  }
  if (options.recursive) {
    if (options.json) {
      puts(dumpLine(visitor.sums().toJson()).c_str());
    } else {
      fputs(visitor.sums().table().c_str(), stdout);
    }
  }
  if (visitor.needsRepair()) {
    fputs("Some files are written after compression, cut short or damaged: run \"zephlore repair\" on them.\n",
          stderr);
  }
  const int err = fflush(stdout) != 0 ? errno : ferror(stdout) ? EIO : 0;
  if (err != 0) {
    fprintf(stderr, "zephlore: cannot write the output: %s\n", strerror(err));
    return 1;
  }
  return visitor.failed() || visitor.needsRepair() ? 1 : 0;
}

}  // namespace

void addInfoCommand(CLI::App& app, Env& env, int* exit_code) {
  auto options = std::make_shared<InfoOptions>();
  CLI::App* info = app.add_subcommand(
      "info", "Show whether files are compressed, their sizes, blocks, ratio and attributes; with -r, a tree's sums");
  info->footer(
      "Per file: plain or compressed (or written after compression, cut short, not ours), the "
      "uncompressed size, the fork size, the number of 64 KiB blocks, the ratio, and the flag and "
      "marker attributes present.\n"
      "With -r: the number of compressed files, the uncompressed size, the size on disk (data fork, "
      "compressed fork and header), the ratio, and the files in an odd state.\n"
      "Exit status: 0 when every file could be examined and is whole, 1 when one could not be examined or "
      "needs \"zephlore repair\" (written after compression, cut short, damaged), 2 on usage errors.\n");
  info->add_option("PATH", options->paths, "Files or, with -r, directories")->required();
  info->add_flag("-r,--recursive", options->recursive, "Walk directories and print the sums");
  info->add_flag("--json", options->json, "One JSON object per line (per file, then the sums with -r)");
  info->add_flag("-v,--verbose", options->verbose, "With -r, also one line per file");
  info->add_flag("--cross-volumes", options->cross_volumes, "Descend into directories on other volumes");
  info->callback([&env, options, exit_code] { *exit_code = runInfo(env, *options); });
}

}  // namespace zephlore::cli
