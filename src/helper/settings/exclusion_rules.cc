#include "helper/settings/exclusion_rules.h"

#include <optional>

#include "base/log.h"
#include "base/util.h"
#include "helper/settings/plist_file.h"
#include "helper/settings/resources.h"

namespace zephlore {

KRExclusionRules::KRExclusionRules() {
  suffix_rules_.reserve(50);
  prefix_rules_.reserve(50);
  component_rules_.reserve(50);
  exact_rules_.reserve(50);
}

bool KRExclusionRules::mustExcludePath(const std::string& path) const {
  return suffixRuleMatchedForPath(path) || prefixRuleMatchedForPath(path) ||
         componentRuleMatchedForPath(path) || exactRuleMatchedForPath(path);
}

bool KRExclusionRules::suffixRuleMatchedForPath(const std::string& path) const {
  for (const std::string& suffix : suffix_rules_) {
    if (path.ends_with(suffix)) return true;
  }
  return false;
}

bool KRExclusionRules::prefixRuleMatchedForPath(const std::string& path) const {
  for (const std::string& prefix : prefix_rules_) {
    if (path.starts_with(prefix)) return true;
  }
  return false;
}

bool KRExclusionRules::componentRuleMatchedForPath(const std::string& path) const {
  for (const std::string& part : component_rules_) {
    if (path.find(part) != std::string::npos) return true;
  }
  return false;
}

bool KRExclusionRules::exactRuleMatchedForPath(const std::string& path) const {
  return exact_rules_.contains(path);
}

void KRExclusionRules::loadExclusionRules(Env& env, const std::string& dataFolder) {
  loadRulesAt(env, kSystemRulesPath);
  std::string own = resourcePath(kHelperRulesName);
  if (own.empty()) {
    KRLog("*** The helper's %s was not found among its resources", kHelperRulesName);
  } else {
    loadRulesAt(env, own);
  }
  if (!dataFolder.empty()) addRuleForPathPrefix(dataFolder + "/");
}

void KRExclusionRules::loadRulesAt(Env& env, const std::string& path) {
  PlistReadResult file = readPlistFile(env, path);
  if (file.status == PlistReadStatus::kMissing) return;
  if (file.status != PlistReadStatus::kOk) {
    KRLog("Could not read exclusion rules from %s (%s)", path.c_str(), file.problem.c_str());
    return;
  }
  plist_t root = file.root.get();
  if (plist_get_node_type(root) != PLIST_ARRAY) {
    KRLog("Exclusion rules %s: not an array of rules; none taken", path.c_str());
    return;
  }
  size_t unusable = 0;
  uint32_t count = plist_array_get_size(root);
  for (uint32_t i = 0; i < count; ++i) {
    plist_t rule = plist_array_get_item(root, i);
    if (plist_get_node_type(rule) != PLIST_DICT) {
      ++unusable;
      continue;
    }
    plist_t type = plist_dict_get_item(rule, "RuleType");
    if (!type || plist_get_node_type(type) != PLIST_STRING ||
        std::string(plist_get_string_ptr(type, nullptr)) != "Exclude") {
      continue;
    }
    plist_dict_iter iter = nullptr;
    plist_dict_new_iter(rule, &iter);
    for (;;) {
      char* key = nullptr;
      plist_t value = nullptr;
      plist_dict_next_item(rule, iter, &key, &value);
      if (!key) break;
      std::string name = key;
      free(key);
      if (name == "RuleType") continue;
      // An empty string would match every path.
      std::string text;
      if (plist_get_node_type(value) == PLIST_STRING) text = plist_get_string_ptr(value, nullptr);
      if (text.empty()) {
        ++unusable;
        continue;
      }
      if (name == "PathEndsWithString") {
        addRuleForPathSuffix(text);
      } else if (name == "PathBeginsWithString") {
        addRuleForPathPrefix(text);
      } else if (name == "PathContainsString") {
        addRuleForPathComponent(text);
      } else if (name == "PathExactlyEqualsString") {
        addRuleForPathEqualsTo(text);
      }
    }
    free(iter);
  }
  if (unusable > 0) {
    KRLog("Exclusion rules %s: ignored %zu entries that are not rules or not non-empty strings",
          path.c_str(), unusable);
  }
}

void KRExclusionRules::addRuleForPathSuffix(const std::string& suffix) {
  suffix_rules_.insert(suffix);
}

void KRExclusionRules::addRuleForPathPrefix(const std::string& prefix) {
  prefix_rules_.insert(prefix);
}

void KRExclusionRules::addRuleForPathComponent(const std::string& component) {
  component_rules_.insert(component);
}

void KRExclusionRules::addRuleForPathEqualsTo(const std::string& path) { exact_rules_.insert(path); }

size_t KRExclusionRules::ruleCount() const {
  return suffix_rules_.size() + prefix_rules_.size() + component_rules_.size() +
         exact_rules_.size();
}

}  // namespace zephlore
