// The attribute bits, mode marker and creation dates both ways, stated as the host reads and
// writes them and as the file system stores them: the simulated host shares the tool's
// constants, so only values written out here show a constant that drifted.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <map>
#include <string>
#include <vector>

#include "support/scripted_host.h"
#include "support/source_host.h"
#include "support/temp_dir.h"
#include "transfer/transfer_job.h"
#include "transfer/tree_receiver.h"
#include "transfer/tree_sender.h"

namespace {

using namespace qvxtest;

// 2017-07-14 02:40:00 UTC: as seconds since 1904 and as 100-ns ticks since 1601.
constexpr uint64_t kCreated1904 = 3'582'844'800;
constexpr uint64_t kCreatedTicks = 131'444'736'000'000'000;

std::string xattr(const std::string& path, const char* name) {
    char value[16];
    const ssize_t n = ::lgetxattr(path.c_str(), name, value, sizeof value);
    return n < 0 ? std::string() : std::string(value, static_cast<size_t>(n));
}

void set_xattr(const std::string& path, const char* name, std::string value) {
    ASSERT_EQ(::setxattr(path.c_str(), name, value.data(), value.size(), 0), 0) << path;
}

std::string le64(uint64_t v) {
    std::string out;
    for (int i = 0; i < 8; ++i) out += static_cast<char>(v >> (8 * i));
    return out;
}

TEST(WireValues, SentEntriesCarryTheAttributeBitsModeMarkerAndCreationDate) {
    TempDir dir;
    const std::string top = dir / "top";
    write_file(top + "/locked", "l");
    write_file(top + "/hidden", "h");
    write_file(top + "/both", "b");
    write_file(top + "/plain", "p");
    make_dirs(top + "/sub");
    ASSERT_EQ(::chmod((top + "/plain").c_str(), 0640), 0);
    const std::string lockedFlag("\x01\x00", 2), invisibleFlag("\x00\x40", 2);
    set_xattr(top + "/locked", "user.quorvex.nodeflags", lockedFlag);
    set_xattr(top + "/hidden", "user.quorvex.finderflags", invisibleFlag);
    set_xattr(top + "/both", "user.quorvex.nodeflags", lockedFlag);
    set_xattr(top + "/both", "user.quorvex.finderflags", invisibleFlag);
    set_xattr(top + "/plain", "user.quorvex.crtime", le64(kCreated1904));

    ScriptedHost host;
    ASSERT_EQ(send_tree(host.context(), {top}), 1u);
    std::map<std::string, const Request*> entries;  // the 271 of each item, by name
    for (const Request& r : host.sent) {
        if (r.command() != 271) continue;
        std::string name;
        for (size_t at = 80; uint16_t unit = qvx::le::get16(r.bytes.data(), at); at += 2)
            name += static_cast<char>(unit);
        entries[name] = &r;
    }
    const struct {
        const char* name;
        uint32_t attributes;
    } cases[] = {{"top", 0x10},       {"top/sub", 0x10}, {"top/locked", 0x1},
                 {"top/hidden", 0x2}, {"top/both", 0x3}, {"top/plain", 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(entries.count(c.name), 1u);
        const uint8_t* b = entries[c.name]->bytes.data();
        EXPECT_EQ(qvx::le::get32(b, 32), c.attributes);
        EXPECT_EQ(qvx::le::get16(b, 2132), 1u) << "the mode is always valid";
    }
    const uint8_t* plain = entries["top/plain"]->bytes.data();
    EXPECT_EQ(qvx::le::get16(plain, 2134) & 07777, 0640u);
    EXPECT_EQ(qvx::le::get64(plain, 44), kCreatedTicks);
}

TEST(WireValues, ReceivedItemsTakeTheLockModeAndCreationDateAndIgnoreOtherBits) {
    TempDir dir;
    make_dirs(dir / "dest");
    auto item = [](const char16_t* name, uint32_t attributes, uint16_t modeValid) {
        hostsim::SourceItem i = file(name, "x");
        i.attributes = attributes;
        i.modeValid = modeValid;
        i.mode = 0100604;
        i.creationTime = kCreatedTicks;
        return i;
    };
    // 0x2 (invisible) is the guest's to send; the receiver applies no bit but the lock.
    // A locked folder is created: only 0x20000 keeps a folder from being made.
    hostsim::SourceItem lockedFolder = folder(u"\\lockedfolder");
    lockedFolder.attributes = 0x10 | 0x1;
    SourceHost host({item(u"\\locked", 0x1, 1), item(u"\\other", 0x2 | 0x4 | 0x8, 1),
                     item(u"\\nomode", 0, 0), lockedFolder, end_of(2), end_of(1)});
    ASSERT_EQ(qvx::receive_tree(host.context(), dir / "dest"), 1u);
    EXPECT_EQ(xattr(dir / "dest/lockedfolder", "user.quorvex.nodeflags"),
              std::string("\x01\x00", 2));

    const struct {
        const char* name;
        std::string nodeFlags;
        bool modeApplied;
    } cases[] = {
        {"locked", std::string("\x01\x00", 2), true}, {"other", "", true}, {"nomode", "", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = dir / ("dest/" + std::string(c.name));
        struct stat st {};
        ASSERT_EQ(::lstat(path.c_str(), &st), 0);
        const std::string flags = xattr(path, "user.quorvex.nodeflags");
        EXPECT_EQ(flags == std::string(2, '\0') ? "" : flags, c.nodeFlags);
        EXPECT_EQ(xattr(path, "user.quorvex.crtime"), le64(kCreated1904));
        EXPECT_EQ((st.st_mode & 07777) == 0604, c.modeApplied);
    }
}

}  // namespace
