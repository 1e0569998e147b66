#include "testing/appending_writer.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

namespace zephlore::testkit {

AppendingWriter::AppendingWriter(const LocalUser& user, const std::string& path) {
  int ready[2], ask[2];
  if (pipe(ready) != 0 || pipe(ask) != 0) return;
  pid_ = fork();
  if (pid_ == 0) {
    close(ready[0]);
    close(ask[1]);
    const int fd = user.become() ? open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC) : -1;
    char c = fd >= 0 ? 'y' : 'n';
    if (write(ready[1], &c, 1) != 1 || fd < 0) _exit(1);
    while (read(ask[0], &c, 1) == 1) {
      const ssize_t n = write(fd, kAppended, strlen(kAppended));
      c = n == static_cast<ssize_t>(strlen(kAppended)) ? 'k' : 'e';
      if (write(ready[1], &c, 1) != 1) _exit(1);
    }
    _exit(0);
  }
  close(ready[1]);
  close(ask[0]);
  answers_ = ready[0];
  ask_ = ask[1];
  char c = 0;
  ready_ = read(answers_, &c, 1) == 1 && c == 'y';
}

AppendingWriter::~AppendingWriter() {
  close(ask_);
  close(answers_);
  if (pid_ > 0) waitpid(pid_, nullptr, 0);
}

bool AppendingWriter::append() {
  char c = 'w';
  return write(ask_, &c, 1) == 1 && read(answers_, &c, 1) == 1 && c == 'k';
}

}  // namespace zephlore::testkit
