// Fixed rules for paths that are never compressed: the system's rule file
// (/etc/zephlore/SystemCompressionRules.plist, absent unless an administrator
// adds one) and the helper's own "ExclusionRules.plist" from its resources.
// Both are arrays of dictionaries; a dictionary whose "RuleType" is "Exclude"
// adds each of its "PathEndsWithString", "PathBeginsWithString",
// "PathContainsString" and "PathExactlyEqualsString" strings to one rule set.
// Matching is literal and case-sensitive.
//
// The rules are loaded once, before anyone asks, and never change after: the
// sets are then read from any thread without a lock.
#pragma once

#include <string>
#include <unordered_set>

#include "platform/env.h"

namespace zephlore {

class KRExclusionRules {
 public:
  static constexpr const char* kSystemRulesPath = "/etc/zephlore/SystemCompressionRules.plist";
  static constexpr const char* kHelperRulesName = "ExclusionRules.plist";

  // An empty rule set: loadExclusionRules() fills the helper's, tests build
  // theirs by hand.
  KRExclusionRules();

  // Suffix, prefix, contains, then exact rules; the first match decides.
  bool mustExcludePath(const std::string& path) const;
  bool suffixRuleMatchedForPath(const std::string& path) const;
  bool prefixRuleMatchedForPath(const std::string& path) const;
  bool componentRuleMatchedForPath(const std::string& path) const;
  bool exactRuleMatchedForPath(const std::string& path) const;

  // The system file, then the helper's own, then `dataFolder` itself (its
  // database and records must never be rewritten under the helper's feet).
  void loadExclusionRules(Env& env, const std::string& dataFolder);
  // Adds the rules of one file; a missing or unreadable file adds nothing
  // (anything but a missing file is logged).
  void loadRulesAt(Env& env, const std::string& path);

  void addRuleForPathSuffix(const std::string& suffix);
  void addRuleForPathPrefix(const std::string& prefix);
  void addRuleForPathComponent(const std::string& component);
  void addRuleForPathEqualsTo(const std::string& path);

  size_t ruleCount() const;

 private:
  std::unordered_set<std::string> suffix_rules_;
  std::unordered_set<std::string> prefix_rules_;
  std::unordered_set<std::string> component_rules_;
  std::unordered_set<std::string> exact_rules_;
};

}  // namespace zephlore
