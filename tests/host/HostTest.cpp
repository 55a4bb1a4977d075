// The stand-in host's own promises.
#include "kmhost.h"
#include "support/Files.h"

#include <cstring>
#include <cwchar>
#include <gtest/gtest.h>

namespace {

TEST(ObjectIds, AreInternedByNameAndKindAndCounted) {
    const size_t before = kmhost_objid_count();
    struct km_objid* first = km_objid("name", 5, 3);
    EXPECT_EQ(km_objid("name", 5, 3), first);
    EXPECT_NE(km_objid("name", 5, 2), first);
    EXPECT_EQ(first->length, 5);
    EXPECT_EQ(first->kind, 3);
    EXPECT_EQ(kmhost_objid_count(), before + 2);
    km_free_objid(first);
    EXPECT_STREQ(first->name, "name") << "one holder is left";
    km_free_objid(first);
    EXPECT_EQ(kmhost_objid_count(), before + 1);
    km_free_objid(nullptr);
}

TEST(ObjectIds, NamesCanBeReadAsWideCharacters) {
    for (const char* name : {"", "abc", "abcd", "abcde"}) {
        struct km_objid* id = km_objid(name, static_cast<int>(std::strlen(name) + 1), 3);
        // One wide character holds four bytes of the name, and the zeros behind end it.
        EXPECT_LE(std::wcslen(reinterpret_cast<const wchar_t*>(id->name)), 2U);
        km_free_objid(id);
    }
}

TEST(Guids, NeedRoomForTheirText) {
    RGUID guid;
    char text[33];
    ASSERT_EQ(RGUIDCreate(&guid), 0);
    EXPECT_EQ(RGUIDAsString(&guid, text, 33, 0), 0);
    EXPECT_NE(RGUIDAsString(&guid, text, 32, 0), 0);
}

TEST(LogSink, WritesIndentedAndFilteredLinesToAFile) {
    const TemporaryFolder folder;
    km_log_root = "/no/such/directory";
    EXPECT_FALSE(kmhost_log_to_file("log"));
    km_log_root = folder.path().c_str();
    ASSERT_TRUE(kmhost_log_to_file("log"));
    kmhost_filter_severity(1U << KMP_SEVERITY_ERROR);
    km_log_provider_msg("dropped\n", 0, 0, KMP_SEVERITY_INFO);
    km_log_provider_msg("kept\n", 0, 2, KMP_SEVERITY_ERROR);
    kmhost_log_to_stderr();
    EXPECT_EQ(readFile(folder / "log"), "    kept\n");
}

} // namespace
