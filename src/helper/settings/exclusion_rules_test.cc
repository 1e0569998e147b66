#include "helper/settings/exclusion_rules.h"

#include <gtest/gtest.h>

#include "base/log.h"
#include "testing/files.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using testkit::TestHome;
using testkit::writeFile;

std::string rule(const std::string& type, const std::string& key, const std::string& value) {
  return "<dict><key>RuleType</key><string>" + type + "</string><key>" + key + "</key><string>" +
         value + "</string></dict>";
}

TEST(ExclusionRulesTest, ReadsOnlyExcludeRulesIntoTheirSetsAndMatchesLiterally) {
  TestHome home;
  std::string path = home.root() + "/rules.plist";
  writeFile(path, "<plist version=\"1.0\"><array>" +
                      rule("Exclude", "PathEndsWithString", ".dmg") +
                      rule("Exclude", "PathBeginsWithString", "/private/") +
                      rule("Exclude", "PathContainsString", "/.Spotlight") +
                      rule("Exclude", "PathExactlyEqualsString", "/swapfile") +
                      rule("Include", "PathEndsWithString", ".txt") +  // not "Exclude"
                      rule("Exclude", "SomethingElse", "/x") +         // unknown key
                      rule("Exclude", "PathEndsWithString", "") +      // would match all
                      "<string>not a rule</string>" + "</array></plist>");
  KRExclusionRules rules;
  std::vector<std::string> lines;
  {
    ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
    rules.loadRulesAt(Env::system(), path);
    rules.loadRulesAt(Env::system(), path);  // duplicates collapse
  }
  EXPECT_EQ(rules.ruleCount(), 4u);
  EXPECT_EQ(lines.size(), 2u);  // one per load of a file with unusable entries

  EXPECT_TRUE(rules.suffixRuleMatchedForPath("/a/b.dmg"));
  EXPECT_FALSE(rules.suffixRuleMatchedForPath("/a/b.DMG"));  // case-sensitive
  EXPECT_TRUE(rules.prefixRuleMatchedForPath("/private/var/x"));
  EXPECT_FALSE(rules.prefixRuleMatchedForPath("/home/private/x"));
  EXPECT_TRUE(rules.componentRuleMatchedForPath("/Volumes/x/.Spotlight-V100/store"));
  EXPECT_TRUE(rules.exactRuleMatchedForPath("/swapfile"));
  EXPECT_FALSE(rules.exactRuleMatchedForPath("/swapfile2"));
  EXPECT_FALSE(rules.mustExcludePath("/home/u/notes.txt"));
  EXPECT_FALSE(rules.mustExcludePath("/x"));
  for (const char* excluded : {"/a/b.dmg", "/private/a", "/a/.Spotlight", "/swapfile"}) {
    EXPECT_TRUE(rules.mustExcludePath(excluded)) << excluded;
  }
}

TEST(ExclusionRulesTest, MissingAndBadRuleFilesAddNothing) {
  TestHome home;
  KRExclusionRules rules;
  std::string path = home.root() + "/rules.plist";
  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
  rules.loadRulesAt(Env::system(), home.root() + "/absent.plist");
  EXPECT_EQ(lines.size(), 0u);
  for (const std::string& bytes :
       {std::string("\x89PNG\r\n\x1a\n garbage"), std::string(""),
        std::string("<plist><dict><key>RuleType</key><string>Exclude</string></dict></plist>")}) {
    lines.clear();
    writeFile(path, bytes);
    rules.loadRulesAt(Env::system(), path);
    EXPECT_EQ(lines.size(), 1u) << bytes;
  }
  EXPECT_EQ(rules.ruleCount(), 0u);
  EXPECT_FALSE(rules.mustExcludePath("/anything/at/all.jpg"));
}

TEST(ExclusionRulesTest, TheShippedRulesKeepProgramDataAndCompressedFormatsPlain) {
  TestHome home;
  KRExclusionRules rules;
  rules.loadExclusionRules(Env::system(), home.dataFolder());
  EXPECT_GT(rules.ruleCount(), 100u);
  for (const std::string& path : std::vector<std::string>{
           "/usr/lib/libz.so.1", "/etc/fstab", "/var/lib/dpkg/status",
           "/home/u/.config/app/settings.ini", "/home/u/.bashrc",
           "/home/u/src/proj/.git/objects/ab/cdef", "/home/u/src/proj/.hg/store/data",
           "/home/u/.local/share/Trash/files/old.txt", "/media/usb/.Trash-1000/files/x",
           "/home/u/src/app/node_modules/left-pad/index.js", "/home/u/src/x/__pycache__/m.pyc",
           "/home/u/app/data.sqlite", "/home/u/app/data.sqlite-wal", "/home/u/app/x.db-journal",
           "/home/u/Pictures/IMG_0001.JPG", "/home/u/Pictures/a.png", "/home/u/Music/s.flac",
           "/home/u/Videos/v.mkv", "/home/u/Downloads/a.tar.gz", "/home/u/Downloads/b.zip",
           "/home/u/fonts/f.woff2", "/home/u/vm/disk.qcow2", "/swapfile",
           home.dataFolder() + "/history.db", home.dataFolder() + "/inprocess.kr"}) {
    EXPECT_TRUE(rules.mustExcludePath(path)) << path;
  }
  for (const char* path :
       {"/home/u/Documents/report.txt", "/home/u/src/proj/main.cc", "/home/u/logs/server.log",
        "/tmp/zephlore-work/data.csv", "/home/u/Documents/My.Notes/draft.md",
        "/srvdata/x.txt"}) {
    EXPECT_FALSE(rules.mustExcludePath(path)) << path;
  }
}

}  // namespace
}  // namespace zephlore
