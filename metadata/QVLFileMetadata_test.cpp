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

using testing::FaultyFileSystem;
using testing::lstatOf;
using testing::setUserAttribute;
using testing::sha1Of;
using testing::TempTree;
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

QVLFileMetadata collect(const std::string& path, platform::FileSystem& files = linuxFiles()) {
    std::optional<QVLFileMetadata> m = QVLFileMetadata::fileMetadatatWithPath(path, files);
    EXPECT_TRUE(m) << path;
    return m ? *m : QVLFileMetadata(plist::Dictionary());
}

TEST(QVLFileMetadataCollect, RegularFileHasFourKeysDigestAndUserAttributesOnly) {
    TempTree tree;
    const std::string path = tree.file("f", "hello", 0640);
    setUserAttribute(path, "com.example.tag", std::string("v\0x", 3));
    setUserAttribute(path, "empty", "");
    QVLFileMetadata m = collect(path);
    EXPECT_EQ(keysOf(m.dict()), kAllKeys);
    EXPECT_EQ(*m.getHash(), sha1Of("hello"));
    EXPECT_EQ(*m.getTargetFile(), "");
    EXPECT_EQ(m.getFileSize(), 5);
    plist::Dictionary expected;
    expected.set("com.example.tag", plist::Data{'v', 0, 'x'});
    expected.set("empty", plist::Data{});
    EXPECT_EQ(plist::Value(*m.getExtendedAttributes()), plist::Value(expected));

    // What sha1sum and stat(1) also say is cross-checked over a whole tree
    // (QVLManifest_test); here the keys they can't.
    const struct stat st = lstatOf(path);
    const plist::Dictionary& a = *m.getFileAttributes();
    plist::Dictionary expectedAttributes;
    expectedAttributes.set("NSFileType", "NSFileTypeRegular");
    expectedAttributes.set("NSFileReferenceCount", 1);
    expectedAttributes.set("NSFileSystemFileNumber", static_cast<int64_t>(st.st_ino));
    expectedAttributes.set("NSFileProtectionKey", "NSFileProtectionNone");
    expectedAttributes.set("NSFileImmutable", false);
    expectedAttributes.set("NSFileBusy", false);
    expectedAttributes.set("NSFileHFSCreatorCode", 0);
    if (getuid() == 0) expectedAttributes.set("NSFileOwnerAccountName", "root");
    for (const auto& [key, value] : expectedAttributes) EXPECT_EQ(*a.find(key), value) << key;
    EXPECT_TRUE(a.find("NSFileSize")->asInteger()->isUnsigned);
    EXPECT_NEAR(a.find("NSFileModificationDate")->asDate()->toUnix(),
                st.st_mtim.tv_sec + st.st_mtim.tv_nsec * 1e-9, 1e-6);
}

TEST(QVLFileMetadataCollect, FoldersLinksAndSpecialFiles) {
    TempTree tree;
    const struct {
        std::string path;
        const char* type;
        std::string target;
    } cases[] = {
        {tree.folder("d"), "NSFileTypeDirectory", ""},
        {tree.symlink("d/link", "../nowhere/x"), "NSFileTypeSymbolicLink",
         "../nowhere/x"},  // dangling, unresolved
        {tree.socket("s"), "NSFileTypeSocket", ""},
        {tree.fifo("p"), "NSFileTypeUnknown", ""},  // the platform has no name of its own for a pipe
    };
    for (const auto& c : cases) {
        QVLFileMetadata m = collect(c.path);
        EXPECT_EQ(keysOf(m.dict()), kAllKeys) << c.path;
        EXPECT_EQ(*m.getFileType(), c.type);
        EXPECT_TRUE(m.getHash()->empty()) << c.path;
        EXPECT_EQ(*m.getTargetFile(), c.target);
        EXPECT_EQ(m.getFileSize(), 0) << c.path;
    }
    EXPECT_EQ(attribute(collect(tree.path("d/link")), "NSFileSize"), 12);
}

TEST(QVLFileMetadataCollect, ReducedRecordsAndTheirMessages) {
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
}

TEST(QVLFileMetadataCollect, MissingItemMakesNoRecord) {
    TempTree tree;
    const std::string gone = tree.path("gone");
    QVLLogCapture capture;
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

// Record builders for comparisons and restores.
plist::Dictionary record(const char* type, plist::Data hash = {}, std::string target = "",
                         plist::Dictionary xattrs = {}) {
    plist::Dictionary attributes;
    attributes.set("NSFileType", type);
    attributes.set("NSFileOwnerAccountID", 501);
    attributes.set("NSFileGroupOwnerAccountID", 501);
    attributes.set("NSFilePosixPermissions", 0644);
    attributes.set("NSFileModificationDate", plist::Date{1.0});
    attributes.set("NSFileProtectionKey", "NSFileProtectionNone");
    attributes.set("NSFileSize", 96);
    plist::Dictionary r;
    r.set("QVLManifestFileAttributes", attributes);
    r.set("QVLManifestFileExtendedAttributes", xattrs);
    r.set("QVLManifestFileHash", hash);
    r.set("QVLManifestSymbolicLinkTargetFile", target);
    return r;
}

// `r` with one attribute set, or removed when `value` is empty.
plist::Dictionary withAttribute(plist::Dictionary r, const char* key, std::optional<plist::Value> value) {
    plist::Dictionary attributes = *r.getDictionary("QVLManifestFileAttributes");
    if (value)
        attributes.set(key, std::move(*value));
    else
        attributes.erase(key);
    r.set("QVLManifestFileAttributes", attributes);
    return r;
}

plist::Dictionary xattrs(const char* name, uint8_t value) {
    plist::Dictionary d;
    d.set(name, plist::Data{value});
    return d;
}

TEST(QVLFileMetadataCompare, FirstDifferenceInOrderDecides) {
    const plist::Dictionary file = record("NSFileTypeRegular", sha1Of("a"));
    const plist::Dictionary folder = record("NSFileTypeDirectory");
    const auto tagged = [](const char* name, uint8_t v) {
        return record("NSFileTypeDirectory", {}, "", xattrs(name, v));
    };
    const char* const kRebuild = "com.ostrel.lumerad.dbRebuildUuid";
    const struct {
        plist::Dictionary a, b;
        int result;
    } cases[] = {
        {file, file, QVLFileMetadata::kSame},
        {file, folder, QVLFileMetadata::kTypeDiffers},
        {plist::Dictionary(), plist::Dictionary(), QVLFileMetadata::kTypeDiffers},
        {record("NSFileTypeRegular"), file, QVLFileMetadata::kDigestDiffers},
        {file, record("NSFileTypeRegular", sha1Of("b")), QVLFileMetadata::kDigestDiffers},
        {record("NSFileTypeSymbolicLink", {}, "a"), record("NSFileTypeSymbolicLink", {}, "b"),
         QVLFileMetadata::kLinkTargetDiffers},
        {file, withAttribute(file, "NSFileOwnerAccountID", 0), QVLFileMetadata::kOwnershipOrModeDiffers},
        {file, withAttribute(file, "NSFilePosixPermissions", 0600), QVLFileMetadata::kOwnershipOrModeDiffers},
        // Only this record's keys are looked at.
        {withAttribute(file, "NSFilePosixPermissions", std::nullopt), file, QVLFileMetadata::kSame},
        {file, withAttribute(file, "NSFilePosixPermissions", std::nullopt),
         QVLFileMetadata::kOwnershipOrModeDiffers},
        // Dates, sizes, protection classes and the rebuild attribute are not compared.
        {folder, withAttribute(folder, "NSFileModificationDate", plist::Date{5.0}), QVLFileMetadata::kSame},
        {folder, withAttribute(folder, "NSFileSize", 4096), QVLFileMetadata::kSame},
        {folder, withAttribute(folder, "NSFileProtectionKey", "NSFileProtectionComplete"),
         QVLFileMetadata::kSame},
        {tagged(kRebuild, 1), tagged(kRebuild, 2), QVLFileMetadata::kSame},
        {tagged(kRebuild, 1), folder, QVLFileMetadata::kSame},
        {tagged("tag", 1), folder, QVLFileMetadata::kExtendedAttributesDiffer},
        {tagged("tag", 1), tagged("tag", 2), QVLFileMetadata::kExtendedAttributesDiffer},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        QVLFileMetadata left(cases[i].a), right(cases[i].b);
        EXPECT_EQ(left.compareWith(&right), cases[i].result) << "case " << i;
    }
    EXPECT_EQ(QVLFileMetadata(file).compareWith(nullptr), QVLFileMetadata::kOtherIsNull);
}

TEST(QVLFileMetadataRestore, WritesModeDateAndAttributesAndKeepsOthers) {
    EXPECT_EQ(keysOf(QVLFileMetadata::fileAttributesAllowSet(
                  *record("NSFileTypeRegular").getDictionary("QVLManifestFileAttributes"))),
              (Lines{"NSFileOwnerAccountID", "NSFileGroupOwnerAccountID", "NSFilePosixPermissions",
                     "NSFileModificationDate"}));
    TempTree tree;
    const std::string source = tree.file("source", "x", 0751);
    setUserAttribute(source, "recorded", "r");
    QVLFileMetadata m = collect(source);
    const std::string target = tree.file("target", "x", 0600);
    setUserAttribute(target, "extra", "e");
    ASSERT_TRUE(m.restoreAttribuesToPath(target, linuxFiles()));
    QVLFileMetadata restored = collect(target);
    EXPECT_EQ(attribute(restored, "NSFilePosixPermissions"), 0751);
    EXPECT_NEAR(restored.getFileAttributes()->find("NSFileModificationDate")->asDate()->secondsSince2001,
                m.getFileAttributes()->find("NSFileModificationDate")->asDate()->secondsSince2001, 1e-6);
    EXPECT_EQ(*restored.getExtendedAttributes()->getData("recorded"), (plist::Data{'r'}));
    EXPECT_EQ(m.compareWith(&restored), QVLFileMetadata::kExtendedAttributesDiffer);  // "extra" is kept
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
    EXPECT_FALSE(
        QVLFileMetadata(record("NSFileTypeRegular")).restoreAttribuesToPath(tree.path("gone"), linuxFiles()));
    EXPECT_TRUE(capture.containsPrefix("Could not set file attributs at " + tree.path("gone") +
                                       " with error - No such file or directory (errno 2), attributes = "));
    EXPECT_FALSE(QVLFileMetadata(withAttribute(record("NSFileTypeRegular"), "NSFilePosixPermissions", "rwx"))
                     .restoreAttribuesToPath(path, linuxFiles()));
    EXPECT_EQ(lstatOf(path).st_mode & 07777, 0644u);  // nothing applied
    EXPECT_FALSE(
        QVLFileMetadata(ownedHere(withAttribute(record("NSFileTypeRegular"), "NSFileProtectionKey", 3)))
            .restoreAttribuesToPath(path, linuxFiles()));
    EXPECT_TRUE(capture.containsPrefix("Could not set file protection key at " + path));

    // An attribute value that is not data stops the attributes but not the
    // restore of a file; a link's restore fails with it.
    plist::Dictionary values = xattrs("first", '1');
    values.set("bad", "string");
    values.set("after", plist::Data{'2'});
    capture.clear();
    EXPECT_TRUE(QVLFileMetadata(ownedHere(record("NSFileTypeRegular", {}, "", values)))
                    .restoreAttribuesToPath(path, linuxFiles()));
    EXPECT_EQ(capture.lines(), Lines{"Got non-data value"});
    EXPECT_EQ(*QVLFileMetadata::extendedAttributeKeysWithPath(path, linuxFiles()), Lines{"first"});
    EXPECT_FALSE(QVLFileMetadata(record("NSFileTypeSymbolicLink", {}, "f", values))
                     .restoreAttribuesToPath(tree.symlink("l", "f"), linuxFiles()));
}

TEST(QVLFileMetadataRestore, AsRootOwnersProtectionClassAndLinksOwnOwner) {
    if (getuid() != 0) GTEST_SKIP() << "needs root to chown and to write trusted. attributes";
    TempTree tree;
    const std::string path = tree.file("f", "x");
    const std::string link = tree.symlink("l", "f");
    const auto restore = [&](const plist::Dictionary& r, const std::string& where) {
        return QVLFileMetadata(r).restoreAttribuesToPath(where, linuxFiles());
    };
    ASSERT_TRUE(restore(
        withAttribute(record("NSFileTypeRegular"), "NSFileProtectionKey", "NSFileProtectionComplete"), path));
    QVLFileMetadata restored = collect(path);
    EXPECT_EQ(attribute(restored, "NSFileOwnerAccountID"), 501);
    EXPECT_EQ(attribute(restored, "NSFileGroupOwnerAccountID"), 501);
    EXPECT_EQ(*restored.getFileAttributes()->getString("NSFileProtectionKey"), "NSFileProtectionComplete");

    // A link gets its own owner; the target keeps its.
    ASSERT_TRUE(
        restore(withAttribute(record("NSFileTypeSymbolicLink", {}, "f"), "NSFileOwnerAccountID", 7), link));
    EXPECT_EQ(lstatOf(link).st_uid, 7u);
    EXPECT_EQ(lstatOf(path).st_uid, 501u);

    // A record that names its owner only by name is resolved on this system.
    plist::Dictionary byName =
        withAttribute(record("NSFileTypeRegular"), "NSFileOwnerAccountID", std::nullopt);
    ASSERT_TRUE(restore(withAttribute(byName, "NSFileOwnerAccountName", "root"), path));
    EXPECT_EQ(lstatOf(path).st_uid, 0u);

    // An immutable item still takes a new mode: the flag is lifted and put back.
    plist::Dictionary immutable = withAttribute(record("NSFileTypeRegular"), "NSFileImmutable", true);
    ASSERT_TRUE(restore(immutable, path));
    ASSERT_TRUE(restore(withAttribute(immutable, "NSFilePosixPermissions", 0600), path));
    QVLFileMetadata locked = collect(path);
    EXPECT_EQ(locked.getFileAttributes()->getBoolean("NSFileImmutable"), true);
    EXPECT_EQ(attribute(locked, "NSFilePosixPermissions"), 0600);
}

}  // namespace
}  // namespace qvl
