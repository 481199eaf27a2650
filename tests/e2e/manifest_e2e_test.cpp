// End-to-end tests of the device manifest and attribute restore commands:
// the real helper in a sandboxed device root, a signed manifest made by
// `qvlmanifest sign` with the development PKI placed in its work container,
// and qvalctl as the client. One table per command; the loading of the
// signed manifest has a helper of its own, as a loaded manifest is kept.
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "manifest/QVLSignedManifestTestSupport.h"
#include "plist/PropertyList.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TestSupport.h"

namespace qvl::e2e {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
using plist::Dictionary;
using plist::Value;
using testing::files;
using testing::lstatOf;
using testing::record;
using testing::withAttribute;

const std::string kSigned = "/private/var/QVLWorkContainer/Manifest.plist.signed";
const std::string kDevice = "/private/var/QVLWorkContainer/DeviceManifest.plist";

// A record for the restore: owner mobile, `mode`, and for a.jpg-like files a
// protection class and one extended attribute.
Value restorable(const char* type, int64_t mode, bool marked = false) {
    Dictionary r = record(type, mode);
    if (!marked) return r;
    r = withAttribute(r, "NSFileProtectionKey", Value("NSFileProtectionComplete"));
    testing::sub(r, "QVLManifestFileExtendedAttributes").set("demo", Value(plist::Data{'1'}));
    return r;
}

// Signs a manifest of `version` from `components` ({section, name, file
// manifest, bare}) with the manual signer, through `qvlmanifest sign`.
struct Component {
    const char* section;
    const char* name;
    Dictionary manifest;
    bool bare = false;
};
std::string sign(const std::string& folder, int version, const std::vector<Component>& components,
                 const std::vector<std::string>& order = {}, const char* signer = "manual-signer") {
    plist::Array recipeComponents, installationOrder;
    for (const Component& c : components) {
        const std::string file = folder + "/" + c.name + ".plist";
        testing::writeText(file, plist::writeXML(Value(c.manifest)));
        recipeComponents.push_back(Value(files({{"Section", c.section},
                                                {"Name", c.name},
                                                {"Certificate", "Main"},
                                                {"ManifestFile", file},
                                                {"Bare", c.bare}})));
    }
    for (const std::string& item : order) installationOrder.push_back(Value(item));
    const std::string pki = fs::absolute(testing::pkiPath("")).string();
    Dictionary recipe =
        files({{"Version", version},
               {"Certificates", files({{"Main", files({{"Chain", pki + signer + "-chain.pem"},
                                                       {"PrivateKey", pki + signer + ".key"},
                                                       {"TypeOfSignature", "Production"}})}})},
               {"Components", recipeComponents}});
    if (!order.empty()) recipe.set("InstallationOrder", Value(installationOrder));
    testing::writeText(folder + "/recipe.plist", plist::writeXML(Value(recipe)));
    const std::string out = folder + "/signed-" + std::to_string(version) + signer;
    const char* build = getenv("QVL_BINARY_DIR");
    const CommandResult made =
        runCommand({std::string(build ? build : "build") + "/tools/qvlmanifest/qvlmanifest", "sign",
                    folder + "/recipe.plist", "-o", out});
    EXPECT_EQ(made.status, 0) << made.output;
    return out;
}

class ManifestE2ETest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (auto reason = Sandbox::unavailableReason()) GTEST_SKIP() << *reason;
        ASSERT_TRUE(sandbox.start());
        fs::create_directories(host("/private/var/QVLWorkContainer"));
    }
    std::string host(const std::string& path) const { return sandbox.host(path); }
    void make(const std::string& path, const std::string& content = "x") {
        fs::create_directories(fs::path(host(path)).parent_path());
        testing::writeText(host(path), content);
    }
    void place(const std::string& signedFile) {
        fs::copy_file(signedFile, host(kSigned), fs::copy_options::overwrite_existing);
    }
    // The answer and the lines logged from the command's entry on.
    std::pair<int, Lines> run(const std::vector<std::string>& command) {
        const size_t from = sandbox.logLines().size();
        const int status = sandbox.qvalctl(command, "mobile").status;
        const Lines lines = sandbox.handledSince(from);
        auto first =
            std::find_if(lines.begin(), lines.end(), [](auto& l) { return l.starts_with("Entering "); });
        Lines logged(first, std::find(first, lines.end(), "Message handled"));
        // A dictionary parameter fills rows of its own: keep the entry's first.
        if (!logged.empty() && logged[0].ends_with("{"))
            logged.erase(logged.begin() + 1, std::find(logged.begin(), logged.end(), "}") + 1);
        return {status, logged};
    }
    std::string transactions() const {
        return testing::readText(sandbox.socketDirectory() + "/com.ostrel.quorvaledhelper.transactions");
    }
    std::vector<std::string> deviceManifestKeys() const {
        const auto value = plist::read(testing::readText(host(kDevice)));
        std::vector<std::string> keys;
        if (value && value->asDictionary())
            for (const auto& entry : *value->asDictionary()) keys.push_back(entry.first);
        std::sort(keys.begin(), keys.end());
        return keys;
    }
    std::string xattr(const std::string& path, const char* name) const {
        char value[64] = {};
        const ssize_t n = ::lgetxattr(host(path).c_str(), name, value, sizeof value);
        return n < 0 ? "" : std::string(value, static_cast<size_t>(n));
    }
    Sandbox sandbox;
    testing::TempTree recipes;
};

TEST_F(ManifestE2ETest, LoadsOnceAndHoldsTheHelperBusyForEveryAttempt) {
    const std::string good =
        sign(recipes.root(), 2,
             {{"Backup", "Base", files({{"/var/x", restorable("NSFileTypeRegular", 0600)}})},
              {"AppData", "com.demo.wrapped", files({{"/d", restorable("NSFileTypeRegular", 0600)}})},
              {"AppData", "com.demo.bare", files({{"/d", restorable("NSFileTypeRegular", 0640)}}), true}});
    const std::string refused =
        sign(recipes.root(), 5, {{"Backup", "backup.B", Dictionary()}}, {"backup.B"}, "unknown-signer");
    EXPECT_EQ(transactions(), "0\n");
    const std::string unreadable =
        "-[QVLSignedManifest initWithNSStream:]: Cannot convert to property list - " + kSigned;
    const struct {
        std::function<void()> plant;
        std::vector<std::string> command;
        const char* failure;  // the line before "Cannot load manifest."; "" for none
    } attempts[] = {
        {[] {}, {"createDeviceManifest:", "Path=/private/var/empty", "IsBackup=false"}, ""},
        {[&] { ASSERT_EQ(::mkfifo(host(kSigned).c_str(), 0666), 0); },  // must not block
         {"restoreBackupAttributes:", "StagingRootPath=/s", "Location=0", "Length=1"},
         ": Invalid argument(0x"},
        {[&] {
             fs::remove(host(kSigned));
             fs::create_symlink(good, host(kSigned));
         },
         {"restoreAppDataAttributes:", "StagingRootPath=/s", "ContentType=AppData",
          "Identifier=com.demo.bare"},
         ": Too many levels of symbolic links(0x"},
        {[&] {
             fs::remove(host(kSigned));
             place(refused);
         },
         {"createDeviceManifest:", "Path=/", "IsBackup=true", "Location=0", "Length=1"},
         nullptr},
    };
    int count = 0;
    for (const auto& a : attempts) {
        a.plant();
        const auto [status, lines] = run(a.command);
        EXPECT_EQ(status, 1) << a.command[0];
        ASSERT_GE(lines.size(), 3u);
        EXPECT_EQ(lines[1], "Loading signed manifest.");
        EXPECT_EQ(lines.back(), "Cannot load manifest.");
        if (a.failure) {
            EXPECT_EQ(lines.size(), *a.failure ? 4u : 3u);
            EXPECT_TRUE(!*a.failure || lines[2].starts_with(unreadable + a.failure)) << lines[2];
        }
        EXPECT_EQ(transactions(), std::to_string(++count) + "\n");
    }
    // Loaded once, then kept: a replaced file is never read again.
    fs::remove(host(kSigned));
    place(good);
    make("/private/var/tmp/app/d");
    EXPECT_EQ(run({"restoreAppDataAttributes:", "StagingRootPath=/private/var/tmp/app", "ContentType=AppData",
                   "Identifier=com.demo.wrapped"})
                  .first,
              0);
    EXPECT_EQ(lstatOf(host("/private/var/tmp/app/d")).st_mode & 07777, 0600u);
    testing::writeText(host(kSigned), "garbage");
    // A bare entry restores as a wrapped one does.
    const auto [status, lines] = run({"restoreAppDataAttributes:", "StagingRootPath=/private/var/tmp/app",
                                      "ContentType=AppData", "Identifier=com.demo.bare"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(lines.size(), 1u) << lines.back();  // the entry line only: nothing is loaded
    EXPECT_EQ(lstatOf(host("/private/var/tmp/app/d")).st_mode & 07777, 0640u);
    EXPECT_EQ(lstatOf(host("/private/var/tmp/app/d")).st_uid, 501u);
    EXPECT_EQ(transactions(), std::to_string(count + 1) + "\n");
}

// The version 5 manifest of the tables below: three backups around an app.
class ContentE2ETest : public ManifestE2ETest {
  protected:
    void SetUp() override {
        ManifestE2ETest::SetUp();
        if (IsSkipped()) return;
        const Dictionary base =
            files({{"/", restorable("NSFileTypeDirectory", 0750)},
                   {"/var/mobile/Media/DCIM", restorable("NSFileTypeDirectory", 0755)},
                   {"/var/mobile/Media/DCIM/a.jpg", restorable("NSFileTypeRegular", 0600, true)}});
        const Dictionary extra =
            files({{"/var/mobile/Media/DCIM/b.jpg", restorable("NSFileTypeRegular", 0640)},
                   {"/var/db/demo/link", restorable("NSFileTypeSymbolicLink", 0755)}});
        Dictionary late = files({{"/bad", "not a record"}, {"/var/db/demo/late", record()}});
        for (const char* skipped : {"/var/mobile/Containers/x", "/var/containers/x",
                                    "/var/mobile/Applications/x", "/var/mobile/DravoBuiltProducts/x"}) {
            late.set(skipped, record());
            make("/private" + std::string(skipped));
        }
        const Dictionary data = files({{"/Documents/d", restorable("NSFileTypeRegular", 0600)}});
        place(sign(recipes.root(), 5,
                   {{"Backup", "backup.Base", base},
                    {"Backup", "backup.Extra", extra},
                    {"Backup", "backup.Late", late},
                    {"App", "app.com.demo.app", Dictionary()},
                    {"AppData", "com.demo.app", data},
                    {"GroupData", "group.com.demo", data},
                    {"ExtensionData", "com.demo.app.widget", data}},
                   {"backup.Base", "backup.Extra", "app.com.demo.app", "backup.Late"}));
        for (const char* name : {"a.jpg", "b.jpg", "other.jpg"})
            make("/private/var/mobile/Media/DCIM/" + std::string(name), name);
        make("/private/var/db/demo/late");
        make("/private/var/tmp/outside/Media/DCIM/a.jpg");
        fs::create_symlink("/private/var/tmp/outside/Media/DCIM/a.jpg", host("/private/var/db/demo/link"));
    }
};

TEST_F(ContentE2ETest, CreateDeviceManifest) {
    const std::string dcim = "/var/mobile/Media/DCIM";
    const struct {
        std::vector<std::string> parameters;
        int status;
        std::vector<std::string> keys;  // of the file afterwards
        std::string last;               // line logged last
    } cases[] = {
        {{"Path=/private/var/mobile/Media/DCIM", "IsBackup=false", "Location=none"},
         0,
         {"/", "/a.jpg", "/b.jpg", "/other.jpg"},
         "Device manifest created (for /private/var/mobile/Media/DCIM)"},
        {{"Path=/ignored", "IsBackup=true", "Location=0", "Length=1"},
         0,
         {dcim, dcim + "/a.jpg"},
         "Device manifest created (for /ignored)"},
        {{"Path=/", "IsBackup=1", "Location=0", "Length=2"},
         0,
         {"/var/db/demo/link", dcim, dcim + "/a.jpg", dcim + "/b.jpg"},
         "Device manifest created (for /)"},
        {{"Path=/", "IsBackup=true", "Location=3", "Length=1"},
         0,
         {"/var/db/demo/late"},
         "Device manifest created (for /)"},
        {{"Path=/", "IsBackup=true", "Location=1", "Length=0"}, 0, {}, "Device manifest created (for /)"},
        {{"Path=/", "IsBackup=true", "Location=3", "Length=2"},
         1,
         {},
         "Range [3..5) is outside the installation order of 4 items."},
        {{"Path=/", "IsBackup=true", "Location=-1", "Length=1"},
         1,
         {},
         "-[QVLHOperations createDeviceManifest:forBackup:range:]: range [-1..0) lies outside the "
         "installation order."},
        {{"Path=/", "IsBackup=true", "Location=zero", "Length=1"},
         1,
         {},
         "-[QVLHMessageResponder createDeviceManifest:]: expected \"Location\" and \"Length\" integers for a "
         "backup, "
         "got {"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> command = {"createDeviceManifest:"};
        command.insert(command.end(), c.parameters.begin(), c.parameters.end());
        const auto [status, lines] = run(command);
        EXPECT_EQ(status, c.status) << c.parameters[0] << " " << c.parameters[2];
        EXPECT_NE(std::find(lines.begin(), lines.end(), c.last), lines.end()) << c.last;
        if (c.status == 0) {
            EXPECT_EQ(deviceManifestKeys(), c.keys) << c.parameters[2];
        }
    }
    // The last good file stays after the refusals; it is a binary property list only root writes.
    EXPECT_EQ(deviceManifestKeys(), Lines{});
    EXPECT_EQ(lstatOf(host(kDevice)).st_mode & 07777, 0644u);
    EXPECT_EQ(run({"createDeviceManifest:", "Path=/x", "IsBackup=true", "Location=0", "Length=2"}).second,
              (Lines{"Entering -[QVLHMessageResponder createDeviceManifest:] with parameter: {",
                     "Will create device manifest from root /x, backup? 1, range [0..2)",
                     "Merging manifest item [0..2)", "Device manifest created (for /x)"}));
    const auto written = plist::read(testing::readText(host(kDevice)));
    const Dictionary* a = written->asDictionary()->getDictionary(dcim + "/a.jpg");
    ASSERT_TRUE(a);
    EXPECT_EQ(*a->getData("QVLManifestFileHash"), testing::sha1Of("a.jpg"));
    EXPECT_TRUE(testing::readText(host(kDevice)).starts_with("bplist00"));
}

TEST_F(ContentE2ETest, RestoreBackupAttributes) {
    make("/private/var/tmp/stage/var/mobile/Media/DCIM/a.jpg");
    make("/private/var/tmp/stage/var/mobile/Media/DCIM/b.jpg");
    fs::create_directories(host("/private/var/tmp/stage/var/db/demo"));
    fs::create_symlink("/private/var/tmp/outside/Media/DCIM/a.jpg",
                       host("/private/var/tmp/stage/var/db/demo/link"));
    // A staging tree with a link out of it on the way to its records.
    fs::create_directories(host("/private/var/tmp/trap/var/mobile"));
    fs::create_symlink("/private/var/tmp/outside/Media", host("/private/var/tmp/trap/var/mobile/Media"));
    const std::string trap = "/private/var/tmp/trap";
    const struct {
        const char* root;
        const char* location;
        const char* length;
        int status;
        std::string last;
    } cases[] = {
        {"/private/var/tmp/stage/", "0", "2", 0, "Merging manifest item [0..2)"},
        {"/private/var/tmp/stage", "3", "1", 1, "Merging manifest item [3..4)"},  // a value that is no record
        {"/private/var/tmp/stage", "2", "1", 0, "Merging manifest item [2..3)"},  // an app: no backup
        {"/private/var/tmp/stage", "4", "1", 1, "Range [4..5) is outside the installation order of 4 items."},
        {trap.c_str(), "0", "1", 1,
         "-[QVLHOperations restoreAttributesUnder:fromManifest:]: Cannot reach " + trap +
             "/var/mobile/Media/DCIM below " + trap + " - Too many levels of symbolic links"},
    };
    for (const auto& c : cases) {
        const auto [status, lines] =
            run({"restoreBackupAttributes:", std::string("StagingRootPath=") + c.root,
                 std::string("Location=") + c.location, std::string("Length=") + c.length});
        EXPECT_EQ(status, c.status) << c.root << " " << c.location;
        EXPECT_EQ(lines.back(), c.last);
    }
    // The root itself, a file with its protection class and attribute, a link as the link.
    EXPECT_EQ(lstatOf(host("/private/var/tmp/stage")).st_mode, S_IFDIR | 0750u);
    const std::string a = "/private/var/tmp/stage/var/mobile/Media/DCIM/a.jpg";
    EXPECT_EQ(lstatOf(host(a)).st_mode & 07777, 0600u);
    EXPECT_EQ(lstatOf(host(a)).st_uid, 501u);
    EXPECT_EQ(xattr(a, "user.demo"), "1");
    EXPECT_EQ(xattr(a, "trusted.ostrel.protection-class"), "NSFileProtectionComplete");
    EXPECT_EQ(lstatOf(host("/private/var/tmp/stage/var/db/demo/link")).st_uid, 501u);
    for (const char* outside :
         {"/private/var/tmp/outside/Media/DCIM/a.jpg", "/private/var/tmp/outside/Media/DCIM"}) {
        EXPECT_EQ(lstatOf(host(outside)).st_uid, 0u) << outside;
        EXPECT_NE(lstatOf(host(outside)).st_mode & 07777, 0600u) << outside;
    }
}

TEST_F(ContentE2ETest, RestoreAppDataAttributes) {
    const struct {
        const char* type;
        const char* identifier;
        int status;
        std::string last;  // "" for none after the entry line
    } cases[] = {
        {"AppData", "com.demo.app", 0, ""},
        {"GroupData", "group.com.demo", 0, ""},
        {"ExtensionData", "com.demo.app.widget", 0, ""},
        {"PluginData", "com.demo.app", 1, "Couldn't load manifest dict for PluginData/com.demo.app"},
        {"AppData", "com.demo.missing", 1, "Couldn't load manifest dict for AppData/com.demo.missing"},
    };
    for (const auto& c : cases) {
        const std::string root = std::string("/private/var/tmp/") + c.type + "-" + c.identifier;
        make(root + "/Documents/d");
        const auto [status, lines] =
            run({"restoreAppDataAttributes:", "StagingRootPath=" + root, std::string("ContentType=") + c.type,
                 std::string("Identifier=") + c.identifier});
        EXPECT_EQ(status, c.status) << c.type;
        EXPECT_EQ(lines.size() > 1 ? lines.back() : "", c.last) << c.type;
        EXPECT_EQ(lstatOf(host(root + "/Documents/d")).st_mode & 07777, c.status == 0 ? 0600u : 0644u)
            << c.type;
    }
    const auto [status, lines] =
        run({"restoreAppDataAttributes:", "StagingRootPath=/x", "ContentType=AppData"});
    EXPECT_EQ(status, 1);
    EXPECT_EQ(lines.at(1),
              "-[QVLHMessageResponder restoreAppDataAttributes:]: expected a dictionary with "
              "\"StagingRootPath\", \"ContentType\" and \"Identifier\" strings, got {");
}

}  // namespace
}  // namespace qvl::e2e
