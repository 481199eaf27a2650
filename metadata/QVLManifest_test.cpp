#include "metadata/QVLManifest.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <sstream>

#include "base/QVLLogCapture.h"
#include "metadata/MetadataTestSupport.h"
#include "metadata/QVLFileDigest.h"

namespace qvl {
namespace {

using testing::commandOutput;
using testing::FaultyPort;
using testing::setUserAttribute;
using testing::TempTree;

std::vector<std::string> sortedKeys(const QVLManifest& manifest) {
    std::vector<std::string> keys;
    for (const auto& entry : manifest.dict()) keys.push_back(entry.first);
    std::sort(keys.begin(), keys.end());
    return keys;
}

TEST(QVLManifestPaths, FolderContainment) {
    const std::vector<std::string> folders = {"/a/b"};
    EXPECT_TRUE(QVLManifest::folder(&folders, "/a/b"));
    EXPECT_TRUE(QVLManifest::folder(&folders, "/a/b/c"));
    EXPECT_FALSE(QVLManifest::folder(&folders, "/a/bc"));
    EXPECT_FALSE(QVLManifest::folder(&folders, "/x/a/b"));
    const std::vector<std::string> trailing = {"/a/b/"};
    EXPECT_FALSE(QVLManifest::folder(&trailing, "/a/b"));
    EXPECT_TRUE(QVLManifest::folder(&trailing, "/a/b/c"));
    const std::vector<std::string> several = {"", "/q", "/a/b"};
    EXPECT_TRUE(QVLManifest::folder(&several, "/a/b/c/d"));
    EXPECT_FALSE(QVLManifest::folder(&several, "/other"));
    EXPECT_FALSE(QVLManifest::folder(nullptr, "/a/b"));
}

TEST(QVLManifestPaths, SupersetMembershipDropsALeadingPrivate) {
    const QVLManifest::PathSet set = {"/var/mobile/a", "/var"};
    EXPECT_TRUE(QVLManifest::path("/private/var/mobile/a", &set));
    EXPECT_TRUE(QVLManifest::path("/var/mobile/a", &set));
    EXPECT_TRUE(QVLManifest::path("/private/var", &set));
    EXPECT_FALSE(QVLManifest::path("/private/var/mobile", &set));
    const QVLManifest::PathSet empty;
    EXPECT_FALSE(QVLManifest::path("/var", &empty));
}

TEST(QVLManifestPaths, KeysRelativeToTheRoot) {
    EXPECT_EQ(QVLManifest::keyForPath("/private/var/mobile/Library", "/private"), "/var/mobile/Library");
    EXPECT_EQ(QVLManifest::keyForPath("/private/var", "/private"), "/var");
    EXPECT_EQ(QVLManifest::keyForPath("/private", "/private"), "/");
    EXPECT_EQ(QVLManifest::keyForPath("/a/b/a/c", "/a"), "/b/c");
    // A prefix before the root is dropped with it.
    EXPECT_EQ(QVLManifest::keyForPath("/x/private/var/f", "/private"), "/var/f");
    EXPECT_EQ(QVLManifest::keyForPath("/etc/f", "/"), "/etc/f");
    EXPECT_FALSE(QVLManifest::keyForPath("/elsewhere/f", "/private"));
    EXPECT_FALSE(QVLManifest::keyForPath("/elsewhere/f", ""));
}

TEST(QVLManifestWalk, SingleFileOrEmptyFolderIsOneEntryAtTheRoot) {
    TempTree tree;
    QVLManifest single;
    const std::string file = tree.file("f", "x");
    ASSERT_TRUE(single.addFilesFromPath(file, file, nullptr));
    EXPECT_EQ(sortedKeys(single), std::vector<std::string>{"/"});
    EXPECT_EQ(single.metadataForFile("/")->getFileSize(), 1);

    QVLManifest empty;
    const std::string folder = tree.folder("d");
    ASSERT_TRUE(empty.addFilesFromPath(folder + "/", folder, nullptr));
    EXPECT_EQ(sortedKeys(empty), std::vector<std::string>{"/"});
}

// The device layout in miniature: <tmp>/private/var with app folders to skip.
struct DeviceTree {
    TempTree tree;
    std::string privateRoot = tree.folder("private");
    std::string var = tree.folder("private/var");
    DeviceTree() {
        tree.file("private/var/mobile/Library/prefs.plist", "prefs");
        tree.file("private/var/x/skipped", "s");
        tree.file("private/var/xy/kept", "k");
        tree.symlink("private/var/link", "mobile");
        tree.file("private/var/hidden/.dotfile", "h");
    }
};

TEST(QVLManifestWalk, KeysSkipFoldersAndLinks) {
    DeviceTree device;
    QVLManifest manifest;
    const std::vector<std::string> skip = {device.var + "/x"};
    ASSERT_TRUE(manifest.addFilesFromPath(device.var, device.privateRoot, &skip));
    EXPECT_EQ(sortedKeys(manifest),
              (std::vector<std::string>{"/var", "/var/hidden", "/var/hidden/.dotfile", "/var/link",
                                        "/var/mobile", "/var/mobile/Library",
                                        "/var/mobile/Library/prefs.plist", "/var/xy", "/var/xy/kept"}));
    EXPECT_EQ(*manifest.metadataForFile("/var/link")->getTargetFile(), "mobile");
    EXPECT_EQ(manifest.rootPath(), device.privateRoot);
    EXPECT_FALSE(manifest.metadataForFile("/var/x"));

    // One walk per manifest.
    const size_t before = manifest.dict().size();
    EXPECT_FALSE(manifest.addFilesFromPath(device.var, device.privateRoot, nullptr));
    EXPECT_EQ(manifest.dict().size(), before);
}

TEST(QVLManifestWalk, SupersetKeepsOnlyItsPathsButProgressCoversAll) {
    DeviceTree device;
    QVLManifest manifest;
    QVLProgressUpdater updater;
    std::vector<int64_t> sent;
    updater.setProgressSender([&](int64_t p) { sent.push_back(p); });
    manifest.setProgressUpdater(&updater);
    const QVLManifest::PathSet superSet = {device.var + "/xy/kept", device.var + "/mobile"};
    ASSERT_TRUE(manifest.addFilesFromPath(device.var, device.privateRoot, nullptr, &superSet));
    EXPECT_EQ(sortedKeys(manifest), (std::vector<std::string>{"/var/mobile", "/var/xy/kept"}));
    // Regular files total 8 bytes; folders and links add their own sizes on top.
    EXPECT_EQ(updater.total(), 8);
    EXPECT_GT(updater.finished(), 8);
    EXPECT_FALSE(sent.empty());
    EXPECT_TRUE(std::is_sorted(sent.begin(), sent.end()));

    QVLManifest none;
    const QVLManifest::PathSet empty;
    ASSERT_TRUE(none.addFilesFromPath(device.var, device.privateRoot, nullptr, &empty));
    EXPECT_TRUE(none.dict().empty());
}

TEST(QVLManifestWalk, SpecialFilesAreLoggedAndLeftOut) {
    TempTree tree;
    const std::string fifo = tree.fifo("pipe");
    const std::string socket = tree.socket("sock");
    tree.file("f");
    QVLLogCapture capture;
    QVLManifest manifest;
    ASSERT_TRUE(manifest.addFilesFromPath(tree.root(), tree.root(), nullptr));
    EXPECT_EQ(sortedKeys(manifest), (std::vector<std::string>{"/", "/f"}));
    EXPECT_TRUE(capture.contains(fifo + " is special file. Leave it along"));
    EXPECT_TRUE(capture.contains(socket + " is special file. Leave it along"));
}

TEST(QVLManifestWalk, EnumerationErrorsAreLoggedAndRecordFailuresEndTheWalk) {
    TempTree tree;
    const std::string locked = tree.folder("locked");
    tree.file("locked/inside");
    tree.file("other");
    FaultyPort port;
    platform::ScopedFileAttributesPort scoped(port);
    port.failListDirectory = [&](const std::string& p) { return p == locked; };
    {
        QVLLogCapture capture;
        QVLManifest manifest;
        ASSERT_TRUE(manifest.addFilesFromPath(tree.root(), tree.root(), nullptr));
        EXPECT_EQ(sortedKeys(manifest), (std::vector<std::string>{"/", "/locked", "/other"}));
        EXPECT_TRUE(
            capture.contains("-[QVLManifest enumerateAndCollectMetaData:relativeTo:skip:superSet:handler:]: "
                             "Could not enumerate " +
                             locked + ", url=file://" + locked + "/, error=Input/output error (errno 5)"));
        EXPECT_TRUE(
            capture.contains("-[QVLManifest calculateTotalFileSize:skipPaths:]: Could not enumerate " +
                             locked + ", url=file://" + locked + "/, error=Input/output error (errno 5)"));
    }
    port.failListDirectory = nullptr;
    const std::string other = tree.path("other");
    port.failStat = [&](const std::string& p) { return p == other; };
    QVLLogCapture capture;
    QVLManifest manifest;
    EXPECT_FALSE(manifest.addFilesFromPath(tree.root(), tree.root(), nullptr));
    EXPECT_TRUE(capture.contains("Couldn't get meta data for " + other));
    EXPECT_EQ(QVLManifest::calculateTotalFileSize(tree.root(), nullptr), 0);
    EXPECT_TRUE(capture.contains("Cound not get attribute for item " + other));
}

TEST(QVLManifestWalk, HandlerRefusalAndMissingTreeFail) {
    TempTree tree;
    tree.file("a");
    QVLLogCapture capture;
    QVLManifest manifest;
    EXPECT_FALSE(
        manifest.enumerateAndCollectMetaData(tree.root(), tree.root(), nullptr, nullptr,
                                             [](QVLFileMetadata&, const std::string&) { return false; }));
    EXPECT_TRUE(capture.contains("Couldn't run handler against " + tree.path("a")));

    QVLManifest missing;
    EXPECT_FALSE(missing.addFilesFromPath(tree.path("nothing"), tree.root(), nullptr));
    QVLManifest outside;
    EXPECT_FALSE(outside.addFilesFromPath(tree.root(), "/not/the/root", nullptr));
}

// Generates a tree of files of assorted sizes, modes and owners.
void generateTree(const TempTree& tree) {
    for (int i = 0; i < 40; ++i) {
        std::string content(static_cast<size_t>(i * 977 % 70000), static_cast<char>('a' + i % 26));
        const std::string path =
            tree.file("d" + std::to_string(i % 5) + "/sub" + std::to_string(i % 3) + "/f" + std::to_string(i),
                      content, 0600 | static_cast<mode_t>(i % 8) << 3);
        if (getuid() == 0) ::chown(path.c_str(), 1000 + i % 4, 2000 + i % 3);
        if (i % 4 == 0) setUserAttribute(path, "n" + std::to_string(i), std::to_string(i));
    }
    tree.symlink("d0/link", "sub0");
}

TEST(QVLManifestCrossCheck, DigestsAndOwnershipMatchSha1sumAndStat) {
    TempTree tree;
    generateTree(tree);
    QVLManifest manifest;
    ASSERT_TRUE(manifest.addFilesFromPath(tree.root(), tree.root(), nullptr));
    std::istringstream sums(
        commandOutput("cd '" + tree.root() + "' && find . -type f -print0 | xargs -0 sha1sum"));
    int files = 0;
    for (std::string digest, name; sums >> digest >> name; ++files) {
        const std::string key = name.substr(1);
        std::optional<QVLFileMetadata> m = manifest.metadataForFile(key);
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
}

TEST(QVLManifestRoundTrip, RestoringEveryRecordOntoAChangedCopyMakesThemEqual) {
    TempTree tree;
    generateTree(tree);
    QVLManifest original;
    ASSERT_TRUE(original.addFilesFromPath(tree.root(), tree.root(), nullptr));

    TempTree copy;
    ASSERT_EQ(std::system(("cp -a '" + tree.root() + "/.' '" + copy.root() + "'").c_str()), 0);
    std::vector<std::string> items = {copy.root()};
    for (const auto& entry : std::filesystem::recursive_directory_iterator(copy.root())) {
        if (!entry.is_symlink()) items.push_back(entry.path().string());
    }
    for (const std::string& p : items) {
        ::chmod(p.c_str(), std::filesystem::is_directory(p) ? 0700 : 0604);
        if (getuid() == 0) ::lchown(p.c_str(), 3000, 3000);
        const std::optional<std::vector<std::string>> names =
            QVLFileMetadata::extendedAttributeKeysWithPath(p);
        ASSERT_TRUE(names) << p;
        for (const std::string& name : *names) {
            setUserAttribute(p, name, "changed");
        }
    }
    QVLManifest changed;
    ASSERT_TRUE(changed.addFilesFromPath(copy.root(), copy.root(), nullptr));
    const std::optional<QVLFileMetadata> before = changed.metadataForFile("/d0/sub0/f0");
    EXPECT_NE(original.metadataForFile("/d0/sub0/f0")->compareWith(&*before), 6);

    for (const std::string& key : original.pathSet()) {
        const std::string target = key == "/" ? copy.root() : copy.root() + key;
        ASSERT_TRUE(original.metadataForFile(key)->restoreAttribuesToPath(target)) << key;
    }
    QVLManifest restored;
    ASSERT_TRUE(restored.addFilesFromPath(copy.root(), copy.root(), nullptr));
    ASSERT_EQ(restored.pathSet(), original.pathSet());
    for (const std::string& key : original.pathSet()) {
        std::optional<QVLFileMetadata> again = restored.metadataForFile(key);
        EXPECT_EQ(original.metadataForFile(key)->compareWith(&*again), 6) << key;
    }
}

}  // namespace
}  // namespace qvl
