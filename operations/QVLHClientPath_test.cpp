#include "operations/QVLHClientPath.h"

#include <gtest/gtest.h>

namespace qvl {
namespace {

// Where a client's path text may lead before anything is opened.
TEST(QVLHClientPath, OnlyPathsStrictlyBelowTheTrustedFolderWithoutDotDot) {
    const struct {
        const char* path;
        const char* relative;  // null: refused
        const char* parent;
    } cases[] = {
        {"/var/logs/qvald", "logs/qvald", "logs"},
        {"/private/var//logs/./qvald/", "logs/qvald", "logs"},
        {"/var/QVLWorkContainer", "QVLWorkContainer", ""},
        {"/var/logs/../root", nullptr, nullptr},
        {"/var", nullptr, nullptr},
        {"/varlogs/x", nullptr, nullptr},
        {"var/logs", nullptr, nullptr},
    };
    for (const auto& c : cases) {
        std::string why;
        const std::optional<QVLHClientPath> confined = QVLHClientPath::parse(c.path, &why);
        ASSERT_EQ(confined.has_value(), c.relative != nullptr) << c.path;
        if (!confined) {
            EXPECT_FALSE(why.empty()) << c.path;
            continue;
        }
        EXPECT_EQ(confined->relative(), c.relative) << c.path;
        EXPECT_EQ(confined->parentRelative(), c.parent) << c.path;
    }
    std::string why;
    EXPECT_TRUE(QVLHClientPath::parse("/var/backup/x", &why)->within("backup"));
    EXPECT_FALSE(QVLHClientPath::parse("/var/backupx", &why)->within("backup"));
}

}  // namespace
}  // namespace qvl
