// QVLManifest: a directory manifest, mapping every item of a tree, by its path
// relative to a root, to its metadata record (QVLFileMetadata). A manifest is
// filled by one walk of a tree on disk, or wraps a manifest read from a file.
//
// Keys begin with "/" and are relative to `rootPath`; the root itself is "/".
// A walk can skip whole folders, can keep only the paths of a superset, and
// feeds an attached QVLProgressUpdater with the bytes it has covered. The
// file form of a manifest is `dict` itself: a property-list dictionary from
// key to record, with no header.
//
// A manifest reaches the tree through the FileSystem it is made with.
//
// Memory: the walk holds one record at a time (up to 64 with collectors,
// which may keep as many folders open after the walk has left them) plus the
// listings of the folders on the way down to the current item and a few
// files opened ahead; only the manifest grows with the tree, and not
// even that when the handler writes each record away (as the device manifest
// and qvlmanifest scan do).
//
// Thread-safety: each property is read and written under the object's lock;
// a walk is driven by one thread, and its handler runs on that thread (the
// collectors of WalkOptions only read items).
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "base/QVLProgressUpdater.h"
#include "metadata/QVLFileMetadata.h"
#include "plist/PlistValue.h"

namespace qvl {

namespace platform {
class FileSystem;
}
namespace plist {
class BinaryDictionaryWriter;
}

class QVLManifest {
  public:
    // Called with each collected record and its key; false stops the walk.
    // The record is the handler's to keep (it may move it away).
    using Handler = std::function<bool(QVLFileMetadata& metadata, const std::string& key)>;
    using PathSet = std::unordered_set<std::string>;

    struct WalkOptions {
        // Threads that read and digest files ahead of the walking one (0:
        // it does all the work itself). Records keep the walk's order either
        // way; the FileSystem must then take calls from several threads.
        unsigned collectors = 0;
        // One per processor of this machine but one (at least one), at most 4.
        static unsigned machineCollectors();
    };

    explicit QVLManifest(platform::FileSystem& files) : files_(files) {}
    QVLManifest(platform::FileSystem& files, WalkOptions options) : files_(files), options_(options) {}
    // A manifest holding a copy of `dict` (null gives an empty manifest).
    QVLManifest(platform::FileSystem& files, const plist::Dictionary* dict);
    QVLManifest(const QVLManifest&) = delete;
    QVLManifest& operator=(const QVLManifest&) = delete;

    // The record stored under `key`, or nullopt when there is none or the
    // stored value is not a dictionary.
    std::optional<QVLFileMetadata> metadataForFile(const std::string& key) const;
    // Stores `metadata`'s record under `file`, replacing any earlier value.
    void setMetadata(const QVLFileMetadata& metadata, const std::string& file);
    void setMetadata(QVLFileMetadata&& metadata, const std::string& file);

    // Whether one of `folders` is `path` or a folder above it ("/a/b" holds
    // "/a/b" and "/a/b/c", not "/a/bc"; "/a/b/" holds what is below only).
    static bool folderContains(const std::vector<std::string>* folders, std::string_view path);
    // Whether `path`, without a leading "/private", is in `superSet`.
    static bool pathInSuperSet(std::string_view path, const PathSet* superSet);

    // Walks the tree at `path` with keys relative to `root`, skipping the
    // folders of `skip` and, when `superSet` is given, every item not in it,
    // and stores each record. A manifest is filled by one walk only: a second
    // one is refused. False when the walk failed; the records stored so far
    // stay.
    bool addFilesFromPath(const std::string& path, const std::string& root,
                          const std::vector<std::string>* skip, const PathSet* superSet = nullptr);
    // The walk itself, handing each record to `handler`.
    bool enumerateAndCollectMetaData(const std::string& path, const std::string& root,
                                     const std::vector<std::string>* skip, const PathSet* superSet,
                                     const Handler& handler);

    // The walk with each record added to `out` under its key, for a file
    // written as the walk goes. False when the walk itself failed, so the
    // file is to be abandoned; a walk stopped by the writer answers true, the
    // writer's error telling why.
    bool addRecordsTo(plist::BinaryDictionaryWriter& out, const std::string& path, const std::string& root,
                      const std::vector<std::string>* skip, const PathSet* superSet);

    // The summed size of the regular files below `path` outside the skip
    // folders; 0 on any failure.
    int64_t calculateTotalFileSize(const std::string& path, const std::vector<std::string>* skipPaths) const;
    // The size of the item itself (a link is not followed); 0 when unknown.
    int64_t fileSizeToAdjustPercentage(const std::string& path) const;

    // The key of the item at `path` for a walk relative to `root`; nullopt
    // when the root does not occur in the path.
    static std::optional<std::string> keyForPath(std::string_view path, std::string_view root);

    PathSet pathSet() const;
    std::optional<std::string> rootPath() const;
    void setRootPath(std::string rootPath);
    plist::Dictionary dict() const;
    void setDict(plist::Dictionary dict);
    // Moves the manifest out, leaving it empty (for writing a large one
    // without a copy).
    plist::Dictionary releaseDict();
    QVLProgressUpdater* progressUpdater() const;
    void setProgressUpdater(QVLProgressUpdater* progressUpdater);

  private:
    void addProgress(QVLProgressUpdater* updater, int64_t increment);

    platform::FileSystem& files_;
    const WalkOptions options_{};
    mutable std::mutex lock_;
    // Stored records are found through the dictionary's own key index: a
    // second set of the keys would cost a copy of every path.
    plist::Dictionary dict_;
    std::optional<std::string> rootPath_;
    QVLProgressUpdater* progressUpdater_ = nullptr;
};

}  // namespace qvl
