#include "platform/notify/QVLNotificationCenter.h"

#include <algorithm>

namespace qvl::platform {

QVLNotificationCenter& QVLNotificationCenter::sharedInstance() {
    static QVLNotificationCenter center;
    return center;
}

QVLNotificationCenter::Token QVLNotificationCenter::addObserver(std::string name, Observer observer) {
    if (!observer) return 0;
    std::lock_guard guard(lock_);
    const Token token = nextToken_++;
    entries_.push_back({token, std::move(name), std::make_shared<Observer>(std::move(observer))});
    return token;
}

void QVLNotificationCenter::removeObserver(Token token) {
    std::lock_guard guard(lock_);
    std::erase_if(entries_, [token](const Entry& e) { return e.token == token; });
}

void QVLNotificationCenter::post(std::string_view name, std::shared_ptr<const plist::Dictionary> userInfo) {
    // Observers run outside the lock: take shared references to them first.
    std::vector<std::shared_ptr<Observer>> toCall;
    {
        std::lock_guard guard(lock_);
        for (const Entry& e : entries_) {
            if (e.name == name) toCall.push_back(e.observer);
        }
    }
    const QVLNotification notification{std::string(name), std::move(userInfo)};
    for (const auto& observer : toCall) (*observer)(notification);
}

size_t QVLNotificationCenter::observerCount() const {
    std::lock_guard guard(lock_);
    return entries_.size();
}

}  // namespace qvl::platform
