/* The names that the service shows to its plug-ins. */
#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <string>
#include <vector>

#include "child_run.h"
#include "daemon.h"

namespace {

/* The names of the linker's list, which separates them with semicolons. */
std::vector<std::string> exported_names() {
    std::string text = read_whole_file(EXPORTS_LIST);
    for (size_t at = 0; (at = text.find("/*")) != std::string::npos;) {
        text.erase(at, text.find("*/", at) + 2 - at);
    }
    std::vector<std::string> names;
    std::string name;
    for (const char c : text) {
        if (c == ';' && !name.empty()) {
            names.push_back(name);
            name.clear();
        } else if (c == '_' || isalnum(static_cast<unsigned char>(c)) != 0) {
            name += c;
        }
    }
    return names;
}

TEST(exports, each_name_is_the_services_and_no_library_of_the_shipped_plugins_has_it) {
    const std::vector<std::string> names = exported_names();
    ASSERT_GT(names.size(), 100u);
    std::string joined;
    for (const std::string& name : names) {
        joined += name + ","; /* a blank could fall on the border of two pieces of the file */
    }
    test_daemon daemon;
    daemon.own_root = true;
    daemon_prepare(daemon);
    std::ofstream(daemon.root + "/probe.cfg")
        << R"({"player":{"audio_output":"","video_output":"","update_interval":"1000",)"
        << R"("progression_mode":"","recursion_depth":""},"plugins":{")" << EXPORTS_PROBE
        << R"(":{"names":")" << joined << R"(","libraries":")" << SHIPPED_PLUGINS << "\"}}}";
    daemon.options = {"-c", daemon.root + "/probe.cfg"};
    EXPECT_TRUE(daemon_start(daemon));
    EXPECT_EQ(daemon_stop(daemon), 0);
    const std::string log = daemon_log(daemon);
    EXPECT_EQ(log.find("wrong: "), std::string::npos) << log;
    EXPECT_NE(log.find("checked: " + std::to_string(names.size()) + " names"), std::string::npos)
        << log;
    daemon_remove(daemon);
}

} // namespace
