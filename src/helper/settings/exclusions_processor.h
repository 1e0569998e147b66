// The user's own exclusions, kept by the zephlore command in the data folder:
// "excludedPaths.plist" (folders or files, matched as plain path prefixes)
// and "excludedExtensions.plist" (file extensions, any case). Both are
// property-list arrays of strings. The lists are read again in full whenever
// the command posts "com.quorvane.krimble.excludedPaths" or
// "com.quorvane.krimble.excludedExtensions".
//
// An update never edits a list in place: it drops the old list and installs
// the new one, so a concurrent isExcluded() sees the old list, none, or the
// new one.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "helper/bus/distributed_notification_center.h"
#include "platform/env.h"

namespace zephlore {

class KRExclusionsProcessor {
 public:
  using List = std::vector<std::string>;

  // Made when the helper starts, before anything else, so that it listens
  // from the first moment: observes both names on `center` (heard on
  // `loop`), then reads both files, kept in `dataFolder` ("": none). Paths
  // are resolved through `env`.
  KRExclusionsProcessor(Env& env, const std::string& dataFolder, DistributedNotificationCenter& center,
                        RunLoop& loop);
  // Stops listening (a test's own instance ends before the center).
  ~KRExclusionsProcessor();
  KRExclusionsProcessor(const KRExclusionsProcessor&) = delete;
  KRExclusionsProcessor& operator=(const KRExclusionsProcessor&) = delete;

  // Reads both files (paths first).
  void readFiles();
  // Drops the current list and reads the file afresh. A missing file leaves
  // no list; an unusable one leaves no list and logs one line.
  void excludedPathsUpdate();
  void excludedExtensionsUpdate();

  // True when the resolved `path` begins with an excluded path (plain string
  // prefix: /a/b also covers /a/bc) or, lower-cased, ends with an excluded
  // extension. Any thread.
  bool isExcluded(const std::string& path) const;

  // The lists in effect: resolved paths in file order; extensions as ".ext".
  List excludedPaths() const;
  List excludedExtensions() const;

  // An extension entry as it is matched: lower-cased, leading dots dropped,
  // one dot put back; none when nothing is left ("", ".", "..").
  static std::optional<std::string> normalizedExtension(const std::string& entry);
  // The path with symbolic links resolved (through `env`), or unchanged when
  // it cannot be.
  static std::string canonicalPath(Env& env, const std::string& path);
  // The strings of one list file; none when the file is missing or unusable
  // (the latter logged, `what` naming the list).
  static std::optional<List> readListFile(Env& env, const std::string& path, const char* what);

 private:
  Env& env_;
  const std::string pathsFile_;
  const std::string extensionsFile_;
  DistributedNotificationCenter& center_;
  DistributedNotificationCenter::ObserverId paths_observer_, extensions_observer_;
  mutable std::mutex mutex_;  // guards the two pointers, never the lists
  std::shared_ptr<const List> paths_;
  std::shared_ptr<const List> extensions_;
};

}  // namespace zephlore
