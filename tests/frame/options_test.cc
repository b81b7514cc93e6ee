#include <gtest/gtest.h>

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
        int error;
    } cases[] = {
        {"0", 0, 0},
        {"250", 250, 0},
        {" \t\n\v\f\r7", 7, 0},
        {"+7", 7, 0},
        {"0x14", 20, 0},
        {"0XfF", 255, 0},
        {"010", 8, 0},
        {"-0", 0, 0},
        {"00", 0, 0},
        {"4294967295", UINT32_MAX, 0},
        {"0xffffffff", UINT32_MAX, 0},
        {"037777777777", UINT32_MAX, 0},
        {"4294967296", 0, ERANGE},
        {"0x100000000", 0, ERANGE},
        {"99999999999999999999999", 0, ERANGE},
        {"-5", 0, ERANGE},
        {"-4294967295", 0, ERANGE},
        {"-18446744073709551615", 0, ERANGE},
        {"", 0, EINVAL},
        {" ", 0, EINVAL},
        {"12x", 0, EINVAL},
        {"7 ", 0, EINVAL},
        {"0x", 0, EINVAL},
        {"08", 0, EINVAL},
        {"0b1", 0, EINVAL},
        {"+-5", 0, EINVAL},
        {"- 5", 0, EINVAL},
        {"0x-5", 0, EINVAL},
        {"1e3", 0, EINVAL},
        {"99999999999x", 0, EINVAL},
    };
    for (const auto& c : cases) {
        errno = EDOM;
        EXPECT_EQ(getval(c.text), c.value) << c.text;
        EXPECT_EQ(errno, c.error) << c.text;
    }
}

TEST(nextfield, cuts_fields_and_the_blanks_around_them) {
    const struct {
        const char* text;
        std::vector<std::string> fields;
    } cases[] = {
        {"", {""}},        {"a", {"a"}},    {"a,b", {"a", "b"}},
        {"a,", {"a", ""}}, {",", {"", ""}}, {"  a b \t, \n c,  ", {"a b", "c", ""}},
    };
    for (const auto& c : cases) {
        std::string text = c.text;
        char* cursor = text.data();
        std::vector<std::string> fields;
        for (char* field; (field = nextfield(&cursor, ',')) != nullptr;) {
            fields.emplace_back(field);
        }
        EXPECT_EQ(fields, c.fields) << c.text;
    }
}

constexpr int32_t CAPACITY = 4;

struct ids {
    int32_t count;
    int error;
    uid_t uid;
    std::vector<gid_t> groups;
};

ids ids_of(const char* text) {
    ids result = {0, 0, 4711, {}};
    gid_t groups[CAPACITY] = {};
    errno = 0;
    result.count = str2ids(text, &result.uid, groups, CAPACITY);
    result.error = result.count < 0 ? errno : 0;
    for (int32_t i = 0; i < result.count && i < CAPACITY; i++) {
        result.groups.push_back(groups[i]);
    }
    return result;
}

TEST(str2ids, takes_names_and_numbers) {
    using list = std::vector<gid_t>;
    const gid_t root_group = getpwnam("root")->pw_gid;
    const gid_t daemon_group = getpwnam("daemon")->pw_gid;
    const gid_t audio = getgrnam("audio")->gr_gid;
    const struct {
        const char* text;
        int32_t count;
        int error;
        uid_t uid;
        list groups;
    } cases[] = {
        {"root", 1, 0, 0, {root_group}},
        {" daemon ", 1, 0, 1, {daemon_group}},
        {"daemon:audio,1005", 3, 0, 1, {daemon_group, audio, 1005}},
        {" daemon : audio , 1005 ", 3, 0, 1, {daemon_group, audio, 1005}},
        {"1000:1000", 1, 0, 1000, {1000}},
        {"1000", 0, 0, 1000, {}},
        {"0x10:010", 1, 0, 16, {8}},
        {"1:1,2,3,4", 4, 0, 1, {1, 2, 3, 4}},
        {"1:1,2,3,4,5", 5, 0, 1, {1, 2, 3, 4}},
        {"4294967294:4294967294", 1, 0, 4294967294, {4294967294}},
        {"4294967295:1", -1, EINVAL, 0, {}},
        {"4294967296:4294967296", -1, EINVAL, 0, {}},
        {"-1:1", -1, EINVAL, 0, {}},
        {"1:-1", -1, EINVAL, 0, {}},
        {"no such user", -1, EINVAL, 0, {}},
        {"daemon:no such group", -1, EINVAL, 0, {}},
        {"daemon:", -1, EINVAL, 0, {}},
        {"daemon:audio,", -1, EINVAL, 0, {}},
        {"", -1, EINVAL, 0, {}},
        {":1", -1, EINVAL, 0, {}},
    };
    for (const auto& c : cases) {
        const ids found = ids_of(c.text);
        EXPECT_EQ(found.count, c.count) << c.text;
        EXPECT_EQ(found.error, c.error) << c.text;
        EXPECT_EQ(found.groups, c.groups) << c.text;
        if (c.count >= 0) {
            EXPECT_EQ(found.uid, c.uid) << c.text;
        }
    }
}

TEST(str2ids, refuses_missing_destinations) {
    uid_t uid = 0;
    gid_t group = 0;
    EXPECT_EQ(str2ids(nullptr, &uid, &group, 1), -1);
    EXPECT_EQ(str2ids("root", nullptr, &group, 1), -1);
    EXPECT_EQ(str2ids("root", &uid, nullptr, 1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(str2ids("root", &uid, nullptr, 0), 1) << "only counts";
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
    EXPECT_EQ(control.verbosity, 0);
    EXPECT_EQ(control.user, nullptr);
    EXPECT_STREQ(control.service_name, "lyrane.sys");
    EXPECT_EQ(control.max_msg_size, 65536);
    EXPECT_EQ(control.timer, 0);
    EXPECT_EQ(control.tolerance, 0);
    EXPECT_EQ(control.lastmode, 0);
    EXPECT_STREQ(control.config_file, "/etc/lyrane.cfg");
    EXPECT_STREQ(control.database, "/db/lyrane.db");
    EXPECT_EQ(control.lastmode_timeout, 0);
    EXPECT_EQ(control.lastmode_devices, 0u);
    EXPECT_EQ(control.lastmode_max_try, 0);
    EXPECT_EQ(control.server, nullptr);
    EXPECT_EQ(control.service_id, 0);
    EXPECT_EQ(control.client_count, 0);
    EXPECT_EQ(control.uid, geteuid());
    EXPECT_EQ(control.gid, getegid());
    EXPECT_EQ(control.groups, nullptr);
    EXPECT_EQ(control.ngroups, 0);
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
    const struct {
        const char* text;
        int32_t timer;
    } cases[] = {{"0", 0}, {"1", 100}, {"99", 100}, {"100", 100}, {"250", 250}};
    for (const auto& c : cases) {
        EXPECT_EQ(parsed({"-t", c.text}).timer, c.timer);
    }
}

TEST(options, bad_values_end_the_process_with_their_message) {
    const struct {
        const char* option;
        const char* value;
        const char* message;
    } cases[] = {
        {"-P", "x", "2 invalid value for priority ('-P') option\n"},
        {"-P", "-1", "2 invalid value for priority ('-P') option\n"},
        {"-t", "12x", "2 invalid value for timer ('-t') option\n"},
        {"-t", "-5", "2 invalid value for timer ('-t') option\n"},
        {"-t", "4294967295", "2 invalid value for timer ('-t') option\n"},
        {"-T", "2147483648", "2 invalid value for tolerance ('-T') option\n"},
        {"-T", "4294967296", "2 invalid value for tolerance ('-T') option\n"},
        {"-U", "1000", "2 invalid value for user ('-U') option\n"},
        {"-U", "4294967296:0", "2 invalid value for user ('-U') option\n"},
        {"-U", "", "2 invalid value for user ('-U') option\n"},
    };
    for (const auto& c : cases) {
        const child_outcome outcome = child_run([&] { parsed({c.option, c.value}); });
        EXPECT_EQ(outcome.exit_status, 1) << c.option << c.value;
        EXPECT_EQ(outcome.log, c.message);
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
