#include "commands.h"

#include <nlohmann/json.hpp>

#include "doctor.h"
#include "output.h"
#include "table.h"
#include "text.h"

static const char* word_of(verdict is) {
    return is == verdict::good ? "ok" : is == verdict::notice ? "note" : "BAD";
}

/* One line a finding; fails when one of them is bad. */
bool command_doctor(const arguments& what, std::string* why) {
    const std::vector<finding> found = doctor_look(what);
    size_t bad = 0;
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    table shown;
    shown.columns = {{""}, {"WHAT"}, {"FOUND"}};
    for (const finding& one : found) {
        bad += one.is == verdict::bad ? 1 : 0;
        list.push_back({{"verdict", word_of(one.is)}, {"what", one.about}, {"found", one.says}});
        shown.rows.push_back({word_of(one.is), one.about, one.says});
    }
    if (!(what.json ? output_json(list) : output_text(table_text(shown)))) {
        return false;
    }
    if (bad > 0) {
        *why = std::to_string(bad) + (bad == 1 ? " thing is" : " things are") + " to be mended";
    }
    return bad == 0;
}
