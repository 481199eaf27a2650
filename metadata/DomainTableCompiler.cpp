// Build-time tool: turns the readable domain table (an XML property list) into
// a C++ source holding its binary encoding, so the helper carries the table
// without reading any file at run time.
//
// usage: qvl_domain_table_compiler TABLE.plist OUT.cpp
//
// The table is checked before it is compiled, so that a broken edit fails the
// build instead of refusing every backup on the device.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>

#include "platform/fs/LinuxFileSystem.h"
#include "platform/fs/PropertyListFile.h"
#include "plist/PropertyList.h"

namespace {

using qvl::plist::Dictionary;
using qvl::plist::Value;

bool fail(const std::string& why) {
    std::fprintf(stderr, "qvl_domain_table_compiler: %s\n", why.c_str());
    return false;
}

bool stringArray(const Dictionary& domain, const char* key, bool required, const std::string& name) {
    const Value* v = domain.find(key);
    if (!v) return !required || fail(name + " has no " + key);
    if (!v->isArray()) return fail(name + ": " + key + " is not an array");
    for (const Value& entry : *v->asArray()) {
        if (!entry.isString()) return fail(name + ": " + key + " holds a value that is not a string");
    }
    return true;
}

bool validTable(const Value& table) {
    const Dictionary* top = table.asDictionary();
    if (!top) return fail("the table is not a dictionary");
    const Dictionary* domains = top->getDictionary("SystemDomains");
    if (!domains) return fail("the table has no SystemDomains dictionary");
    for (const auto& [name, value] : *domains) {
        const Dictionary* domain = value.asDictionary();
        if (!domain) return fail(name + " is not a dictionary");
        const std::string* root = domain->getString("RootPath");
        if (!root || !root->starts_with("/var/")) return fail(name + " has no RootPath under /var");
        if (!stringArray(*domain, "RelativePathsToBackupAndRestore", true, name) ||
            !stringArray(*domain, "RelativePathsToOnlyBackupEncrypted", false, name) ||
            !stringArray(*domain, "RelativePathsToRestoreOnly", false, name) ||
            !stringArray(*domain, "RelativePathsNotToRestore", false, name)) {
            return false;
        }
    }
    return true;
}

std::string cppSource(const std::string& bytes) {
    std::ostringstream out;
    out << "// Made by qvl_domain_table_compiler from metadata/DomainTable.plist; do not edit.\n"
        << "#include \"metadata/DomainTable.h\"\n\n"
        << "namespace qvl {\nnamespace {\n"
        << "alignas(8) const uint8_t kTable[" << bytes.size() << "] = {";
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i % 16 == 0) out << "\n   ";
        out << ' ' << static_cast<unsigned>(static_cast<uint8_t>(bytes[i])) << ',';
    }
    out << "\n};\n}  // namespace\n\n"
        << "std::span<const uint8_t> QVLBuiltInDomainTable() { return {kTable, sizeof kTable}; }\n\n"
        << "}  // namespace qvl\n";
    return out.str();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: qvl_domain_table_compiler TABLE.plist OUT.cpp\n");
        return 2;
    }
    qvl::plist::ReadError error;
    qvl::platform::FileSystem& files = qvl::platform::LinuxFileSystem::sharedInstance();
    const auto table = qvl::platform::readPropertyListFile(files, argv[1], &error);
    if (!table) return fail(std::string("cannot read ") + argv[1] + ": " + error.message), 1;
    if (!validTable(*table)) return 1;

    const std::string binary = qvl::plist::writeBinary(*table);
    // The helper reads the binary form back; make sure it says the same.
    const auto back = qvl::plist::read(binary);
    if (!back || !(*back == *table)) return fail("the binary encoding does not read back equal"), 1;

    const std::string source = cppSource(binary);
    if (files.writeFileAtomically(argv[2], {reinterpret_cast<const uint8_t*>(source.data()), source.size()},
                                  std::nullopt) != 0)
        return fail(std::string("cannot write ") + argv[2] + ": " + std::strerror(errno)), 1;
    return 0;
}
