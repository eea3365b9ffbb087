// Tests of the macOS property lists: the bundle's Info.plist and the LaunchAgent that starts it.
#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "build_info.h"

namespace {

struct PlistFree {
    void operator()(plist_t node) const { plist_free(node); }
};
using Plist = std::unique_ptr<void, PlistFree>;

Plist read_plist(const char* path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    const std::string xml = text.str();
    plist_t root = nullptr;
    plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &root);
    return Plist(root);
}

// A key's value as text: strings as they are, booleans as "true"/"false", "?" for
// anything else, "" when absent.
std::string value(plist_t dict, const char* key) {
    plist_t node = dict ? plist_dict_get_item(dict, key) : nullptr;
    if (node == nullptr) return "";
    if (plist_get_node_type(node) == PLIST_BOOLEAN) {
        uint8_t flag = 0;
        plist_get_bool_val(node, &flag);
        return flag ? "true" : "false";
    }
    if (plist_get_node_type(node) != PLIST_STRING) return "?";
    char* text = nullptr;
    plist_get_string_val(node, &text);
    std::string result = text ? text : "";
    std::free(text);
    return result;
}

TEST(Plists, BundleAndLaunchAgentAgreeOnWhatLaunchdAndTheFinderRead) {
    const Plist info = read_plist(QVX_INFO_PLIST);
    const Plist agent = read_plist(QVX_LAUNCH_AGENT_PLIST);
    ASSERT_TRUE(info && plist_get_node_type(info.get()) == PLIST_DICT) << QVX_INFO_PLIST;
    ASSERT_TRUE(agent && plist_get_node_type(agent.get()) == PLIST_DICT) << QVX_LAUNCH_AGENT_PLIST;

    // Booleans must be <true/>, not the string "true", or the system ignores them.
    const struct {
        plist_t dict;
        const char* key;
        std::string expected;
    } keys[] = {
        {info.get(), "CFBundleExecutable", "qvxdragdrop"},
        {info.get(), "CFBundlePackageType", "APPL"},
        {info.get(), "CFBundleVersion", QVX_VERSION_STRING},
        {info.get(), "LSMinimumSystemVersion", "11.0"},
        {info.get(), "LSUIElement", "true"},
        {agent.get(), "Label", value(info.get(), "CFBundleIdentifier")},
        {agent.get(), "RunAtLoad", "true"},
        {agent.get(), "LimitLoadToSessionType", "Aqua"},
    };
    for (const auto& k : keys) EXPECT_EQ(value(k.dict, k.key), k.expected) << k.key;
    EXPECT_NE(value(info.get(), "CFBundleIdentifier"), "");

    plist_t arguments = plist_dict_get_item(agent.get(), "ProgramArguments");
    ASSERT_TRUE(arguments && plist_get_node_type(arguments) == PLIST_ARRAY);
    ASSERT_EQ(plist_array_get_size(arguments), 1u);
    char* program = nullptr;
    plist_get_string_val(plist_array_get_item(arguments, 0), &program);
    ASSERT_NE(program, nullptr);
    const std::string path = program;
    std::free(program);
    EXPECT_EQ(path.front(), '/');
    const std::string tail = "/qvxdragdrop.app/Contents/MacOS/qvxdragdrop";
    EXPECT_TRUE(path.size() > tail.size() && path.ends_with(tail)) << path;

    // Restarted after a failure or a crash, never after a deliberate exit with status 0.
    plist_t keepAlive = plist_dict_get_item(agent.get(), "KeepAlive");
    ASSERT_TRUE(keepAlive && plist_get_node_type(keepAlive) == PLIST_DICT);
    EXPECT_EQ(value(keepAlive, "SuccessfulExit"), "false");
}

}  // namespace
