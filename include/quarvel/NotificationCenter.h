#pragma once
/// @file
/// A process-wide list of observers, each called when a notification with
/// its name (and, if it asked, its object) is posted.
///
/// Observers run on the thread that posts, one after the other, in the order
/// they were added. The centre is safe to use from any thread, and an
/// observer may add or remove observers while it runs. remove() does not wait
/// for a call already running on another thread.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace quarvel {

struct Notification {
  std::string name;
  /// The object that posted, as given to post(); its type depends on the
  /// notification (a Reachability* for kReachabilityChangedNotification).
  void* object = nullptr;
};

class NotificationCenter {
 public:
  using Observer = std::function<void(const Notification&)>;
  /// Identifies one added observer; never 0.
  using Token = std::uint64_t;

  /// The process's centre: made on first use, lives until the process ends.
  static NotificationCenter& defaultCenter();

  NotificationCenter() = default;
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  /// Calls `observer` for every notification named `name` (every name when
  /// empty) posted with `object` (any object when null).
  Token add(std::string name, void* object, Observer observer);
  /// Forgets the observer; an unknown token is ignored.
  void remove(Token token);
  /// Calls, on this thread, every observer whose name and object match. An
  /// exception thrown by an observer reaches the caller of post and skips
  /// the observers after it.
  void post(const std::string& name, void* object);

 private:
  struct Entry {
    Token token;
    std::string name;
    void* object;
    std::shared_ptr<Observer> observer;
  };
  std::mutex mutex_;
  std::vector<Entry> entries_;  ///< guarded by mutex_
  Token lastToken_ = 0;         ///< guarded by mutex_
};

}  // namespace quarvel
