// Another user's program holding a file open for appending, as a logger
// does: it opens the file once, as that user, and writes one line through
// that descriptor each time it is asked to.
#pragma once

#include <sys/types.h>

#include <string>

#include "testing/local_user.h"

namespace zephlore::testkit {

inline constexpr const char* kAppended = "a line the other user's logger wrote\n";

class AppendingWriter {
 public:
  AppendingWriter(const LocalUser& user, const std::string& path);
  ~AppendingWriter();
  AppendingWriter(const AppendingWriter&) = delete;
  AppendingWriter& operator=(const AppendingWriter&) = delete;

  // Whether it has the file open.
  bool ready() const { return ready_; }
  // Writes kAppended once; true when the whole line was written.
  bool append();

 private:
  pid_t pid_ = -1;
  int ask_ = -1, answers_ = -1;
  bool ready_ = false;
};

}  // namespace zephlore::testkit
