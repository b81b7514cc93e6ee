/* The command line: the input's texts as arguments, and -U and numbers against a reading of their
 * own. The user database and the largest group list are ours (the linker puts them here), so that
 * machines do not differ.
 *
 * An input: a byte with the capacity for groups, then the arguments, each ended by a NUL. */
#include <cerrno>
#include <csetjmp>
#include <vector>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include "input.h"
#include "options.h"

namespace {

constexpr size_t ARGUMENTS = 16;
constexpr long GROUPS = 10;
constexpr size_t LARGE_ENTRY = 20000; /* bytes that the entry of "large" takes */

constexpr struct {
    const char* name;
    uint32_t id;
    uint32_t group;
    int error;
} ENTRIES[] = {{"root", 0, 0, 0},    {"radio", 1000, 1001, 0}, {"17", 500, 501, 0},
               {"large", 7, 8, 0},   {"broken", 0, 0, EIO},    {"", 3, 4, 0},
               {"gone", 0, 0, ESRCH}};

jmp_buf ended;
void* newest; /* what calloc gave last: nobody frees the group list when a bad -U ends it all */

/* The id behind a name, its group in *group; -1 with errno set. */
int64_t id_of(const std::string& name, uint32_t* group) {
    int database = 0;
    for (const auto& entry : ENTRIES) {
        if (name == entry.name && entry.error == 0) {
            *group = entry.group;
            return entry.id;
        }
        database = name == entry.name && entry.error != ESRCH ? entry.error : database;
    }
    *group = 0;
    const uint32_t number = getval(name.c_str());
    if (errno != 0 || number == UINT32_MAX) {
        errno = database != 0 ? database : EINVAL;
        return -1;
    }
    return number;
}

std::string trimmed(const std::string& text) {
    constexpr const char* BLANKS = " \t\n\v\f\r";
    const size_t begin = text.find_first_not_of(BLANKS);
    return begin == std::string::npos
               ? ""
               : text.substr(begin, text.find_last_not_of(BLANKS) - begin + 1);
}

/* All groups of a text, in order; false with errno set. */
bool read_ids(const std::string& text, uint32_t* uid, std::vector<uint32_t>* groups) {
    const size_t colon = text.find(':');
    const std::string user = trimmed(text.substr(0, colon));
    uint32_t group = 0;
    const int64_t id = id_of(user, &group);
    if (id < 0) {
        return false;
    }
    *uid = static_cast<uint32_t>(id);
    for (const auto& entry : ENTRIES) {
        if (user == entry.name && entry.error == 0) {
            groups->push_back(group);
        }
    }
    for (size_t at = colon; at != std::string::npos; at = text.find(',', at + 1)) {
        const size_t end = text.find(',', at + 1);
        const int64_t gid = id_of(trimmed(text.substr(at + 1, end - at - 1)), &group);
        if (gid < 0) {
            return false;
        }
        groups->push_back(static_cast<uint32_t>(gid));
    }
    return true;
}

void require_ids(const std::string& text, size_t capacity) {
    uid_t uid = 0;
    std::vector<gid_t> groups(capacity);
    const int32_t count =
        str2ids(text.c_str(), &uid, groups.data(), static_cast<int32_t>(capacity));
    const int error = errno;
    uint32_t expected_uid = 0;
    std::vector<uint32_t> expected;
    if (!read_ids(text, &expected_uid, &expected)) {
        require(count == -1 && error == errno, "a text without ids is refused");
        return;
    }
    require(count == static_cast<int32_t>(expected.size()) && uid == expected_uid,
            "the user and the number of groups");
    expected.resize(std::min(expected.size(), capacity));
    groups.resize(expected.size());
    require(expected == std::vector<uint32_t>(groups.begin(), groups.end()), "the groups");
}

void require_number(const char* text) {
    char* end = nullptr;
    errno = 0;
    const unsigned long long magnitude = strtoull(text, &end, 0);
    const bool negative = strchr(text, '-') != nullptr;
    const bool whole = end != text && *end == '\0';
    const bool fits = errno == 0 && (negative ? magnitude == 0 : magnitude <= UINT32_MAX);
    const uint32_t value = getval(text);
    require(errno == (!whole ? EINVAL : !fits ? ERANGE : 0), "what is wrong with a number");
    require(value == (whole && fits ? magnitude : 0), "a number");
}

void require_block(const control_block& control) {
    require(control.priority >= 0 && control.tolerance >= 0 && control.verbosity >= 0,
            "numbers are not negative");
    require(control.timer == 0 || control.timer >= 100, "the timer has a least value");
    require((control.user == nullptr) == (control.groups == nullptr), "a user has groups");
    if (control.groups != nullptr) {
        require(control.ngroups >= 1 && control.ngroups <= GROUPS &&
                    control.gid == control.groups[0],
                "the first group is the user's");
    }
    require(control.config_file != nullptr && control.database != nullptr &&
                control.service_name != nullptr,
            "every text has a default");
}

void run_options(std::vector<std::string>& arguments) {
    static control_block control;
    std::vector<char*> argv = {const_cast<char*>("lyrane")};
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    newest = nullptr;
    opterr = 0;
    if (setjmp(ended) == 0) {
        options(static_cast<int>(argv.size()) - 1, argv.data(), &control);
        newest = nullptr;
        require_block(control);
    }
    free(newest);
    free(control.groups);
    control.groups = nullptr;
}

template <typename Entry, typename Fill>
int find(const char* name, size_t size, Entry* entry, Entry** result, Fill fill) {
    *result = nullptr;
    for (const auto& known : ENTRIES) {
        if (strcmp(name, known.name) == 0) {
            const bool fits = strcmp(name, "large") != 0 || size >= LARGE_ENTRY;
            fill(entry, known);
            *result = known.error == 0 && fits ? entry : nullptr;
            return fits ? known.error : ERANGE;
        }
    }
    return 0;
}

} // namespace

extern "C" {

long __real_sysconf(int name);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* memory, size_t size);

[[noreturn]] void __wrap_process_end(int32_t) noexcept {
    longjmp(ended, 1);
}

long __wrap_sysconf(int name) {
    return name == _SC_NGROUPS_MAX ? GROUPS : __real_sysconf(name);
}

void* __wrap_calloc(size_t count, size_t size) {
    newest = __real_calloc(count, size);
    return newest;
}

void* __wrap_realloc(void* memory, size_t size) {
    newest = memory == newest ? nullptr : newest;
    return __real_realloc(memory, size);
}

int __wrap_getpwnam_r(const char* name, passwd* entry, char*, size_t size, passwd** result) {
    return find(name, size, entry, result, [](passwd* found, const auto& known) {
        found->pw_uid = known.id;
        found->pw_gid = known.group;
    });
}

int __wrap_getgrnam_r(const char* name, group* entry, char*, size_t size, group** result) {
    return find(name, size, entry, result,
                [](group* found, const auto& known) { found->gr_gid = known.id; });
}

int LLVMFuzzerInitialize(int*, char***) {
    (void)fuzz_root();
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input = {data, size};
    const size_t capacity = input_u8(&input) % 5;
    std::string rest = input_bytes(&input, input.left);
    std::vector<std::string> arguments;
    while (!rest.empty() && arguments.size() < ARGUMENTS) {
        const size_t end = rest.find('\0');
        arguments.push_back(rest.substr(0, end));
        rest.erase(0, end == std::string::npos ? end : end + 1);
        require_number(arguments.back().c_str());
        require_ids(arguments.back(), capacity);
    }
    run_options(arguments);
    return 0;
}
}
