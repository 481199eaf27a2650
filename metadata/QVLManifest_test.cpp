#include "metadata/QVLManifest.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "base/QVLLogCapture.h"
#include "metadata/QVLFileDigest.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/TestSupport.h"

namespace qvl {
namespace {

using testing::commandOutput;
using testing::FaultyFileSystem;
using testing::setUserAttribute;
using testing::TempTree;
using Keys = std::vector<std::string>;

platform::FileSystem& linuxFiles() {
    return platform::LinuxFileSystem::sharedInstance();
}

Keys sortedKeys(const QVLManifest& manifest) {
    Keys keys;
    for (const auto& entry : manifest.dict()) keys.push_back(entry.first);
    std::sort(keys.begin(), keys.end());
    return keys;
}

TEST(QVLManifestPaths, FolderSupersetAndKeyRules) {
    const std::vector<std::string> folders = {"", "/q", "/a/b"}, trailing = {"/a/b/"};
    const struct {
        const std::vector<std::string>* folders;
        const char* path;
        bool contains;
    } containment[] = {
        {&folders, "/a/b", true},    {&folders, "/a/b/c/d", true}, {&folders, "/a/bc", false},
        {&folders, "/x/a/b", false}, {&trailing, "/a/b", false},   {&trailing, "/a/b/c", true},
        {nullptr, "/a/b", false},
    };
    for (const auto& c : containment)
        EXPECT_EQ(QVLManifest::folderContains(c.folders, c.path), c.contains) << c.path;

    const QVLManifest::PathSet set = {"/var/mobile/a", "/var"};
    EXPECT_TRUE(QVLManifest::pathInSuperSet("/private/var/mobile/a", &set));
    EXPECT_TRUE(QVLManifest::pathInSuperSet("/private/var", &set));
    EXPECT_FALSE(QVLManifest::pathInSuperSet("/private/var/mobile", &set));

    const struct {
        const char* path;
        const char* root;
        std::optional<std::string> key;
    } keys[] = {
        {"/private/var/mobile/Library", "/private", "/var/mobile/Library"},
        {"/private", "/private", "/"},
        {"/a/b/a/c", "/a", "/b/c"},
        {"/x/private/var/f", "/private", "/var/f"},  // a prefix before the root is dropped with it
        {"/etc/f", "/", "/etc/f"},
        {"/elsewhere/f", "/private", std::nullopt},
        {"/elsewhere/f", "", std::nullopt},
    };
    for (const auto& k : keys) EXPECT_EQ(QVLManifest::keyForPath(k.path, k.root), k.key) << k.path;
}

// The device layout in miniature: <tmp>/private/var with app folders to skip.
TEST(QVLManifestWalk, KeysSkipFoldersLinksAndSpecialFilesSupersetAndProgress) {
    TempTree tree;
    const std::string privateRoot = tree.folder("private"), var = tree.folder("private/var");
    tree.file("private/var/mobile/Library/prefs.plist", "prefs");
    tree.file("private/var/x/skipped", "s");
    tree.file("private/var/xy/kept", "k");
    tree.symlink("private/var/link", "mobile");
    tree.file("private/var/hidden/.dotfile", "h");
    const std::string fifo = tree.fifo("private/var/pipe");
    tree.socket("private/var/sock");
    QVLManifest manifest(linuxFiles());
    const std::vector<std::string> skip = {var + "/x"};
    QVLLogCapture capture;
    ASSERT_TRUE(manifest.addFilesFromPath(var, privateRoot, &skip));
    EXPECT_EQ(sortedKeys(manifest),
              (Keys{"/var", "/var/hidden", "/var/hidden/.dotfile", "/var/link", "/var/mobile",
                    "/var/mobile/Library", "/var/mobile/Library/prefs.plist", "/var/xy", "/var/xy/kept"}));
    EXPECT_EQ(*manifest.metadataForFile("/var/link")->getTargetFile(), "mobile");
    EXPECT_TRUE(capture.contains(fifo + " is special file. Leave it along"));

    // One walk per manifest.
    EXPECT_FALSE(manifest.addFilesFromPath(var, privateRoot, nullptr));
    EXPECT_EQ(manifest.dict().size(), 9u);

    // A single file, or an empty folder (given with a trailing "/"), is one entry at the root.
    const std::string file = tree.path("private/var/xy/kept"), folder = tree.folder("empty");
    QVLManifest single(linuxFiles()), empty(linuxFiles());
    ASSERT_TRUE(single.addFilesFromPath(file, file, nullptr));
    ASSERT_TRUE(empty.addFilesFromPath(folder + "/", folder, nullptr));
    EXPECT_EQ(sortedKeys(single), Keys{"/"});
    EXPECT_EQ(sortedKeys(empty), Keys{"/"});

    // A superset keeps only its paths, but progress covers the whole walk.
    QVLManifest kept(linuxFiles());
    std::vector<int64_t> sent;
    QVLProgressUpdater updater([&](int64_t p) { sent.push_back(p); });
    kept.setProgressUpdater(&updater);
    const QVLManifest::PathSet superSet = {var + "/xy/kept", var + "/mobile"};
    ASSERT_TRUE(kept.addFilesFromPath(var, privateRoot, nullptr, &superSet));
    EXPECT_EQ(sortedKeys(kept), (Keys{"/var/mobile", "/var/xy/kept"}));
    // Regular files total 8 bytes; folders and links add their own sizes on top.
    EXPECT_EQ(updater.total(), 8);
    EXPECT_GT(updater.finished(), 8);
    EXPECT_FALSE(sent.empty());
    EXPECT_TRUE(std::is_sorted(sent.begin(), sent.end()));
    QVLManifest none(linuxFiles());
    const QVLManifest::PathSet nothing;
    ASSERT_TRUE(none.addFilesFromPath(var, privateRoot, nullptr, &nothing));
    EXPECT_TRUE(none.dict().empty());
}

TEST(QVLManifestWalk, EnumerationErrorsAreLoggedAndRecordFailuresEndTheWalk) {
    TempTree tree;
    const std::string locked = tree.folder("locked");
    tree.file("locked/inside");
    const std::string other = tree.file("other");
    FaultyFileSystem files;
    files.failListDirectory = [&](const std::string& p, bool) { return p == locked; };
    {
        QVLLogCapture capture;
        QVLManifest manifest(files);
        ASSERT_TRUE(manifest.addFilesFromPath(tree.root(), tree.root(), nullptr));
        EXPECT_EQ(sortedKeys(manifest), (Keys{"/", "/locked", "/other"}));
        for (const char* walk :
             {"-[QVLManifest calculateTotalFileSize:skipPaths:]",
              "-[QVLManifest enumerateAndCollectMetaData:relativeTo:skip:superSet:handler:]"}) {
            EXPECT_TRUE(capture.contains(std::string(walk) + ": Could not enumerate " + locked +
                                         ", url=file://" + locked + "/, error=Input/output error (errno 5)"));
        }
    }
    files.failListDirectory = nullptr;
    files.failStat = [&](const std::string& p, bool) { return p == other; };
    QVLLogCapture capture;
    QVLManifest manifest(files, QVLManifest::WalkOptions{1});  // failures met by a collector
    EXPECT_FALSE(manifest.addFilesFromPath(tree.root(), tree.root(), nullptr));
    EXPECT_TRUE(capture.contains("Couldn't get meta data for " + other));
    EXPECT_EQ(manifest.calculateTotalFileSize(tree.root(), nullptr), 0);
    EXPECT_TRUE(capture.contains("Cound not get attribute for item " + other));

    QVLManifest refusing(linuxFiles());
    EXPECT_FALSE(
        refusing.enumerateAndCollectMetaData(tree.root(), tree.root(), nullptr, nullptr,
                                             [](QVLFileMetadata&, const std::string&) { return false; }));
    EXPECT_TRUE(capture.containsPrefix("Couldn't run handler against " + tree.root() + "/"));
    QVLManifest missing(linuxFiles()), outside(linuxFiles());
    EXPECT_FALSE(missing.addFilesFromPath(tree.path("nothing"), tree.root(), nullptr));
    EXPECT_FALSE(outside.addFilesFromPath(tree.root(), "/not/the/root", nullptr));
}

TEST(QVLManifestCrossCheck, DigestsAndOwnershipMatchSha1sumAndStatAndRestoreOntoACopy) {
    TempTree tree;  // files of assorted sizes, modes, owners and attributes
    for (int i = 0; i < 40; ++i) {
        std::string content(static_cast<size_t>(i * 977 % 70000), static_cast<char>('a' + i % 26));
        const std::string path =
            tree.file("d" + std::to_string(i % 5) + "/sub" + std::to_string(i % 3) + "/f" + std::to_string(i),
                      content, 0600 | static_cast<mode_t>(i % 8) << 3);
        if (getuid() == 0) ::chown(path.c_str(), 1000 + i % 4, 2000 + i % 3);
        if (i % 4 == 0) setUserAttribute(path, "n" + std::to_string(i), std::to_string(i));
    }
    tree.symlink("d0/link", "sub0");
    QVLManifest original(linuxFiles());
    ASSERT_TRUE(original.addFilesFromPath(tree.root(), tree.root(), nullptr));
    std::istringstream sums(
        commandOutput("cd '" + tree.root() + "' && find . -type f -print0 | xargs -0 sha1sum"));
    int files = 0;
    for (std::string digest, name; sums >> digest >> name; ++files) {
        const std::string key = name.substr(1);
        std::optional<QVLFileMetadata> m = original.metadataForFile(key);
        ASSERT_TRUE(m) << key;
        EXPECT_EQ(createDigestHexString(*m->getHash()), digest) << key;
        std::istringstream st(commandOutput("stat -c '%u %g %a %s' '" + tree.root() + key + "'"));
        int64_t uid, gid, size;
        std::string mode;
        st >> uid >> gid >> mode >> size;
        const plist::Dictionary& a = *m->getFileAttributes();
        EXPECT_EQ(a.find("NSFileOwnerAccountID")->integerValue(), uid) << key;
        EXPECT_EQ(a.find("NSFileGroupOwnerAccountID")->integerValue(), gid) << key;
        EXPECT_EQ(a.find("NSFilePosixPermissions")->integerValue(), std::stoll(mode, nullptr, 8)) << key;
        EXPECT_EQ(m->getFileSize(), size) << key;
    }
    EXPECT_EQ(files, 40);
    // The walk reads items through their open folder; collecting one by its
    // path must give the same record, attribute for attribute.
    for (const auto& [key, record] : original.dict()) {
        const std::string path = key == "/" ? tree.root() : tree.root() + key;
        EXPECT_EQ(plist::Value(record),
                  plist::Value(QVLFileMetadata::fileMetadatatWithPath(path, linuxFiles())->dict()))
            << key;
    }

    // Modes, owners, dates and recorded attribute values come back onto a
    // changed copy; an attribute the record does not name is kept.
    TempTree copy;
    ASSERT_EQ(std::system(("cp -a '" + tree.root() + "/.' '" + copy.root() + "'").c_str()), 0);
    std::vector<std::string> items = {copy.root()};
    for (const auto& entry : std::filesystem::recursive_directory_iterator(copy.root()))
        if (!entry.is_symlink()) items.push_back(entry.path().string());
    for (const std::string& p : items) {
        ::chmod(p.c_str(), std::filesystem::is_directory(p) ? 0700 : 0604);
        if (getuid() == 0) ::lchown(p.c_str(), 3000, 3000);
        std::filesystem::last_write_time(p, std::filesystem::file_time_type());
        const auto names = QVLFileMetadata::extendedAttributeKeysWithPath(p, linuxFiles());
        ASSERT_TRUE(names) << p;
        for (const std::string& name : *names) setUserAttribute(p, name, "changed");
    }
    const std::string extra = "/d0/sub0/f0";
    setUserAttribute(copy.root() + extra, "extra", "e");
    for (const std::string& key : original.pathSet()) {
        const std::string target = key == "/" ? copy.root() : copy.root() + key;
        ASSERT_TRUE(original.metadataForFile(key)->restoreAttribuesToPath(target, linuxFiles())) << key;
    }
    QVLManifest restored(linuxFiles());
    ASSERT_TRUE(restored.addFilesFromPath(copy.root(), copy.root(), nullptr));
    ASSERT_EQ(restored.pathSet(), original.pathSet());
    const auto date = [](const QVLFileMetadata& m) {
        return m.getFileAttributes()->find("NSFileModificationDate")->asDate()->secondsSince2001;
    };
    for (const std::string& key : original.pathSet()) {
        std::optional<QVLFileMetadata> before = original.metadataForFile(key),
                                       again = restored.metadataForFile(key);
        EXPECT_EQ(before->compareWith(&*again),
                  key == extra ? QVLFileMetadata::kExtendedAttributesDiffer : QVLFileMetadata::kSame)
            << key;
        EXPECT_NEAR(date(*again), date(*before), 1e-6) << key;
    }
}

}  // namespace
}  // namespace qvl
