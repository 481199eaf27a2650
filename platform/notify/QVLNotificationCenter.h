// QVLNotificationCenter: the process's own notification center. Observers
// register for a notification name and are called synchronously, on the
// posting thread, with the notification's name and user information.
//
// Thread-safety: every method may be called from any thread. Observers are
// called outside the center's lock, so an observer may post or register
// further observers; one registered during a post is first called by the next
// post.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "plist/PlistValue.h"

namespace qvl::platform {

struct QVLNotification {
    std::string name;
    // The user information; null when the poster gave none.
    std::shared_ptr<const plist::Dictionary> userInfo;
};

class QVLNotificationCenter {
  public:
    using Observer = std::function<void(const QVLNotification&)>;
    using Token = uint64_t;

    // The center of the process.
    static QVLNotificationCenter& sharedInstance();

    QVLNotificationCenter() = default;
    QVLNotificationCenter(const QVLNotificationCenter&) = delete;
    QVLNotificationCenter& operator=(const QVLNotificationCenter&) = delete;

    // Adds an observer of `name` (from any sender); returns a token for
    // removeObserver. An empty observer is ignored and gets token 0.
    Token addObserver(std::string name, Observer observer);
    // Removes the observer; an unknown token is ignored.
    void removeObserver(Token token);
    // Calls every observer of `name`, in the order they were added.
    void post(std::string_view name, std::shared_ptr<const plist::Dictionary> userInfo = nullptr);

    size_t observerCount() const;

  private:
    struct Entry {
        Token token;
        std::string name;
        std::shared_ptr<Observer> observer;
    };
    mutable std::mutex lock_;
    std::vector<Entry> entries_;
    Token nextToken_ = 1;
};

}  // namespace qvl::platform
