// A local user of the system for one test: created on construction with
// useradd (no home, a group of its own), deleted with userdel at the end.
// Tests that need two people on one machine (a writer of another user, a
// file swapped in by someone else) act as it in forked children. Creating
// users needs root: tests skip when created() is false.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

namespace zephlore::testkit {

class LocalUser {
 public:
  LocalUser();
  ~LocalUser();
  LocalUser(const LocalUser&) = delete;
  LocalUser& operator=(const LocalUser&) = delete;

  bool created() const { return created_; }
  // What went wrong when it was not created.
  const std::string& problem() const { return problem_; }
  const std::string& name() const { return name_; }
  uid_t uid() const { return uid_; }
  gid_t gid() const { return gid_; }

  // In a forked child only: drops every privilege and becomes this user
  // (its group alone, no supplementary groups).
  bool become() const;
  // Runs `fn` as this user in a forked child and returns what it returned;
  // none when the child could not become the user or died.
  std::optional<std::string> run(const std::function<std::string()>& fn) const;

 private:
  std::string name_;
  uid_t uid_ = static_cast<uid_t>(-1);
  gid_t gid_ = static_cast<gid_t>(-1);
  bool created_ = false;
  std::string problem_;
};

}  // namespace zephlore::testkit
