#include "metadata/QVLFileMetadata.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "base/QVLLogCapture.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/TestSupport.h"

namespace qvl {
namespace {

using testing::dict;
using testing::FaultyFileSystem;
using testing::lstatOf;
using testing::record;
using testing::setUserAttribute;
using testing::sha1Of;
using testing::TempTree;
using testing::withAttribute;
using Lines = std::vector<std::string>;

platform::FileSystem& linuxFiles() {
    return platform::LinuxFileSystem::sharedInstance();
}

std::vector<std::string> keysOf(const plist::Dictionary& dict) {
    std::vector<std::string> keys;
    for (const auto& entry : dict) keys.push_back(entry.first);
    return keys;
}

const std::vector<std::string> kAllKeys = {"QVLManifestFileAttributes", "QVLManifestFileExtendedAttributes",
                                           "QVLManifestFileHash", "QVLManifestSymbolicLinkTargetFile"};

int64_t attribute(const QVLFileMetadata& m, std::string_view key) {
    return m.getFileAttributes()->find(key)->integerValue().value_or(-1);
}

bool restore(const plist::Dictionary& r, const std::string& path) {
    return QVLFileMetadata(r).restoreAttribuesToPath(path, linuxFiles());
}

QVLFileMetadata collect(const std::string& path, platform::FileSystem& files = linuxFiles()) {
    std::optional<QVLFileMetadata> m = QVLFileMetadata::fileMetadatatWithPath(path, files);
    EXPECT_TRUE(m) << path;
    return m ? *m : QVLFileMetadata(plist::Dictionary());
}

TEST(QVLFileMetadataCollect, RecordsOfEachKindOfItem) {
    TempTree tree;
    const std::string path = tree.file("f", "hello", 0640);
    setUserAttribute(path, "com.example.tag", std::string("v\0x", 3));
    setUserAttribute(path, "empty", "");
    const struct {
        std::string path;
        const char* type;
        plist::Data hash;
        std::string target;
        int64_t size;
    } cases[] = {
        {path, "NSFileTypeRegular", sha1Of("hello"), "", 5},
        {tree.folder("d"), "NSFileTypeDirectory", {}, "", 0},
        {tree.symlink("d/link", "../nowhere/x"),
         "NSFileTypeSymbolicLink",
         {},
         "../nowhere/x",
         0},  // dangling
        {tree.socket("s"), "NSFileTypeSocket", {}, "", 0},
        {tree.fifo("p"), "NSFileTypeUnknown", {}, "", 0},  // the platform has no name of its own for a pipe
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        QVLFileMetadata m = collect(c.path);
        EXPECT_EQ(keysOf(m.dict()), kAllKeys);
        EXPECT_EQ(*m.getFileType(), c.type);
        EXPECT_EQ(*m.getHash(), c.hash);
        EXPECT_EQ(*m.getTargetFile(), c.target);
        EXPECT_EQ(m.getFileSize(), c.size);
    }
    EXPECT_EQ(attribute(collect(tree.path("d/link")), "NSFileSize"), 12);
    // User attributes only, values as bytes.
    QVLFileMetadata m = collect(path);
    EXPECT_EQ(plist::Value(*m.getExtendedAttributes()),
              plist::Value(dict({{"com.example.tag", plist::Data{'v', 0, 'x'}}, {"empty", plist::Data{}}})));

    // What sha1sum and stat(1) also say is cross-checked over a whole tree
    // (QVLManifest_test); here the keys they can't.
    const struct stat st = lstatOf(path);
    const plist::Dictionary& a = *m.getFileAttributes();
    plist::Dictionary expectedAttributes = dict({{"NSFileType", "NSFileTypeRegular"},
                                                 {"NSFileReferenceCount", 1},
                                                 {"NSFileSystemFileNumber", static_cast<int64_t>(st.st_ino)},
                                                 {"NSFileProtectionKey", "NSFileProtectionNone"},
                                                 {"NSFileImmutable", false},
                                                 {"NSFileBusy", false},
                                                 {"NSFileHFSCreatorCode", 0}});
    if (getuid() == 0) expectedAttributes.set("NSFileOwnerAccountName", "root");
    for (const auto& [key, value] : expectedAttributes) EXPECT_EQ(*a.find(key), value) << key;
    EXPECT_TRUE(a.find("NSFileSize")->asInteger()->isUnsigned);
    EXPECT_NEAR(a.find("NSFileModificationDate")->asDate()->toUnix(),
                st.st_mtim.tv_sec + st.st_mtim.tv_nsec * 1e-9, 1e-6);
}

TEST(QVLFileMetadataCollect, ReducedOrNoRecordsAndTheirMessages) {
    TempTree tree;
    const std::string path = tree.file("f", "x");
    FaultyFileSystem files;
    QVLLogCapture capture;
    // The names' size, then the names themselves, can't be read.
    files.failListExtendedAttributes = [](const std::string&, bool sizeQuery) { return sizeQuery; };
    EXPECT_EQ(keysOf(collect(path, files).dict()), Lines{"QVLManifestFileAttributes"});
    setUserAttribute(path, "a", "abc");
    files.failListExtendedAttributes = [](const std::string&, bool sizeQuery) { return !sizeQuery; };
    EXPECT_EQ(collect(path, files).dict().size(), 1u);
    files.failListExtendedAttributes = nullptr;
    EXPECT_EQ(capture.lines(), (Lines{"Could not extract extended attributes from " + path + ".",
                                      "Could not get attribute keys from file " + path,
                                      "Could not extract extended attributes from " + path +
                                          ". File is expected to have extended attributes.",
                                      "Could not get attribute keys from file " + path}));

    // A value that cannot be read degrades instead of failing the record.
    capture.clear();
    files.failGetExtendedAttribute = [](const std::string&, bool sizeQuery) { return sizeQuery; };
    EXPECT_EQ(QVLFileMetadata::valueForExtendedAttributesKey("a", path, files), plist::Data{});
    files.failGetExtendedAttribute = [](const std::string&, bool sizeQuery) { return !sizeQuery; };
    EXPECT_EQ(QVLFileMetadata::valueForExtendedAttributesKey("a", path, files), plist::Data(3, 0));
    files.failGetExtendedAttribute = nullptr;
    // Unreadable content leaves an empty digest.
    files.failOpen = [](const std::string&, bool) { return true; };
    EXPECT_TRUE(collect(path, files).getHash()->empty());
    EXPECT_EQ(capture.lines(),
              (Lines{"Could not extract extended file attributes from " + path + ", returned -1",
                     "Coud not extract extended file attributes from " + path +
                         ". File is expected to have extended attributes.",
                     "Cannot read file " + path, "Maybe it's an Nimbra file (" + path + ")?"}));

    // A missing item makes no record.
    const std::string gone = tree.path("gone");
    capture.clear();
    EXPECT_FALSE(QVLFileMetadata::fileMetadatatWithPath(gone, linuxFiles()));
    EXPECT_FALSE(QVLFileMetadata::fileHashWithPath(gone, linuxFiles()));
    EXPECT_EQ(
        capture.lines(),
        (Lines{"Get file attributes failed for " + gone + " with error - No such file or directory (errno 2)",
               "Cannot get file attribute for " + gone, "File does not exist at " + gone}));
    EXPECT_FALSE(QVLFileMetadata::targetFileWithPath(tree.file("plain"), linuxFiles()));
    EXPECT_TRUE(capture.containsPrefix("Could not get destination of symbolic link " + tree.path("plain") +
                                       " with error - "));
}

// `r` with its key `key` set to `value`.
plist::Dictionary with(plist::Dictionary r, const char* key, plist::Value value) {
    r.set(key, std::move(value));
    return r;
}

TEST(QVLFileMetadataCompare, FirstDifferenceInOrderDecides) {
    const plist::Dictionary file = with(record(), "QVLManifestFileHash", sha1Of("a"));
    const plist::Dictionary folder = record("NSFileTypeDirectory");
    const auto tagged = [&](const char* name, uint8_t v) {
        return with(folder, "QVLManifestFileExtendedAttributes", dict({{name, plist::Data{v}}}));
    };
    const auto both = [&](const char* key, plist::Value a, plist::Value b) {
        return std::pair{withAttribute(folder, key, std::move(a)), withAttribute(folder, key, std::move(b))};
    };
    const char* const kRebuild = "com.ostrel.lumerad.dbRebuildUuid";
    const auto [date1, date5] = both("NSFileModificationDate", plist::Date{1.0}, plist::Date{5.0});
    const auto [size96, size4k] = both("NSFileSize", 96, 4096);
    const auto [none, complete] =
        both("NSFileProtectionKey", "NSFileProtectionNone", "NSFileProtectionComplete");
    const struct {
        plist::Dictionary a, b;
        int result;
    } cases[] = {
        {file, file, QVLFileMetadata::kSame},
        {file, folder, QVLFileMetadata::kTypeDiffers},
        {plist::Dictionary(), plist::Dictionary(), QVLFileMetadata::kTypeDiffers},
        {with(file, "QVLManifestFileHash", plist::Data()), file, QVLFileMetadata::kDigestDiffers},
        {record("NSFileTypeSymbolicLink", 0755, "a"), record("NSFileTypeSymbolicLink", 0755, "b"),
         QVLFileMetadata::kLinkTargetDiffers},
        {file, withAttribute(file, "NSFileOwnerAccountID", 0), QVLFileMetadata::kOwnershipOrModeDiffers},
        // Only this record's keys are looked at.
        {withAttribute(file, "NSFilePosixPermissions", std::nullopt), file, QVLFileMetadata::kSame},
        {file, withAttribute(file, "NSFilePosixPermissions", std::nullopt),
         QVLFileMetadata::kOwnershipOrModeDiffers},
        // Dates, sizes, protection classes and the rebuild attribute are not compared.
        {date1, date5, QVLFileMetadata::kSame},
        {size96, size4k, QVLFileMetadata::kSame},
        {none, complete, QVLFileMetadata::kSame},
        {tagged(kRebuild, 1), tagged(kRebuild, 2), QVLFileMetadata::kSame},
        {tagged("tag", 1), folder, QVLFileMetadata::kExtendedAttributesDiffer},
        {tagged("tag", 1), tagged("tag", 2), QVLFileMetadata::kExtendedAttributesDiffer},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        QVLFileMetadata left(cases[i].a), right(cases[i].b);
        EXPECT_EQ(left.compareWith(&right), cases[i].result) << "case " << i;
    }
    EXPECT_EQ(QVLFileMetadata(file).compareWith(nullptr), QVLFileMetadata::kOtherIsNull);
}

// Restoring whole trees is QVLManifest_test's round trip; here what may be set.
TEST(QVLFileMetadataRestore, OnlyOwnersModeAndDateAreSet) {
    const plist::Dictionary settable = QVLFileMetadata::fileAttributesAllowSet(
        *withAttribute(record(), "NSFileModificationDate", plist::Date{1.0})
             .getDictionary("QVLManifestFileAttributes"));
    EXPECT_EQ(keysOf(settable),
              (Lines{"NSFilePosixPermissions", "NSFileOwnerAccountID", "NSFileGroupOwnerAccountID",
                     "NSFileOwnerAccountName", "NSFileGroupOwnerAccountName",
                     "NSFileModificationDate"}));  // not the type
}

TEST(QVLFileMetadataRestore, BadValuesFailAndApplyNothing) {
    TempTree tree;
    const std::string path = tree.file("f", "x", 0644);
    const struct stat st = lstatOf(path);
    const auto ownedHere = [&](plist::Dictionary r) {
        r = withAttribute(r, "NSFileOwnerAccountID", static_cast<int64_t>(st.st_uid));
        return withAttribute(r, "NSFileGroupOwnerAccountID", static_cast<int64_t>(st.st_gid));
    };
    QVLLogCapture capture;
    EXPECT_FALSE(restore(record(), tree.path("gone")));
    EXPECT_TRUE(capture.containsPrefix("Could not set file attributs at " + tree.path("gone") +
                                       " with error - No such file or directory (errno 2), attributes = "));
    EXPECT_FALSE(restore(withAttribute(record(), "NSFilePosixPermissions", "rwx"), path));
    EXPECT_EQ(lstatOf(path).st_mode & 07777, 0644u);  // nothing applied
    EXPECT_FALSE(restore(ownedHere(withAttribute(record(), "NSFileProtectionKey", 3)), path));
    EXPECT_TRUE(capture.containsPrefix("Could not set file protection key at " + path));

    // An attribute value that is not data stops the attributes but not the
    // restore of a file; a link's restore fails with it.
    const plist::Dictionary values =
        dict({{"first", plist::Data{'1'}}, {"bad", "string"}, {"after", plist::Data{'2'}}});
    capture.clear();
    EXPECT_TRUE(restore(ownedHere(with(record(), "QVLManifestFileExtendedAttributes", values)), path));
    EXPECT_EQ(capture.lines(), Lines{"Got non-data value"});
    EXPECT_EQ(*QVLFileMetadata::extendedAttributeKeysWithPath(path, linuxFiles()), Lines{"first"});
    EXPECT_FALSE(restore(
        with(record("NSFileTypeSymbolicLink", 0755, "f"), "QVLManifestFileExtendedAttributes", values),
        tree.symlink("l", "f")));
}

TEST(QVLFileMetadataRestore, AsRootOwnersProtectionClassAndLinksOwnOwner) {
    if (getuid() != 0) GTEST_SKIP() << "needs root to chown and to write trusted. attributes";
    TempTree tree;
    const std::string path = tree.file("f", "x");
    const std::string link = tree.symlink("l", "f");
    ASSERT_TRUE(restore(withAttribute(record(), "NSFileProtectionKey", "NSFileProtectionComplete"), path));
    QVLFileMetadata restored = collect(path);
    EXPECT_EQ(attribute(restored, "NSFileOwnerAccountID"), 501);
    EXPECT_EQ(attribute(restored, "NSFileGroupOwnerAccountID"), 501);
    EXPECT_EQ(*restored.getFileAttributes()->getString("NSFileProtectionKey"), "NSFileProtectionComplete");

    // A link gets its own owner; the target keeps its.
    ASSERT_TRUE(
        restore(withAttribute(record("NSFileTypeSymbolicLink", 0755, "f"), "NSFileOwnerAccountID", 7), link));
    EXPECT_EQ(lstatOf(link).st_uid, 7u);
    EXPECT_EQ(lstatOf(path).st_uid, 501u);

    // A record that names its owner only by name is resolved on this system.
    plist::Dictionary byName = withAttribute(record(), "NSFileOwnerAccountID", std::nullopt);
    ASSERT_TRUE(restore(withAttribute(byName, "NSFileOwnerAccountName", "root"), path));
    EXPECT_EQ(lstatOf(path).st_uid, 0u);

    // An immutable item still takes a new mode: the flag is lifted and put back.
    plist::Dictionary immutable = withAttribute(record(), "NSFileImmutable", true);
    ASSERT_TRUE(restore(immutable, path));
    ASSERT_TRUE(restore(withAttribute(immutable, "NSFilePosixPermissions", 0600), path));
    QVLFileMetadata locked = collect(path);
    EXPECT_EQ(locked.getFileAttributes()->getBoolean("NSFileImmutable"), true);
    EXPECT_EQ(attribute(locked, "NSFilePosixPermissions"), 0600);
}

}  // namespace
}  // namespace qvl
