// The files this process is rewriting right now. Where the kernel does not
// say which process caused an event (inotify), the event stream drops the
// events on these files and on their temporary copies beside them instead.
// The helper keeps one, shared by its compressor and its event stream.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace zephlore {

class OwnRewrites {
 public:
  void begin(const std::string& path);
  // The kernel queued the rewrite's events before this returns; the entry
  // stays until the stream has read past them (forgetEndedBefore).
  void end(const std::string& path);

  // Ours: the file itself, or a temporary copy (".zephlore-...") beside one.
  bool covers(const std::string& directory, const std::string& name) const;

  // Read passes bracket themselves with these: entries that ended before a
  // pass began are forgotten after it.
  uint64_t passBegins();
  void forgetEndedBefore(uint64_t pass);

 private:
  struct State {
    int active = 0;
    uint64_t ended = 0;  // the sequence number of the last end, 0 while active
  };
  mutable std::mutex mutex_;
  std::map<std::string, State> paths_;
  uint64_t sequence_ = 1;
};

}  // namespace zephlore
