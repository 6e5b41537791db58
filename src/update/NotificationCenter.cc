#include "quarvel/NotificationCenter.h"

#include <algorithm>

namespace quarvel {

NotificationCenter& NotificationCenter::defaultCenter() {
  static NotificationCenter center;
  return center;
}

NotificationCenter::Token NotificationCenter::add(std::string name, void* object,
                                                  Observer observer) {
  std::lock_guard lock(mutex_);
  Token token = ++lastToken_;
  entries_.push_back(
      {token, std::move(name), object, std::make_shared<Observer>(std::move(observer))});
  return token;
}

void NotificationCenter::remove(Token token) {
  std::lock_guard lock(mutex_);
  std::erase_if(entries_, [&](const Entry& e) { return e.token == token; });
}

void NotificationCenter::post(const std::string& name, void* object) {
  // Observers run outside the lock, so that they may add or remove observers
  // or post in turn; those added now see only later posts.
  std::vector<std::pair<Token, std::shared_ptr<Observer>>> matching;
  {
    std::lock_guard lock(mutex_);
    for (const auto& e : entries_)
      if ((e.name.empty() || e.name == name) && (!e.object || e.object == object))
        matching.emplace_back(e.token, e.observer);
  }
  Notification notification{name, object};
  for (const auto& match : matching) {
    Token token = match.first;
    {
      // One removed by an earlier observer of this same post is skipped.
      std::lock_guard lock(mutex_);
      if (std::none_of(entries_.begin(), entries_.end(),
                       [&](const Entry& e) { return e.token == token; }))
        continue;
    }
    (*match.second)(notification);
  }
}

}  // namespace quarvel
