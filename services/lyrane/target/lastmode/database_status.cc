#include "database_status.h"

#include <string_view>

#include <veloran/pps.h>

static constexpr std::string_view DATABASE = "lyrane";

database_status database_read_status(const char* text, size_t length) noexcept {
    bool ours = false;
    database_status status = database_status::unknown;
    pps_line line;
    while (pps_next_line(&text, &length, &line) == 1) {
        const std::string_view name(line.name, line.name_length);
        if (line.kind == '@' || line.kind == '~') {
            ours = line.kind == '@' && name == DATABASE;
        } else if (ours && line.kind == '=' && name == "Status") {
            const std::string_view value(line.value, line.value_length);
            status = value.starts_with("::Valid")   ? database_status::valid
                     : value.starts_with("::Error") ? database_status::unusable
                                                    : database_status::unknown;
        }
    }
    return status;
}
