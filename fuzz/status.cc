/* The status objects of the database service, as anybody may write them: what the service takes
 * from any bytes is what a reader finds that takes the text apart by hand. */
#include <string_view>

#include "database_status.h"
#include "input.h"

namespace {

/* A text of one object: the last status line of ours counts. */
database_status expected(std::string_view text) {
    database_status status = database_status::unknown;
    bool ours = false;
    text.remove_suffix(text.ends_with('\0') ? 1 : 0);
    while (!text.empty()) {
        const size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (line.find('\0') != std::string_view::npos) {
            continue;
        }
        if ((line.starts_with("@") && line.size() > 1) ||
            (line.starts_with("-@") && line.size() > 2)) {
            ours = line == "@lyrane";
        } else if (ours && line.starts_with("Status:") &&
                   line.find(':', 7) != std::string_view::npos) {
            status = line.starts_with("Status::Valid")   ? database_status::valid
                     : line.starts_with("Status::Error") ? database_status::unusable
                                                         : database_status::unknown;
        }
    }
    return status;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto* text = reinterpret_cast<const char*>(data);
    require(database_read_status(text, size) == expected({text, size}), "the status of the text");
    return 0;
}
