#include "metadata/QVLManifest.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>
#include <limits>
#include <memory>
#include <thread>

#include "base/QVLLog.h"
#include "metadata/FolderSizesReadAhead.h"
#include "metadata/OrderedWorkPool.h"
#include "metadata/QVLAttributeDictionary.h"
#include "metadata/QVLFileDigest.h"
#include "metadata/TreeEnumerator.h"
#include "platform/fs/FileSystem.h"
#include "plist/PlistBinaryDictionaryWriter.h"

namespace qvl {
namespace {

using platform::ItemStat;
using platform::ItemType;

constexpr const char* kWalkSignature =
    "-[QVLManifest enumerateAndCollectMetaData:relativeTo:skip:superSet:handler:]";
constexpr const char* kTotalSignature = "-[QVLManifest calculateTotalFileSize:skipPaths:]";
constexpr const char* kRegularFileFlag = "NSURLIsRegularFileKey";
constexpr std::string_view kPrivatePrefix = "/private";

// Collapses runs of "/" and drops a trailing one, as a path component
// append does; "/" stays "/".
std::string standardizedPath(std::string_view path) {
    std::string result;
    result.reserve(path.size());
    for (char c : path) {
        if (c == '/' && !result.empty() && result.back() == '/') continue;
        result.push_back(c);
    }
    if (result.size() > 1 && result.back() == '/') result.pop_back();
    return result;
}

std::string appendingPathComponent(std::string_view folder, std::string_view component) {
    std::string joined(folder);
    joined.push_back('/');
    joined.append(component);
    return standardizedPath(joined);
}

std::string removingOccurrences(std::string_view text, std::string_view pattern) {
    std::string result;
    size_t pos = 0;
    for (size_t hit; (hit = text.find(pattern, pos)) != std::string_view::npos; pos = hit + pattern.size()) {
        result.append(text.substr(pos, hit - pos));
    }
    result.append(text.substr(pos));
    return result;
}

// Fetching ahead costs the walking thread an open and a call per file, which
// a walk of files already in memory does not need: a walk fetches ahead once
// kDiskReadsToFetch files had their content waited for with fewer than
// kCloseItems files between any two of them, and stops after kQuietItems
// files without one. A cold tree waits for nearly every file. A warm one
// still has a read that would wait now and then (a page the kernel holds
// for a moment, a few files it dropped), tens to hundreds in 50,000 files,
// some in bursts of a few files: eight close together came in most warm
// walks, sixteen in none.
constexpr size_t kDiskReadsToFetch = 16;
constexpr size_t kCloseItems = 64;
constexpr size_t kQuietItems = 4096;

// Items whose records collectors may be reading ahead of the walk. Each may
// keep its folder open after the walk has left it, so that the collectors
// need not be waited for at the end of every folder: at most this many
// folders more are open.
constexpr size_t kCollectDepth = 64;

bool isRecordedKind(ItemType type) {
    return type == ItemType::kRegular || type == ItemType::kDirectory || type == ItemType::kSymbolicLink;
}

int64_t recordedSize(const QVLFileMetadata& metadata) {
    const plist::Dictionary* attributes = metadata.getFileAttributes();
    const plist::Value* size = attributes ? attributes->find(kNSFileSize) : nullptr;
    return size ? size->integerValue().value_or(0) : 0;
}

}  // namespace

unsigned QVLManifest::WalkOptions::machineCollectors() {
    // The walking thread runs collecting jobs itself whenever it would wait
    // for one: it takes the last processor.
    return std::clamp(std::thread::hardware_concurrency(), 2u, 5u) - 1;
}

QVLManifest::QVLManifest(platform::FileSystem& files, const plist::Dictionary* dict) : files_(files) {
    if (dict) setDict(*dict);
}

std::optional<QVLFileMetadata> QVLManifest::metadataForFile(const std::string& key) const {
    std::lock_guard<std::mutex> guard(lock_);
    const plist::Dictionary* record = dict_.getDictionary(key);
    if (!record) return std::nullopt;
    return QVLFileMetadata(*record);
}

void QVLManifest::setMetadata(const QVLFileMetadata& metadata, const std::string& file) {
    setMetadata(QVLFileMetadata(metadata.dict()), file);
}

void QVLManifest::setMetadata(QVLFileMetadata&& metadata, const std::string& file) {
    plist::Dictionary record = std::move(metadata).releaseDict();
    std::lock_guard<std::mutex> guard(lock_);
    dict_.set(file, std::move(record));
}

bool QVLManifest::folderContains(const std::vector<std::string>* folders, std::string_view path) {
    if (!folders) return false;
    for (const std::string& folder : *folders) {
        // An empty folder is found nowhere, so it holds nothing.
        if (folder.empty() || path.find(folder) != 0) continue;
        if (folder.size() == path.size()) return true;
        if (appendingPathComponent(folder, path.substr(folder.size())) == path) return true;
    }
    return false;
}

bool QVLManifest::pathInSuperSet(std::string_view path, const PathSet* superSet) {
    if (!superSet) return false;
    if (path.starts_with(kPrivatePrefix)) path.remove_prefix(kPrivatePrefix.size());
    return superSet->find(std::string(path)) != superSet->end();
}

std::optional<std::string> QVLManifest::keyForPath(std::string_view path, std::string_view root) {
    // Removing every "/" would leave no key at all: relative to "/", an
    // item's key is its path.
    if (root == "/") return std::string(path);
    const size_t first = root.empty() ? std::string_view::npos : path.find(root);
    if (first == std::string_view::npos) return std::nullopt;
    std::string key = first == 0 ? removingOccurrences(path, root)
                                 : removingOccurrences(path.substr(first + root.size()), root);
    if (key.empty()) key.push_back('/');
    return key;
}

bool QVLManifest::addFilesFromPath(const std::string& path, const std::string& root,
                                   const std::vector<std::string>* skip, const PathSet* superSet) {
    return enumerateAndCollectMetaData(path, root, skip, superSet,
                                       [this](QVLFileMetadata& metadata, const std::string& key) {
                                           setMetadata(std::move(metadata), key);
                                           return true;
                                       });
}

bool QVLManifest::enumerateAndCollectMetaData(const std::string& path, const std::string& root,
                                              const std::vector<std::string>* skip, const PathSet* superSet,
                                              const Handler& handler) {
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (rootPath_) return false;
        rootPath_ = root;
    }
    const std::string top = standardizedPath(path);
    const std::string base = standardizedPath(root);
    QVLProgressUpdater* updater = progressUpdater();
    const int64_t total = calculateTotalFileSize(top, skip);
    if (updater) updater->initializePercentageWithTotal(total);

    // Records reach the handler in the order of the walk, on this thread;
    // with collectors, up to kCollectDepth items are read ahead by them.
    struct Waiting {
        std::string key;
        std::string path;
    };
    std::deque<Waiting> waiting;
    // Files whose content had to be waited for; collectors count them (see
    // kQuietItems).
    std::atomic<uint64_t> diskReads{0};
    uint64_t diskReadsSeen = 0, diskReadsInRun = 0;
    size_t quietItems = kQuietItems;
    std::optional<OrderedWorkPool<std::optional<QVLFileMetadata>>> pool;
    if (options_.collectors > 0) pool.emplace(options_.collectors, kCollectDepth);
    auto deliver = [&](std::optional<QVLFileMetadata> metadata, const std::string& key,
                       const std::string& item) {
        if (!metadata) {
            QVLLog("Couldn't get meta data for %@", item);
            // An item removed while the walk runs is no longer part of the
            // tree: go on without it. Any other failure would leave a hole in
            // a manifest reported as complete, so the walk ends with false.
            return !TreeEnumerator::itemType(files_, item) && errno == ENOENT;
        }
        const int64_t size = updater ? recordedSize(*metadata) : 0;
        if (!handler(*metadata, key)) {
            QVLLog("Couldn't run handler against %@", item);
            return false;
        }
        if (updater) addProgress(updater, size);
        return true;
    };
    auto deliverOldest = [&] {
        const Waiting oldest = std::move(waiting.front());
        waiting.pop_front();
        return deliver(pool->takeOldest(), oldest.key, oldest.path);
    };
    // Hands over every record read ahead. A walk that ends at an item first
    // does this, so that what came before the item is logged and handed over
    // as it would be without collectors.
    auto drain = [&] {
        while (pool && pool->pending() > 0) {
            if (!deliverOldest()) {
                pool->stop();
                return false;
            }
        }
        return true;
    };
    auto collect = [this, &diskReads](int folderFd, const std::string& name, ItemType type,
                                      const std::string& item, UniqueFd opened) {
        bool fromDisk = false;
        std::optional<QVLFileMetadata> metadata = QVLFileMetadata::fileMetadataInFolder(
            folderFd, name, type, item, files_, std::move(opened), &fromDisk);
        if (fromDisk) diskReads.fetch_add(1, std::memory_order_relaxed);
        return metadata;
    };

    auto handleItem = [&](const WalkItem& walked) {
        const std::string& item = walked.path;
        const std::optional<ItemType>& type = walked.type;
        if (folderContains(skip, item)) return true;
        if (superSet && !pathInSuperSet(item, superSet)) {
            if (updater) addProgress(updater, fileSizeToAdjustPercentage(item));
            return true;
        }
        if (!type) {
            if (drain()) QVLLog("Could not get resource for key %@", kRegularFileFlag);
            return false;
        }
        if (!isRecordedKind(*type)) {
            QVLLog("%@ is special file. Leave it along", item);
            return true;
        }
        // An item outside the root has no key; a manifest with a made-up one
        // would be wrong, so the walk ends.
        const std::optional<std::string> key = keyForPath(item, base);
        if (!key) {
            if (drain()) QVLLog("%@ is not below the root %@; it has no key", item, base);
            return false;
        }
        UniqueFd opened = walked.opened ? std::move(*walked.opened) : UniqueFd();
        if (!pool)
            return deliver(collect(walked.folderFd, walked.name, *type, item, std::move(opened)), *key, item);
        if (pool->full() && !deliverOldest()) return false;
        // The job holds the folder open: the walk may leave it first.
        pool->submit([&collect, folder = walked.folder ? *walked.folder : SharedFolder(),
                      folderFd = walked.folderFd, name = walked.name, type = *type, item,
                      fd = opened.valid() ? std::make_shared<UniqueFd>(std::move(opened))
                                          : std::shared_ptr<UniqueFd>()] {
            return collect(folderFd, name, type, item, fd ? std::move(*fd) : UniqueFd());
        });
        waiting.push_back({std::move(*key), item});
        return true;
    };
    auto walk = [&](const WalkItem& walked) {
        if (handleItem(walked)) return true;
        if (pool) pool->stop();  // what the collectors still read is not needed
        return false;
    };
    auto fetchingAhead = [&] {
        const uint64_t seen = diskReads.load(std::memory_order_relaxed);
        const bool fetching = diskReadsInRun >= kDiskReadsToFetch;
        if (quietItems >= (fetching ? kQuietItems : kCloseItems)) diskReadsInRun = 0;
        if (seen != diskReadsSeen) {
            diskReadsInRun += seen - diskReadsSeen;
            diskReadsSeen = seen;
            quietItems = 0;
        }
        ++quietItems;
        return diskReadsInRun >= kDiskReadsToFetch && quietItems <= kQuietItems;
    };
    // Only files the walk will read are fetched ahead: a superset may leave
    // most of a tree out, and fetching those would flood the cache.
    auto prefetch = [&](int folderFd, const std::string& folder, const std::string& name, bool mayKeepOpen) {
        if (!fetchingAhead()) return UniqueFd();
        const std::string path = TreeEnumerator::childPath(folder, name);
        if (folderContains(skip, path) || (superSet && !pathInSuperSet(path, superSet))) return UniqueFd();
        constexpr auto kLength = static_cast<off_t>(kQVLFileHashPieceSize);
        if (mayKeepOpen) return files_.openAndPrefetchAt(folderFd, name, kLength);
        if (folderFd >= 0) {
            files_.prefetchAt(folderFd, name, kLength);
        } else {
            files_.prefetch(path, kLength);
        }
        return UniqueFd();
    };
    if (!TreeEnumerator::enumerate(files_, top, skip, kWalkSignature, walk, prefetch)) return false;
    return walk(WalkItem{-1, nullptr, top, top, TreeEnumerator::itemType(files_, top)}) && drain();
}

bool QVLManifest::addRecordsTo(plist::BinaryDictionaryWriter& out, const std::string& path,
                               const std::string& root, const std::vector<std::string>* skip,
                               const PathSet* superSet) {
    const bool walked = enumerateAndCollectMetaData(
        path, root, skip, superSet,
        [&out](QVLFileMetadata& metadata, const std::string& key) { return out.add(key, metadata.dict()); });
    return walked || out.error() != 0;
}

int64_t QVLManifest::calculateTotalFileSize(const std::string& path,
                                            const std::vector<std::string>* skipPaths) const {
    int64_t total = 0;
    std::optional<FolderSizesReadAhead> sizes;
    if (options_.collectors > 0) sizes.emplace(files_, options_.collectors);
    const bool complete = TreeEnumerator::enumerate(
        files_, standardizedPath(path), skipPaths, kTotalSignature,
        [&](const WalkItem& item) {
            if (!item.type) {
                QVLLog("Could not get resource for key %@", kRegularFileFlag);
                return false;
            }
            if (*item.type != ItemType::kRegular) return true;
            ItemType type;
            uint64_t bytes = 0;
            ItemStat st;
            const int rc = item.folderFd < 0 ? files_.statItem(item.path, &st)
                           : sizes ? sizes->sizeOf(*item.folder, item.depth, item.serial, *item.entries,
                                                   item.index, &bytes)
                                   : files_.typeAndSizeAt(item.folderFd, item.name, &type, &bytes);
            if (rc != 0) {
                QVLLog("Cound not get attribute for item %@", item.path);
                return false;
            }
            if (item.folderFd < 0) bytes = st.size;
            const auto size =
                static_cast<int64_t>(std::min<uint64_t>(bytes, std::numeric_limits<int64_t>::max()));
            total = size > std::numeric_limits<int64_t>::max() - total ? std::numeric_limits<int64_t>::max()
                                                                       : total + size;
            return true;
        },
        [](int, const std::string&, const std::string&, bool) { return UniqueFd(); });
    return complete ? total : 0;
}

int64_t QVLManifest::fileSizeToAdjustPercentage(const std::string& path) const {
    ItemStat st;
    if (files_.statItem(path, &st) != 0) return 0;
    return static_cast<int64_t>(std::min<uint64_t>(st.size, std::numeric_limits<int64_t>::max()));
}

void QVLManifest::addProgress(QVLProgressUpdater* updater, int64_t increment) {
    updater->updatePercentageWithIncrement(increment);
}

QVLManifest::PathSet QVLManifest::pathSet() const {
    std::lock_guard<std::mutex> guard(lock_);
    PathSet keys;
    keys.reserve(dict_.size());
    for (const auto& entry : dict_) keys.insert(entry.first);
    return keys;
}

std::optional<std::string> QVLManifest::rootPath() const {
    std::lock_guard<std::mutex> guard(lock_);
    return rootPath_;
}

void QVLManifest::setRootPath(std::string rootPath) {
    std::lock_guard<std::mutex> guard(lock_);
    rootPath_ = std::move(rootPath);
}

plist::Dictionary QVLManifest::dict() const {
    std::lock_guard<std::mutex> guard(lock_);
    return dict_;
}

void QVLManifest::setDict(plist::Dictionary dict) {
    std::lock_guard<std::mutex> guard(lock_);
    dict_ = std::move(dict);
}

plist::Dictionary QVLManifest::releaseDict() {
    std::lock_guard<std::mutex> guard(lock_);
    return std::exchange(dict_, plist::Dictionary());
}

QVLProgressUpdater* QVLManifest::progressUpdater() const {
    std::lock_guard<std::mutex> guard(lock_);
    return progressUpdater_;
}

void QVLManifest::setProgressUpdater(QVLProgressUpdater* progressUpdater) {
    std::lock_guard<std::mutex> guard(lock_);
    progressUpdater_ = progressUpdater;
}

}  // namespace qvl
