/* Objects of the tree: what a flush writes, and what it withdraws. */
#include <cerrno>
#include <string>
#include <vector>

#include <fcntl.h>
#include <veloran/pps.h>

#include "status_tree.h"

namespace fs = std::filesystem;

namespace {
struct ppswriter : status_tree {
    lyr_ppswriter* object = nullptr;
    void SetUp() override {
        status_tree::SetUp();
        object = lyr_ppswriter_create(root, "state", -1, &error);
        ASSERT_NE(object, nullptr);
    }
    void TearDown() override {
        lyr_ppswriter_close(object);
        status_tree::TearDown();
    }
};
using ppswriter_death = ppswriter;
} // namespace

TEST_F(ppswriter, publishes_sets_and_withdraws) {
    struct change {
        const char* name;
        const char* value; /* null: deletes */
    };
    const struct {
        std::vector<change> changes;
        const char* content;
    } cases[] = {
        {{{"rate", ":n:1.0"}, {"status", "::idle"}}, "rate:n:1.0\nstatus::idle\n"},
        {{{"status", "::playing"}}, "rate:n:1.0\nstatus::playing\n"},
        {{{"rate", nullptr}, {"more", "::x"}}, "status::playing\nmore::x\n"},
        {{{"new", "::y"}, {"new", nullptr}, {"never", nullptr}}, "status::playing\nmore::x\n"},
        {{{"", "::x"},
          {"a:b", "::x"},
          {"-a", "::x"},
          {"a\nb", "::x"},
          {"v", "x"},
          {"v", ":x"},
          {"v", "::x\nforged::y"},
          {"good", "::z"}},
         "status::playing\nmore::x\ngood::z\n"},
        {{{"status", nullptr}, {"more", nullptr}, {"good", nullptr}}, ""},
    };
    for (const auto& item : cases) {
        for (const change& one : item.changes) {
            lyr_ppswriter_write_attr(object, one.name, one.value);
        }
        EXPECT_EQ(lyr_ppswriter_flush(object), 0);
        EXPECT_EQ(text_of("/state"), std::string("@state\n") + item.content);
    }
}

/* A watcher must see withdrawn attributes before the new set, and no attribute vanish that only
 * changes its value. */
TEST_F(ppswriter, watchers_see_one_update) {
    lyr_ppswriter_write_attr(object, "a", "::1");
    lyr_ppswriter_write_attr(object, "b", "::1");
    lyr_ppswriter_flush(object);
    pps_object* watch = pps_open((path + "/state?delta").c_str(), O_RDONLY, 0);
    ASSERT_NE(watch, nullptr);
    const auto told = [watch] {
        char text[256];
        const ssize_t length = pps_read(watch, text, sizeof(text), -1);
        return std::string(text, static_cast<size_t>(length > 0 ? length : 0));
    };
    EXPECT_EQ(told(), "@state\na::1\nb::1\n");
    EXPECT_EQ(told(), "");
    lyr_ppswriter_write_attr(object, "a", nullptr);
    lyr_ppswriter_write_attr(object, "b", "::2");
    lyr_ppswriter_flush(object);
    EXPECT_EQ(told(), "@state\n-a\nb::2\n");
    lyr_ppswriter_write_attr(object, "b", "::2"); /* as it was: published all the same */
    lyr_ppswriter_flush(object);
    EXPECT_EQ(told(), "@state\nb::2\n");
    EXPECT_EQ(lyr_ppswriter_flush(object), 0); /* nothing set: nothing written */
    EXPECT_EQ(told(), "");
    pps_close(watch);
}

TEST_F(ppswriter, takes_a_whole_dictionary) {
    lyr_ppswriter_write_attr(object, "a", "::1");
    lyr_ppswriter_flush(object);
    strm_dict* content = strm_dict_new();
    std::string expected = "@state\n";
    for (int32_t i = 0; i < 400; ++i) { /* more pieces than one system call takes */
        const std::string name = "n" + std::to_string(i);
        strm_dict_set(content, name.c_str(), ":n:1");
        expected += name + ":n:1\n";
    }
    strm_dict_set(content, "broken", "no value");
    EXPECT_EQ(lyr_ppswriter_write_dict(object, content), 0);
    EXPECT_EQ(text_of("/state"), expected);
    EXPECT_EQ(strm_dict_count(lyr_ppswriter_getall(object)), 400);
}

/* The text of a hostile file's tag neither ends the service nor leaves an older one in place. */
TEST_F(ppswriter, withdraws_what_is_far_too_long) {
    const std::string megabytes = "::" + std::string(3 << 20, 'x');
    lyr_ppswriter_write_attr(object, "long", megabytes.c_str());
    lyr_ppswriter_write_attr(object, "other", "::1");
    EXPECT_EQ(lyr_ppswriter_flush(object), 0);
    EXPECT_EQ(text_of("/state"), "@state\nlong" + megabytes + "\nother::1\n");
    lyr_ppswriter_write_attr(object, "long", ("::" + std::string(PPS_OBJECT_MAX, 'x')).c_str());
    EXPECT_EQ(lyr_ppswriter_flush(object), 0);
    EXPECT_EQ(text_of("/state"), "@state\nother::1\n");
}

TEST_F(ppswriter, starts_without_what_an_earlier_run_left) {
    plant_file(real_path(path) + "/track", "@track\nstale::yes\n");
    lyr_ppswriter* track = lyr_ppswriter_create(root, "track", -1, &error);
    ASSERT_NE(track, nullptr);
    EXPECT_EQ(text_of("/track"), "@track\n");
    EXPECT_EQ(lyr_ppswriter_remove(track), 0);
    EXPECT_FALSE(exists("/track"));
}

TEST_F(ppswriter, refuses_a_second_object_of_the_name) {
    EXPECT_EQ(lyr_ppswriter_create(root, "state", -1, &error), nullptr);
    EXPECT_EQ(error, EEXIST);
    lyr_ppswriter* one = lyr_ppswriter_create(root, "state", 1, &error);
    lyr_ppswriter* two = lyr_ppswriter_create(root, "state", 2, &error);
    EXPECT_TRUE(exists("/state1") && exists("/state2"));
    EXPECT_EQ(lyr_ppswriter_create(root, "state", 2, nullptr), nullptr);
    EXPECT_EQ(lyr_ppswriter_remove(two), 0);
    EXPECT_FALSE(exists("/state2"));
    lyr_ppswriter_close(one);
    EXPECT_EQ(lyr_ppswriter_remove(one), EBUSY); /* no reference is left to give up */
    EXPECT_EQ(lyr_ppswriter_create(root, "state", 1, &error), nullptr); /* still in the tree */
}

TEST_F(ppswriter, an_object_somebody_unlinked_is_reported) {
    lyr_ppswriter* track = lyr_ppswriter_create(root, "track", -1, &error);
    fs::remove(real_path(path) + "/track");
    new_log_text();
    EXPECT_EQ(lyr_ppswriter_remove(track), ENOENT);
    EXPECT_NE(new_log_text().find("Couldn't unlink " + path + "/track: No such file"),
              std::string::npos);
}

TEST_F(ppswriter_death, a_platform_that_fails_ends_the_process) {
    const auto flush_with_echo = [this] {
        background = 0;
        for (int32_t i = 0; i <= PPS_ATTRIBUTES_MAX; ++i) {
            lyr_ppswriter_write_attr(object, std::to_string(i).c_str(), "::x");
        }
        lyr_ppswriter_flush(object);
    };
    EXPECT_EXIT(flush_with_echo(), ::testing::ExitedWithCode(1),
                "Couldn't update a PPS object \\(File too large\\)");
    const auto create_with_echo = [this] {
        background = 0;
        lyr_ppswriter_create(root, "a/b", -1, &error);
    };
    EXPECT_EXIT(create_with_echo(), ::testing::ExitedWithCode(1),
                "Couldn't create PPS object 'a/b' \\(No such file or directory\\)");
}
