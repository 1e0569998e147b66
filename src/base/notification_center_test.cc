#include "base/notification_center.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace zephlore {
namespace {

TEST(NotificationCenter, DeliversByNameAndSenderWithUserInfo) {
  NotificationCenter center;
  int compressor = 0, other = 0;
  std::vector<std::string> got;
  center.addObserver("KRFileCompressedNotification", &compressor, [&](const Notification& n) {
    const std::string* path = userInfoString(n.userInfo, "path");
    const int64_t* code = userInfoNumber(n.userInfo, "errorCode");
    got.push_back("from-compressor " + (path ? *path : "?") +
                  (code ? " " + std::to_string(*code) : ""));
    EXPECT_EQ(userInfoNumber(n.userInfo, "path"), nullptr);  // wrong type: none
  });
  center.addObserver("KRFileCompressedNotification", nullptr,
                     [&](const Notification&) { got.push_back("any-sender"); });
  center.addObserver("", nullptr, [&](const Notification& n) { got.push_back("all:" + n.name); });

  center.post("KRFileCompressedNotification", &compressor, {{"path", std::string("/a")}});
  center.post("KRFileCompressedNotification", &other,
              {{"path", std::string("/b")}, {"errorCode", int64_t{8000}}});
  center.post("analysisStarted");
  EXPECT_EQ(got, (std::vector<std::string>{
                     "from-compressor /a", "any-sender", "all:KRFileCompressedNotification",
                     "any-sender", "all:KRFileCompressedNotification", "all:analysisStarted"}));
}

TEST(NotificationCenter, ObserversChangedDuringAPost) {
  NotificationCenter center;
  std::vector<std::string> got;
  NotificationCenter::ObserverId self = 0, later = 0;
  self = center.addObserver("n", nullptr, [&](const Notification&) {
    got.push_back("self");
    center.removeObserver(self);   // stops observing from its own handler
    center.removeObserver(later);  // its owner is going: it must not be called
    center.addObserver("n", nullptr, [&](const Notification&) { got.push_back("added"); });
  });
  later = center.addObserver("n", nullptr, [&](const Notification&) { got.push_back("later"); });
  center.post("n");
  EXPECT_EQ(got, std::vector<std::string>{"self"});  // added ones wait for the next post
  center.post("n");
  EXPECT_EQ(got, (std::vector<std::string>{"self", "added"}));
}

TEST(NotificationCenter, PostsFromManyThreadsWhileObserversComeAndGo) {
  NotificationCenter center;
  std::atomic<int> delivered{0};
  center.addObserver("compressionEnded", nullptr, [&](const Notification&) { ++delivered; });
  std::atomic<bool> done{false};
  std::thread churn([&] {
    while (!done) {
      auto id = center.addObserver("compressionEnded", nullptr, [](const Notification&) {});
      center.removeObserver(id);
    }
  });
  std::vector<std::thread> posters;
  for (int t = 0; t < 4; ++t) {
    posters.emplace_back([&] {
      for (int i = 0; i < 500; ++i) center.post("compressionEnded");
    });
  }
  for (auto& t : posters) t.join();
  done = true;
  churn.join();
  EXPECT_EQ(delivered, 2000);
}

}  // namespace
}  // namespace zephlore
