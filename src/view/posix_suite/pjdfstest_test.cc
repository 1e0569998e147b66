// pjdfstest, the public POSIX suite, over a view run by root on a tmpfs of
// the test's own: every assertion passes but those listed, each with its
// reason, in allowed_failures.txt beside this file.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "platform/env.h"
#include "platform/fuse_availability.h"
#include "testing/bounded_wait.h"
#include "testing/private_tmpfs.h"
#include "view/mount_table.h"
#include "view/forked_view_for_tests.h"
#include "view/view_mount.h"

namespace zephlore::view {
namespace {

// "chmod/05.t 7" for each failed assertion; "chmod/05.t all" for a test
// file that did not run to its end.
using Failures = std::set<std::string>;

void addAssertions(const std::string& test, const std::string& list, Failures* out) {
  std::istringstream items(std::regex_replace(list, std::regex(","), " "));
  for (std::string item; items >> item;) {
    const size_t dash = item.find('-');
    if (item == "all" || dash == std::string::npos) {
      out->insert(test + " " + item);
      continue;
    }
    for (int n = std::stoi(item.substr(0, dash)); n <= std::stoi(item.substr(dash + 1)); ++n) {
      out->insert(test + " " + std::to_string(n));
    }
  }
}

// The failures in prove's summary report.
Failures failuresIn(const std::string& proveOutput) {
  Failures failures;
  const std::regex testLine(R"(^\S*/tests/(\S+\.t)\s+\(Wstat: (\d+) Tests: \d+ Failed: \d+\))");
  const std::regex failedLine(R"(^  Failed tests?:\s+([0-9, -]+)$)");
  const std::regex moreLine(R"(^\s+([0-9][0-9, -]*)$)");
  const std::regex brokenLine(R"(^  (Parse errors|Non-zero (exit|wait) status):)");
  std::istringstream lines(proveOutput);
  std::string test;
  bool listing = false;
  std::smatch m;
  for (std::string line; std::getline(lines, line);) {
    if (std::regex_search(line, m, testLine)) {
      test = m[1];
      listing = false;
    } else if (!test.empty() && std::regex_search(line, m, failedLine)) {
      addAssertions(test, m[1], &failures);
      listing = true;
    } else if (listing && std::regex_search(line, m, moreLine)) {
      addAssertions(test, m[1], &failures);
    } else if (!test.empty() && std::regex_search(line, m, brokenLine)) {
      failures.insert(test + " all");
      listing = false;
    } else {
      listing = false;
    }
  }
  return failures;
}

Failures allowedFailures() {
  Failures allowed;
  std::ifstream file(PJDFSTEST_ALLOWED_FAILURES);
  for (std::string line; std::getline(file, line);) {
    std::istringstream fields(line);
    std::string test, assertions;
    if (!(fields >> test) || test[0] == '#') continue;
    // The numbers run up to the reason.
    for (std::string word; fields >> word && (word == "all" || word.find_first_not_of("0123456789,-") == std::string::npos);) {
      assertions += " " + word;
    }
    addAssertions(test, assertions, &allowed);
  }
  return allowed;
}

std::string listed(const Failures& failures) {
  std::string out;
  for (const std::string& f : failures) out += "  " + f + "\n";
  return out;
}

TEST(PosixSuiteHeavy, PjdfstestPassesOverAViewButForTheListedAssertions) {
  if (std::string(PJDFSTEST_MISSING) != "") GTEST_SKIP() << PJDFSTEST_MISSING;
  if (geteuid() != 0) GTEST_SKIP() << "pjdfstest runs as root (it acts as other users and mounts a view)";
  if (!fuseUsable()) GTEST_SKIP() << "/dev/fuse is missing or not usable: a view cannot be mounted here";
  if (system("command -v prove >/dev/null") != 0) GTEST_SKIP() << "prove (perl) is missing";
  testkit::PrivateTmpfs tmpfs;
  if (!tmpfs.mounted()) GTEST_SKIP() << "cannot mount a tmpfs";
  const std::string source = tmpfs / "source", shown = tmpfs / "view";
  ASSERT_EQ(mkdir(source.c_str(), 0755), 0);
  ASSERT_EQ(mkdir(shown.c_str(), 0755), 0);
  // As on the tmpfs beneath: the suite makes devices and set-user-ID files.
  ForkedView view(Env::system(), source, shown, {"dev", "suid"});
  ASSERT_TRUE(view.mounted());

  // The suite's files mostly wait out timestamps' granularity: run side by
  // side they take a minute or two instead of four.
  const std::string command = "cd '" + shown + "' && prove -r -j8 '" PJDFSTEST_DIR "/tests' 2>&1";
  FILE* prove = popen(command.c_str(), "r");
  ASSERT_NE(prove, nullptr);
  std::string output;
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, prove)) > 0;) output.append(buf, n);
  pclose(prove);
  ASSERT_NE(output.find("Files="), std::string::npos) << output;

  const Failures failures = failuresIn(output);
  const Failures allowed = allowedFailures();
  Failures unexpected, fixed;
  for (const std::string& f : failures) {
    if (!allowed.count(f) && !allowed.count(f.substr(0, f.find(' ')) + " all")) unexpected.insert(f);
  }
  for (const std::string& f : allowed) {
    if (!failures.count(f)) fixed.insert(f);
  }
  EXPECT_TRUE(unexpected.empty()) << "assertions failing over the view (test file and number):\n"
                                  << listed(unexpected) << "prove said:\n"
                                  << output.substr(output.find("Test Summary Report") == std::string::npos
                                                       ? 0
                                                       : output.find("Test Summary Report"));
  if (!fixed.empty()) std::cout << "now passing, to take off allowed_failures.txt:\n" << listed(fixed);
}

}  // namespace
}  // namespace zephlore::view
