#include "options.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

#include <veloran/process.h>

#include "msglog.h"

namespace {

constexpr const char* SOURCE = "services/lyrane/target/options";

constexpr int32_t TIMER_MIN = 100;
constexpr int32_t GROUPS_MIN = 8;
constexpr int32_t LASTMODE_TIMEOUT = 5; /* s */
constexpr int32_t LASTMODE_MAX_TRY = 5;

bool is_blank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

void set_defaults(control_block* control) {
    memset(static_cast<void*>(control), 0, sizeof *control);
    vel_mutex_init(&control->mediasources_lock);
    vel_mutex_init(&control->players_lock);
    vel_mutex_init(&control->registry_leaf);
    control->background = 1;
    control->priority = PROCESS_PRIORITY_ORDINARY;
    control->service_name = "lyrane.sys";
    control->max_msg_size = 65536;
    control->config_file = "/etc/lyrane.cfg";
    control->database = "/db/lyrane.db";
    control->uid = geteuid();
    control->gid = getegid();
}

void enable_lastmode(control_block* control) {
    control->lastmode = 1;
    control->lastmode_timeout = LASTMODE_TIMEOUT;
    control->lastmode_devices = LYR_MS_TYPE_HDD;
    control->lastmode_max_try = LASTMODE_MAX_TRY;
}

int32_t number_option(const char* text, const char* name, char letter) {
    const int32_t value = static_cast<int32_t>(getval(text));
    if (errno != 0 || value < 0) {
        msglog(2, "invalid value for %s ('-%c') option", name, letter);
    }
    return value;
}

void set_timer(control_block* control, const char* text) {
    const int32_t value = number_option(text, "timer", 't');
    control->timer = value != 0 && value < TIMER_MIN ? TIMER_MIN : value;
}

void set_user(control_block* control, const char* text) {
    const long system_limit = sysconf(_SC_NGROUPS_MAX);
    const int32_t capacity =
        system_limit > GROUPS_MIN ? static_cast<int32_t>(system_limit) : GROUPS_MIN;
    gid_t* groups = static_cast<gid_t*>(calloc(static_cast<size_t>(capacity), sizeof(gid_t)));
    if (groups == nullptr) {
        msglog(1, "%s:%d:%s(): malloc() failed (%s)", SOURCE, __LINE__, __func__,
               msglog_error_text(errno));
        return;
    }
    const int32_t count = str2ids(text, &control->uid, groups, capacity);
    if (count < 1 || count > capacity) {
        msglog(2, "invalid value for user ('-U') option");
    }
    gid_t* shrunk =
        static_cast<gid_t*>(realloc(groups, static_cast<size_t>(count) * sizeof(gid_t)));
    if (shrunk == nullptr) {
        msglog(1, "%s:%d:%s(): malloc() failed (%s)", SOURCE, __LINE__, __func__,
               msglog_error_text(errno));
        return;
    }
    free(control->groups); /* of an earlier -U */
    control->groups = shrunk;
    control->ngroups = count;
    control->gid = shrunk[0];
    control->user = text;
}

} // namespace

void options(int argc, char** argv, control_block* control) noexcept {
    set_defaults(control);
    optind = 0; /* scan from the beginning, also a second time */
    int option = 0;
    while ((option = getopt(argc, argv, "+bc:d:ls:P:t:T:U:v")) != -1) {
        switch (option) {
        case 'b':
            control->background = 0;
            break;
        case 'c':
            control->config_file = optarg;
            break;
        case 'd':
            control->database = optarg;
            break;
        case 'l':
            enable_lastmode(control);
            break;
        case 's':
            control->service_name = optarg;
            break;
        case 'P':
            control->priority = number_option(optarg, "priority", 'P');
            break;
        case 't':
            set_timer(control, optarg);
            break;
        case 'T':
            control->tolerance = number_option(optarg, "tolerance", 'T');
            break;
        case 'U':
            set_user(control, optarg);
            break;
        case 'v':
            control->verbosity++;
            break;
        default:
            process_end(EXIT_FAILURE);
        }
    }
}

uint32_t getval(const char* text) noexcept {
    while (is_blank(*text)) {
        text++;
    }
    const bool negative = *text == '-';
    if (negative || *text == '+') {
        text++;
    }
    int base = 10;
    if (text[0] == '0') {
        const bool hexadecimal = text[1] == 'x' || text[1] == 'X';
        base = hexadecimal ? 16 : 8;
        text += hexadecimal ? 2 : 0;
    }
    uint32_t value = 0;
    const char* end = text + strlen(text);
    const std::from_chars_result result = std::from_chars(text, end, value, base);
    if (result.ec == std::errc::invalid_argument || result.ptr != end) {
        errno = EINVAL;
        return 0;
    }
    if (result.ec == std::errc::result_out_of_range || (negative && value != 0)) {
        errno = ERANGE;
        return 0;
    }
    errno = 0;
    return value;
}

char* nextfield(char** cursor, char delimiter) noexcept {
    if (*cursor == nullptr) {
        return nullptr;
    }
    char* field = *cursor;
    while (is_blank(*field) && *field != delimiter) {
        field++;
    }
    char* end = field;
    while (*end != '\0' && *end != delimiter) {
        end++;
    }
    *cursor = *end == '\0' ? nullptr : end + 1;
    while (end > field && is_blank(end[-1])) {
        end--;
    }
    *end = '\0';
    return field;
}
