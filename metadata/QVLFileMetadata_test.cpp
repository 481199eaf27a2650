#include "metadata/QVLFileMetadata.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <vector>

#include "base/QVLLogCapture.h"
#include "metadata/MetadataTestSupport.h"
#include "platform/fileattrs/FileAttributesPort.h"

namespace qvl {
namespace {

using testing::FaultyPort;
using testing::setUserAttribute;
using testing::sha1Of;
using testing::TempTree;

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

QVLFileMetadata collect(const std::string& path) {
    std::optional<QVLFileMetadata> m = QVLFileMetadata::fileMetadatatWithPath(path);
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
    EXPECT_EQ(*m.getFileType(), "NSFileTypeRegular");
    EXPECT_EQ(m.getFileSize(), 5);
    plist::Dictionary expected;
    expected.set("com.example.tag", plist::Data{'v', 0, 'x'});
    expected.set("empty", plist::Data{});
    EXPECT_TRUE(plist::Value(*m.getExtendedAttributes()) == plist::Value(expected));

    struct stat st {};
    ASSERT_EQ(::lstat(path.c_str(), &st), 0);
    EXPECT_EQ(attribute(m, "NSFilePosixPermissions"), 0640);
    EXPECT_EQ(attribute(m, "NSFileOwnerAccountID"), st.st_uid);
    EXPECT_EQ(attribute(m, "NSFileGroupOwnerAccountID"), st.st_gid);
    EXPECT_EQ(attribute(m, "NSFileReferenceCount"), 1);
    EXPECT_EQ(attribute(m, "NSFileSystemFileNumber"), static_cast<int64_t>(st.st_ino));
    EXPECT_TRUE(m.getFileAttributes()->find("NSFileSize")->asInteger()->isUnsigned);
    const plist::Date* modified = m.getFileAttributes()->find("NSFileModificationDate")->asDate();
    ASSERT_TRUE(modified);
    EXPECT_NEAR(modified->toUnix(), st.st_mtim.tv_sec + st.st_mtim.tv_nsec * 1e-9, 1e-6);
    EXPECT_EQ(*m.getFileAttributes()->getString("NSFileProtectionKey"), "NSFileProtectionNone");
    EXPECT_EQ(m.getFileAttributes()->getBoolean("NSFileImmutable"), false);
    if (getuid() == 0) {
        EXPECT_EQ(*m.getFileAttributes()->getString("NSFileOwnerAccountName"), "root");
    }

    EXPECT_EQ(*collect(tree.file("zero")).getHash(), sha1Of(""));
}

TEST(QVLFileMetadataCollect, FoldersLinksAndSpecialFiles) {
    TempTree tree;
    QVLFileMetadata folder = collect(tree.folder("d"));
    EXPECT_EQ(keysOf(folder.dict()), kAllKeys);
    EXPECT_TRUE(folder.getHash()->empty());
    EXPECT_EQ(*folder.getTargetFile(), "");
    EXPECT_EQ(*folder.getFileType(), "NSFileTypeDirectory");
    EXPECT_EQ(folder.getFileSize(), 0);

    // A dangling link is recorded as itself, with its text unresolved.
    QVLFileMetadata link = collect(tree.symlink("d/link", "../nowhere/x"));
    EXPECT_EQ(keysOf(link.dict()), kAllKeys);
    EXPECT_EQ(*link.getFileType(), "NSFileTypeSymbolicLink");
    EXPECT_TRUE(link.getHash()->empty());
    EXPECT_EQ(*link.getTargetFile(), "../nowhere/x");
    EXPECT_EQ(link.getFileSize(), 0);
    EXPECT_EQ(attribute(link, "NSFileSize"), 12);

    EXPECT_EQ(*collect(tree.socket("s")).getFileType(), "NSFileTypeSocket");
    QVLFileMetadata fifo = collect(tree.fifo("p"));
    EXPECT_EQ(*fifo.getFileType(), "NSFileTypeUnknown");
    EXPECT_TRUE(fifo.getHash()->empty());
}

TEST(QVLFileMetadataCollect, ReducedRecordsAndTheirMessages) {
    TempTree tree;
    const std::string path = tree.file("f", "x");
    FaultyPort port;
    platform::ScopedFileAttributesPort scoped(port);
    {
        QVLLogCapture capture;
        port.failFirstListExtendedAttributes = [](const std::string&) { return true; };
        QVLFileMetadata m = collect(path);
        EXPECT_EQ(keysOf(m.dict()), std::vector<std::string>{"QVLManifestFileAttributes"});
        EXPECT_FALSE(m.getHash());
        EXPECT_FALSE(m.getTargetFile());
        EXPECT_FALSE(m.getExtendedAttributes());
        EXPECT_EQ(capture.lines(),
                  (std::vector<std::string>{"Could not extract extended attributes from " + path + ".",
                                            "Could not get attribute keys from file " + path}));
        port.failFirstListExtendedAttributes = nullptr;
    }
    {
        setUserAttribute(path, "a", "abc");
        port.failListExtendedAttributes = [](const std::string&) { return true; };
        QVLLogCapture capture;
        EXPECT_EQ(collect(path).dict().size(), 1u);
        EXPECT_TRUE(capture.contains("Could not extract extended attributes from " + path +
                                     ". File is expected to have extended attributes."));
        port.failListExtendedAttributes = nullptr;
    }
    {
        // A value that cannot be read degrades instead of failing the record.
        QVLLogCapture capture;
        port.failGetExtendedAttribute = [](const std::string&, bool sizeQuery) { return sizeQuery; };
        EXPECT_EQ(QVLFileMetadata::valueForExtendedAttributesKey("a", path), plist::Data{});
        EXPECT_TRUE(
            capture.contains("Could not extract extended file attributes from " + path + ", returned -1"));
        port.failGetExtendedAttribute = [](const std::string&, bool sizeQuery) { return !sizeQuery; };
        EXPECT_EQ(QVLFileMetadata::valueForExtendedAttributesKey("a", path), plist::Data(3, 0));
        EXPECT_TRUE(capture.contains("Coud not extract extended file attributes from " + path +
                                     ". File is expected to have extended attributes."));
        port.failGetExtendedAttribute = nullptr;
    }
    {
        QVLLogCapture capture;
        port.failOpen = [](const std::string&) { return true; };
        QVLFileMetadata unreadable = collect(path);
        EXPECT_EQ(keysOf(unreadable.dict()), kAllKeys);
        EXPECT_TRUE(unreadable.getHash()->empty());
        EXPECT_TRUE(capture.contains("Maybe it's an Nimbra file (" + path + ")?"));
    }
}

TEST(QVLFileMetadataCollect, MissingItemMakesNoRecord) {
    TempTree tree;
    QVLLogCapture capture;
    EXPECT_FALSE(QVLFileMetadata::fileMetadatatWithPath(tree.path("gone")));
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{"Get file attributes failed for " + tree.path("gone") +
                                            " with error - No such file or directory (errno 2)",
                                        "Cannot get file attribute for " + tree.path("gone")}));
    EXPECT_FALSE(QVLFileMetadata::fileHashWithPath(tree.path("gone")));
    EXPECT_TRUE(capture.contains("File does not exist at " + tree.path("gone")));
    EXPECT_FALSE(QVLFileMetadata::targetFileWithPath(tree.file("plain")));
    EXPECT_TRUE(capture.containsPrefix("Could not get destination of symbolic link " + tree.path("plain") +
                                       " with error - "));
}

TEST(QVLFileMetadataGetters, WrongKindsReadAsNull) {
    plist::Dictionary attributes;
    attributes.set("NSFileType", "NSFileTypeRegular");
    attributes.set("NSFileSize", "12");
    plist::Dictionary record;
    record.set("QVLManifestFileAttributes", attributes);
    record.set("QVLManifestFileExtendedAttributes", "not a dictionary");
    record.set("QVLManifestFileHash", "not data");
    record.set("QVLManifestSymbolicLinkTargetFile", plist::Data{1});
    QVLFileMetadata m = QVLFileMetadata::fileMetaDataWithMetadataDictionary(record);
    EXPECT_FALSE(m.getHash());
    EXPECT_FALSE(m.getExtendedAttributes());
    EXPECT_FALSE(m.getTargetFile());
    EXPECT_EQ(m.getFileSize(), 0);
    EXPECT_EQ(*m.getFileType(), "NSFileTypeRegular");
    EXPECT_FALSE(QVLFileMetadata(plist::Dictionary()).getFileType());
}

// Record builders for comparisons.
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

plist::Dictionary withAttribute(plist::Dictionary r, const char* key, plist::Value value) {
    plist::Dictionary attributes = *r.getDictionary("QVLManifestFileAttributes");
    attributes.set(key, std::move(value));
    r.set("QVLManifestFileAttributes", attributes);
    return r;
}

int compare(const plist::Dictionary& a, const plist::Dictionary& b) {
    QVLFileMetadata left(a), right(b);
    return left.compareWith(&right);
}

TEST(QVLFileMetadataCompare, FirstDifferenceInOrderDecides) {
    const plist::Dictionary file = record("NSFileTypeRegular", sha1Of("a"));
    QVLFileMetadata m(file);
    EXPECT_EQ(m.compareWith(&m), 6);
    EXPECT_EQ(m.compareWith(nullptr), 0);
    EXPECT_EQ(compare(file, record("NSFileTypeDirectory")), 1);
    EXPECT_EQ(compare(plist::Dictionary(), plist::Dictionary()), 1);
    EXPECT_EQ(compare(record("NSFileTypeRegular"), file), 2);
    EXPECT_EQ(compare(file, record("NSFileTypeRegular", sha1Of("b"))), 2);
    EXPECT_EQ(compare(record("NSFileTypeSymbolicLink", {}, "a"), record("NSFileTypeSymbolicLink", {}, "b")),
              3);
    EXPECT_EQ(compare(file, withAttribute(file, "NSFileOwnerAccountID", 0)), 4);
    EXPECT_EQ(compare(file, withAttribute(file, "NSFilePosixPermissions", 0600)), 4);
    // Only this record's keys are looked at.
    plist::Dictionary noMode = file;
    plist::Dictionary attributes = *file.getDictionary("QVLManifestFileAttributes");
    attributes.erase("NSFilePosixPermissions");
    noMode.set("QVLManifestFileAttributes", attributes);
    EXPECT_EQ(compare(noMode, file), 6);
    EXPECT_EQ(compare(file, noMode), 4);
}

TEST(QVLFileMetadataCompare, IgnoresDatesSizesProtectionAndTheRebuildAttribute) {
    const plist::Dictionary folder = record("NSFileTypeDirectory");
    EXPECT_EQ(compare(folder, withAttribute(folder, "NSFileModificationDate", plist::Date{5.0})), 6);
    EXPECT_EQ(compare(folder, withAttribute(folder, "NSFileSize", 4096)), 6);
    EXPECT_EQ(compare(folder, withAttribute(folder, "NSFileProtectionKey", "NSFileProtectionComplete")), 6);

    plist::Dictionary one, other;
    one.set("com.ostrel.lumerad.dbRebuildUuid", plist::Data{1});
    other.set("com.ostrel.lumerad.dbRebuildUuid", plist::Data{2});
    EXPECT_EQ(
        compare(record("NSFileTypeDirectory", {}, "", one), record("NSFileTypeDirectory", {}, "", other)), 6);
    EXPECT_EQ(compare(record("NSFileTypeDirectory", {}, "", one), folder), 6);

    plist::Dictionary tagged;
    tagged.set("tag", plist::Data{1});
    plist::Dictionary retagged;
    retagged.set("tag", plist::Data{2});
    EXPECT_EQ(compare(record("NSFileTypeDirectory", {}, "", tagged), folder), 5);
    EXPECT_EQ(compare(record("NSFileTypeDirectory", {}, "", tagged),
                      record("NSFileTypeDirectory", {}, "", retagged)),
              5);
}

TEST(QVLFileMetadataRestore, AllowSetKeepsOnlyWritableKeys) {
    const plist::Dictionary attributes =
        *record("NSFileTypeRegular").getDictionary("QVLManifestFileAttributes");
    EXPECT_EQ(keysOf(QVLFileMetadata::fileAttributesAllowSet(attributes)),
              (std::vector<std::string>{"NSFileOwnerAccountID", "NSFileGroupOwnerAccountID",
                                        "NSFilePosixPermissions", "NSFileModificationDate"}));
}

TEST(QVLFileMetadataRestore, WritesModeDateAndAttributesAndKeepsOthers) {
    TempTree tree;
    const std::string source = tree.file("source", "x", 0751);
    setUserAttribute(source, "recorded", "r");
    QVLFileMetadata m = collect(source);
    const std::string target = tree.file("target", "x", 0600);
    setUserAttribute(target, "extra", "e");
    ASSERT_TRUE(m.restoreAttribuesToPath(target));
    QVLFileMetadata restored = collect(target);
    EXPECT_EQ(attribute(restored, "NSFilePosixPermissions"), 0751);
    EXPECT_NEAR(restored.getFileAttributes()->find("NSFileModificationDate")->asDate()->secondsSince2001,
                m.getFileAttributes()->find("NSFileModificationDate")->asDate()->secondsSince2001, 1e-6);
    EXPECT_EQ(restored.getExtendedAttributes()->size(), 2u);
    EXPECT_EQ(*restored.getExtendedAttributes()->getData("recorded"), (plist::Data{'r'}));

    // Ownership and mode are all the restore promises to put back.
    plist::Dictionary changed = m.dict();
    QVLFileMetadata expected(changed);
    EXPECT_EQ(expected.compareWith(&restored), 5);  // "extra" is kept
}

TEST(QVLFileMetadataRestore, BadValuesAndMissingItemsFail) {
    TempTree tree;
    const std::string path = tree.file("f", "x", 0644);
    QVLLogCapture capture;
    QVLFileMetadata missing(record("NSFileTypeRegular"));
    EXPECT_FALSE(missing.restoreAttribuesToPath(tree.path("gone")));
    EXPECT_TRUE(capture.containsPrefix("Could not set file attributs at " + tree.path("gone") +
                                       " with error - No such file or directory (errno 2), attributes = "));

    QVLFileMetadata badMode(withAttribute(record("NSFileTypeRegular"), "NSFilePosixPermissions", "rwx"));
    EXPECT_FALSE(badMode.restoreAttribuesToPath(path));
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);  // nothing applied

    QVLFileMetadata badProtection(withAttribute(record("NSFileTypeRegular"), "NSFileProtectionKey", 3));
    plist::Dictionary r = badProtection.dict();
    plist::Dictionary attributes = *r.getDictionary("QVLManifestFileAttributes");
    attributes.set("NSFileOwnerAccountID", static_cast<int64_t>(st.st_uid));
    attributes.set("NSFileGroupOwnerAccountID", static_cast<int64_t>(st.st_gid));
    r.set("QVLManifestFileAttributes", attributes);
    EXPECT_FALSE(QVLFileMetadata(r).restoreAttribuesToPath(path));
    EXPECT_TRUE(capture.containsPrefix("Could not set file protection key at " + path));
}

TEST(QVLFileMetadataRestore, NonDataAttributeValueFailsOnlyForLinks) {
    TempTree tree;
    const std::string path = tree.file("f");
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    plist::Dictionary xattrs;
    xattrs.set("first", plist::Data{'1'});
    xattrs.set("bad", "string");
    xattrs.set("after", plist::Data{'2'});
    plist::Dictionary r = record("NSFileTypeRegular", {}, "", xattrs);
    r = withAttribute(r, "NSFileOwnerAccountID", static_cast<int64_t>(st.st_uid));
    r = withAttribute(r, "NSFileGroupOwnerAccountID", static_cast<int64_t>(st.st_gid));
    QVLLogCapture capture;
    EXPECT_TRUE(QVLFileMetadata(r).restoreAttribuesToPath(path));
    EXPECT_TRUE(capture.contains("Got non-data value"));
    EXPECT_EQ(*QVLFileMetadata::extendedAttributeKeysWithPath(path), std::vector<std::string>{"first"});

    const std::string link = tree.symlink("l", "f");
    plist::Dictionary linkRecord = record("NSFileTypeSymbolicLink", {}, "f", xattrs);
    EXPECT_FALSE(QVLFileMetadata(linkRecord).restoreAttribuesToPath(link));
}

TEST(QVLFileMetadataRestore, AsRootOwnersProtectionClassAndLinksOwnOwner) {
    if (getuid() != 0) GTEST_SKIP() << "needs root to chown and to write trusted. attributes";
    TempTree tree;
    const std::string path = tree.file("f", "x");
    const std::string link = tree.symlink("l", "f");
    plist::Dictionary r =
        withAttribute(record("NSFileTypeRegular"), "NSFileProtectionKey", "NSFileProtectionComplete");
    ASSERT_TRUE(QVLFileMetadata(r).restoreAttribuesToPath(path));
    QVLFileMetadata restored = collect(path);
    EXPECT_EQ(attribute(restored, "NSFileOwnerAccountID"), 501);
    EXPECT_EQ(attribute(restored, "NSFileGroupOwnerAccountID"), 501);
    EXPECT_EQ(*restored.getFileAttributes()->getString("NSFileProtectionKey"), "NSFileProtectionComplete");

    plist::Dictionary linkRecord =
        withAttribute(record("NSFileTypeSymbolicLink", {}, "f"), "NSFileOwnerAccountID", 7);
    ASSERT_TRUE(QVLFileMetadata(linkRecord).restoreAttribuesToPath(link));
    struct stat st {};
    ASSERT_EQ(::lstat(link.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 7u);
    ASSERT_EQ(::stat(link.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 501u);  // the target keeps its owner

    // A record that names its owner only by name is resolved on this system.
    plist::Dictionary byName = record("NSFileTypeRegular");
    plist::Dictionary attributes = *byName.getDictionary("QVLManifestFileAttributes");
    attributes.erase("NSFileOwnerAccountID");
    attributes.set("NSFileOwnerAccountName", "root");
    byName.set("QVLManifestFileAttributes", attributes);
    ASSERT_TRUE(QVLFileMetadata(byName).restoreAttribuesToPath(path));
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 0u);

    // An immutable item still takes a new mode: the flag is lifted and put back.
    plist::Dictionary immutable = withAttribute(record("NSFileTypeRegular"), "NSFileImmutable", true);
    ASSERT_TRUE(QVLFileMetadata(immutable).restoreAttribuesToPath(path));
    ASSERT_TRUE(QVLFileMetadata(withAttribute(immutable, "NSFilePosixPermissions", 0600))
                    .restoreAttribuesToPath(path));
    QVLFileMetadata locked = collect(path);
    EXPECT_EQ(locked.getFileAttributes()->getBoolean("NSFileImmutable"), true);
    EXPECT_EQ(attribute(locked, "NSFilePosixPermissions"), 0600);
}

}  // namespace
}  // namespace qvl
