// End-to-end tests of the device manifest and attribute restore commands:
// the real helper in a sandboxed device root, a manifest signed with the
// development PKI placed in its work container, and qvalctl as the client. The loading has a helper of its
// own, as a loaded manifest is kept; the commands share one table.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

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
using testing::dict;
using testing::record;

const std::string kSigned = "/private/var/QVLWorkContainer/Manifest.plist.signed";
const std::string kDevice = "/private/var/QVLWorkContainer/DeviceManifest.plist";
const std::string kRestoreUnder = "-[QVLHOperations restoreAttributesUnder:fromManifest:]: ";
const std::string kCreate = "-[QVLHOperations createDeviceManifest:forBackup:range:]: ";

using Component = std::tuple<std::string, std::string, Dictionary>;  // section, name, files

// Signed in process as the signing tool signs: a version 5 manifest of
// `components` under certificate "Main" of the manual signer.
Dictionary segmentedOf(const std::vector<Component>& components, const Lines& order) {
    Dictionary outer = testing::segmented("manual-signer", "Production");
    plist::Array installationOrder;
    for (const std::string& item : order) installationOrder.push_back(Value(item));
    outer.set("InstallationOrder", Value(installationOrder));
    outer.erase("Backup");
    for (const auto& [section, name, files] : components) {
        if (!outer.contains(section)) outer.set(section, Value(Dictionary()));
        testing::sub(outer, section).set(name, testing::signedComponent(name, "manual-signer", Value(files)));
    }
    return outer;
}

class ManifestE2ETest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (auto reason = Sandbox::unavailableReason()) GTEST_SKIP() << *reason;
        ASSERT_TRUE(sandbox.start());
        fs::create_directories(host("/private/var/QVLWorkContainer"));
    }
    std::string host(const std::string& path) const { return sandbox.host(path); }
    // Files (holding their own name) and, for "path>target", links.
    void make(const Lines& items) {
        for (const std::string& item : items) {
            const std::string path = item.substr(0, item.find('>'));
            fs::create_directories(fs::path(host(path)).parent_path());
            if (path == item) testing::writeText(host(path), fs::path(path).filename().string());
            if (path != item) fs::create_symlink(item.substr(path.size() + 1), host(path));
        }
    }
    void place(const Dictionary& manifest) {
        fs::remove(host(kSigned));
        testing::writeText(host(kSigned), plist::writeBinary(Value(manifest)));
    }
    uint32_t mode(const std::string& path) const { return testing::lstatOf(host(path)).st_mode & 07777; }
    uid_t owner(const std::string& path) const { return testing::lstatOf(host(path)).st_uid; }
    std::pair<int, Lines> run(const Lines& command) { return sandbox.request(command, "mobile"); }
    std::string transactions() const {
        return testing::readText(sandbox.socketDirectory() + "/com.ostrel.quorvaledhelper.transactions");
    }
    Lines deviceManifestKeys() const {
        Lines keys;
        const auto value = plist::read(testing::readText(host(kDevice)));
        for (const auto& entry : *value->asDictionary()) keys.push_back(entry.first);
        std::sort(keys.begin(), keys.end());
        return keys;
    }
    Sandbox sandbox;
};

TEST_F(ManifestE2ETest, LoadsOnceAndHoldsTheHelperBusyForEveryAttempt) {
    // The signed manifest's own refusals (a link at its name, an untrusted
    // signer) are its unit test's; here, every attempt counts, and a fifo
    // planted at the name never holds the helper up.
    const Lines create = {"createDeviceManifest:", "Path=/private/var/empty", "IsBackup=false"};
    const Lines backup = {"restoreBackupAttributes:", "StagingRootPath=/s", "Location=0", "Length=1"};
    EXPECT_EQ(run(create), (std::pair<int, Lines>{1,
                                                  {"Entering -[QVLHMessageResponder createDeviceManifest:] "
                                                   "with parameter: {",
                                                   "Loading signed manifest.", "Cannot load manifest."}}));
    ASSERT_EQ(::mkfifo(host(kSigned).c_str(), 0666), 0);
    const auto [status, lines] = run(backup);
    EXPECT_TRUE(status == 1 && lines.size() == 4u && lines.back() == "Cannot load manifest.");
    // Loaded once, then kept: a replaced file is never read again.
    place(segmentedOf({{"Backup", "backup.Base", Dictionary()},
                       {"AppData", "com.demo.app", dict({{"/d", record("NSFileTypeRegular", 0600)}})}},
                      {"backup.Base"}));
    make({"/private/var/tmp/app/d"});
    const Lines restore = {"restoreAppDataAttributes:", "StagingRootPath=/private/var/tmp/app",
                           "ContentType=AppData", "Identifier=com.demo.app"};
    EXPECT_EQ(run(restore).first, 0);
    EXPECT_EQ(mode("/private/var/tmp/app/d"), 0600u);
    testing::writeText(host(kSigned), "garbage");
    EXPECT_EQ(run(restore),
              (std::pair<int, Lines>{0,
                                     {"Entering -[QVLHMessageResponder restoreAppDataAttributes:] "
                                      "with parameter: {"}}));
    EXPECT_EQ(transactions(), "3\n");  // every attempt to load, and only those
}

TEST_F(ManifestE2ETest, CommandsOfAVersion5Manifest) {
    // Three backups around an app, and a container of each kind.
    const std::string dcim = "/var/mobile/Media/DCIM", stage = "/private/var/tmp/stage";
    Dictionary late = dict({{"/bad", "not a record"}, {"/var/db/demo/late", record()}});
    for (const char* skipped : {"/var/mobile/Containers/x", "/var/containers/x", "/var/mobile/Applications/x",
                                "/var/mobile/DravoBuiltProducts/x"}) {
        late.set(skipped, record());
        make({"/private" + std::string(skipped)});
    }
    const Dictionary data = dict({{"/Documents/d", record("NSFileTypeRegular", 0600)}});
    place(segmentedOf({{"Backup", "backup.Base",
                        dict({{"/", record("NSFileTypeDirectory", 0750)},
                              {dcim, record("NSFileTypeDirectory", 0755)},
                              {dcim + "/a.jpg", record("NSFileTypeRegular", 0600)}})},
                       {"Backup", "backup.Extra",
                        dict({{dcim + "/b.jpg", record("NSFileTypeRegular", 0640)},
                              {"/var/db/demo/link", record("NSFileTypeSymbolicLink", 0755)}})},
                       {"Backup", "backup.Late", late},
                       {"App", "app.com.demo.app", Dictionary()},
                       {"AppData", "com.demo.app", data},
                       {"GroupData", "group.com.demo", data},
                       {"ExtensionData", "com.demo.app.widget", data}},
                      {"backup.Base", "backup.Extra", "app.com.demo.app", "backup.Late"}));
    const std::string outside = "/private/var/tmp/outside/Media/DCIM/a.jpg";
    // Staging trees with a link on the way to their records ("trap"), or as themselves ("linked").
    make({"/private" + dcim + "/a.jpg", "/private" + dcim + "/b.jpg", "/private" + dcim + "/other.jpg",
          "/private/var/db/demo/late", outside, "/private/var/db/demo/link>" + outside,
          stage + "/var/db/demo/link>" + outside, stage + dcim + "/a.jpg", stage + dcim + "/b.jpg",
          "/private/var/tmp/trap/var/mobile/Media>/private/var/tmp/outside/Media",
          "/private/var/tmp/linked>" + stage});
    const Lines containers = {"AppData/com.demo.app", "GroupData/group.com.demo",
                              "ExtensionData/com.demo.app.widget", "PluginData/com.demo.app",
                              "AppData/com.demo.missing"};
    for (const std::string& c : containers) make({"/private/var/tmp/" + c + "/Documents/d"});
    const std::string created = "Device manifest created (for /)", create = "createDeviceManifest:";
    const std::string backup = "restoreBackupAttributes:", app = "restoreAppDataAttributes:";
    const struct {
        Lines command;
        int status;
        std::string last;  // logged last ("" for none after the entry); [3..4) holds a value that is no
                           // record, [2..3) an app and no backup
        std::optional<Lines> keys = std::nullopt;  // of the device manifest afterwards
    } steps[] = {
        // clang-format off
        {{create, "Path=/private" + dcim, "IsBackup=false", "Location=none"}, 0,
         "Device manifest created (for /private" + dcim + ")", Lines{"/", "/a.jpg", "/b.jpg", "/other.jpg"}},
        {{create, "Path=/ignored", "IsBackup=true", "Location=0", "Length=1"}, 0,
         "Device manifest created (for /ignored)", Lines{dcim, dcim + "/a.jpg"}},
        {{create, "Path=/", "IsBackup=1", "Location=0", "Length=2"}, 0, created,
         Lines{"/var/db/demo/link", dcim, dcim + "/a.jpg", dcim + "/b.jpg"}},
        {{create, "Path=/", "IsBackup=true", "Location=3", "Length=1"}, 0, created, Lines{"/var/db/demo/late"}},
        {{create, "Path=/", "IsBackup=true", "Location=3", "Length=2"}, 1,
         "Range [3..5) is outside the installation order of 4 items."},
        {{create, "Path=/", "IsBackup=true", "Location=-1", "Length=1"}, 1, kCreate +
         "range [-1..0) lies outside the installation order."},
        {{create, "Path=/", "IsBackup=true", "Location=zero", "Length=1"}, 1, "-[QVLHMessageResponder "
         "createDeviceManifest:]: expected \"Location\" and \"Length\" integers for a backup, got {"},
        {{create, "Path=/private/var/tmp/linked", "IsBackup=false"}, 1, kCreate + "/private/var/tmp/linked "
         "is refused: it is not a folder below /private/var reached without a link."},
        {{backup, "StagingRootPath=" + stage + "/", "Location=0", "Length=2"}, 0, "Merging manifest item [0..2)"},
        {{backup, "StagingRootPath=" + stage, "Location=3", "Length=1"}, 1, "Merging manifest item [3..4)"},
        {{backup, "StagingRootPath=" + stage, "Location=2", "Length=1"}, 0, "Merging manifest item [2..3)"},
        {{backup, "StagingRootPath=/private/var/tmp/trap", "Location=0", "Length=1"}, 1, kRestoreUnder +
         "Cannot reach /private/var/tmp/trap" + dcim + " below /private/var/tmp/trap - Too many levels of "
         "symbolic links"},
        {{backup, "StagingRootPath=/private/var/tmp/linked", "Location=0", "Length=1"}, 1, kRestoreUnder +
         "Cannot open the staging folder /private/var/tmp/linked - Too many levels of symbolic links"},
        {{app, "StagingRootPath=/x", "ContentType=AppData"}, 1, "-[QVLHMessageResponder restoreAppDataAttributes:]: "
         "expected a dictionary with \"StagingRootPath\", \"ContentType\" and \"Identifier\" strings, got {"},
        // clang-format on
    };
    const auto check = [&](const Lines& command, int status, const std::string& last) {
        const auto [answer, lines] = run(command);
        EXPECT_EQ(answer, status) << command[1] << " " << command[2];
        EXPECT_EQ(lines.size() > 1 ? lines.back() : "", last) << command[1] << " " << command[2];
    };
    for (const auto& s : steps) {
        check(s.command, s.status, s.last);
        if (s.keys) {
            EXPECT_EQ(deviceManifestKeys(), *s.keys) << s.command[2];
        }
    }
    for (const std::string& c : containers) {
        const std::string type = c.substr(0, c.find('/')), id = c.substr(c.find('/') + 1);
        const bool known = c.find("Plugin") == std::string::npos && c.find("missing") == std::string::npos;
        check({app, "StagingRootPath=/private/var/tmp/" + c, "ContentType=" + type, "Identifier=" + id},
              known ? 0 : 1, known ? "" : "Couldn't load manifest dict for " + c);
        EXPECT_EQ(mode("/private/var/tmp/" + c + "/Documents/d"), known ? 0600u : 0644u) << c;
    }
    // The last good device manifest stays after the refusals: a binary property list only root writes.
    EXPECT_EQ(deviceManifestKeys(), Lines{"/var/db/demo/late"});
    EXPECT_EQ(mode(kDevice), 0644u);
    EXPECT_EQ(run({create, "Path=/x", "IsBackup=true", "Location=0", "Length=1"}).second,
              (Lines{"Entering -[QVLHMessageResponder createDeviceManifest:] with parameter: {",
                     "Will create device manifest from root /x, backup? 1, range [0..1)",
                     "Merging manifest item [0..1)", "Device manifest created (for /x)"}));
    EXPECT_TRUE(testing::readText(host(kDevice)).starts_with("bplist00"));
    const auto written = plist::read(testing::readText(host(kDevice)));
    const Dictionary* a = written->asDictionary()->getDictionary(dcim + "/a.jpg");
    ASSERT_TRUE(a);
    EXPECT_EQ(*a->getData("QVLManifestFileHash"), testing::sha1Of("a.jpg"));
    // Restored: the root itself and a file (what a record sets is the metadata tests' work); nothing
    // through a link.
    EXPECT_EQ(testing::lstatOf(host(stage)).st_mode, S_IFDIR | 0750u);
    EXPECT_EQ(mode(stage + dcim + "/a.jpg"), 0600u);
    for (const std::string& item : {outside, fs::path(outside).parent_path().string()}) {
        EXPECT_EQ(owner(item), 0u) << item;
        EXPECT_NE(mode(item), 0600u) << item;
    }
}

}  // namespace
}  // namespace qvl::e2e
