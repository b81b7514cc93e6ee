#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include "child_run.h"
#include "msglog.h"
#include "options.h"

namespace {

TEST(getval, takes_32_bit_numbers_in_three_notations) {
    const struct {
        const char* text;
        uint32_t value;
    } numbers[] = {{"250", 250},
                   {" \t\n\v\f\r7", 7},
                   {"+7", 7},
                   {"-0", 0},
                   {"0x14", 20},
                   {"0XfF", 255},
                   {"010", 8},
                   {"4294967295", UINT32_MAX},
                   {"037777777777", UINT32_MAX}};
    for (const auto& number : numbers) {
        errno = EDOM;
        EXPECT_EQ(getval(number.text), number.value) << number.text;
        EXPECT_EQ(errno, 0) << number.text;
    }
    for (const char* text : {"4294967296", "-5", "-18446744073709551615"}) {
        errno = 0;
        EXPECT_EQ(getval(text), 0u) << text;
        EXPECT_EQ(errno, ERANGE) << text;
    }
    for (const char* text : {"", "12x", "7 ", "0x", "08", "+-5", "0x-5", "99999999999x"}) {
        errno = 0;
        EXPECT_EQ(getval(text), 0u) << text;
        EXPECT_EQ(errno, EINVAL) << text;
    }
}

TEST(str2ids, takes_names_and_numbers) {
    constexpr int32_t CAPACITY = 4;
    const gid_t daemon_group = getpwnam("daemon")->pw_gid;
    const gid_t audio = getgrnam("audio")->gr_gid;
    const struct {
        const char* text;
        int32_t count;
        uid_t uid;
        std::vector<gid_t> groups; /* those that fit */
    } cases[] = {
        {" daemon ", 1, 1, {daemon_group}},
        {" daemon : audio , 1005 ", 3, 1, {daemon_group, audio, 1005}},
        {"1000", 0, 1000, {}},
        {"0x10:010", 1, 16, {8}},
        {"1:1,2,3,4", 4, 1, {1, 2, 3, 4}},
        {"1:1,2,3,4,5", 5, 1, {1, 2, 3, 4}},
        {"4294967294:4294967294", 1, 4294967294, {4294967294}},
    };
    uid_t uid = 0;
    gid_t groups[CAPACITY];
    for (const auto& c : cases) {
        EXPECT_EQ(str2ids(c.text, &uid, groups, CAPACITY), c.count) << c.text;
        EXPECT_EQ(uid, c.uid) << c.text;
        EXPECT_TRUE(std::equal(c.groups.begin(), c.groups.end(), groups)) << c.text;
    }
    for (const char* text :
         {"4294967295:1", "1:-1", "no such user", "daemon:no such group", "daemon:audio,", ""}) {
        errno = 0;
        EXPECT_EQ(str2ids(text, &uid, groups, CAPACITY), -1) << text;
        EXPECT_EQ(errno, EINVAL) << text;
    }
}

control_block parsed(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "lyrane");
    arguments.push_back(nullptr);
    control_block control;
    memset(static_cast<void*>(&control), 0xA5, sizeof control);
    options(static_cast<int>(arguments.size()) - 1, const_cast<char**>(arguments.data()), &control);
    return control;
}

TEST(options, the_defaults) {
    const control_block control = parsed({});
    EXPECT_EQ(control.background, 1);
    EXPECT_EQ(control.priority, 10);
    EXPECT_STREQ(control.service_name, "lyrane.sys");
    EXPECT_EQ(control.max_msg_size, 65536);
    EXPECT_EQ(control.lastmode, 0);
    EXPECT_STREQ(control.config_file, "/etc/lyrane.cfg");
    EXPECT_STREQ(control.database, "/db/lyrane.db");
    EXPECT_EQ(control.uid, geteuid());
    EXPECT_EQ(control.groups, nullptr);
}

TEST(options, values_are_stored_and_the_last_one_wins) {
    control_block control =
        parsed({"-bl",  "-c",          "/a.cfg", "-c/b.cfg", "-d",      "/d.db", "-s", "x.y",
                "-vvv", "-v",          "-P",     "0x14",     "-t",      "1",     "-T", "7",
                "-U",   "1000:1000,5", "-U",     " daemon ", "operand", "-v"});
    EXPECT_EQ(control.background, 0);
    EXPECT_EQ(control.lastmode, 1);
    EXPECT_EQ(control.lastmode_timeout, 5);
    EXPECT_EQ(control.lastmode_devices, 0x1u);
    EXPECT_EQ(control.lastmode_max_try, 5);
    EXPECT_STREQ(control.config_file, "/b.cfg");
    EXPECT_STREQ(control.database, "/d.db");
    EXPECT_STREQ(control.service_name, "x.y");
    EXPECT_EQ(control.verbosity, 4) << "parsing stops at the operand";
    EXPECT_EQ(control.priority, 20);
    EXPECT_EQ(control.timer, 100);
    EXPECT_EQ(control.tolerance, 7);
    EXPECT_STREQ(control.user, " daemon ") << "the text as it was given";
    EXPECT_EQ(control.uid, 1u);
    ASSERT_EQ(control.ngroups, 1);
    EXPECT_EQ(control.groups[0], control.gid);
    EXPECT_EQ(control.gid, getpwnam("daemon")->pw_gid);
    free(control.groups);
}

TEST(options, small_timers_are_raised) {
    const std::pair<const char*, int32_t> cases[] = {
        {"0", 0}, {"1", 100}, {"99", 100}, {"250", 250}};
    for (const auto& [text, timer] : cases) {
        EXPECT_EQ(parsed({"-t", text}).timer, timer);
    }
}

TEST(options, bad_values_end_the_process_with_their_message) {
    const struct {
        const char* option;
        const char* value;
        const char* name;
    } cases[] = {{"-P", "x", "priority"},
                 {"-t", "12x", "timer"},
                 {"-t", "4294967295", "timer"},
                 {"-T", "4294967296", "tolerance"},
                 {"-U", "1000", "user"}};
    for (const auto& c : cases) {
        const child_outcome outcome = child_run([&] { parsed({c.option, c.value}); });
        EXPECT_EQ(outcome.exit_status, 1) << c.option << c.value;
        EXPECT_EQ(outcome.log,
                  std::string("2 invalid value for ") + c.name + " ('" + c.option + "') option\n");
        EXPECT_EQ(outcome.err, "") << "no echo while the command line is read";
    }
}

TEST(options, unknown_options_end_the_process_with_the_parsers_words) {
    for (const std::vector<const char*>& arguments :
         {std::vector<const char*>{"-x"}, {"-c"}, {"--help"}}) {
        const child_outcome outcome = child_run([&] { parsed(arguments); });
        EXPECT_EQ(outcome.exit_status, 1) << arguments[0];
        EXPECT_EQ(outcome.log, "");
        EXPECT_NE(outcome.err.find("option"), std::string::npos);
    }
}

} // namespace
