#include "show.h"

#include <algorithm>
#include <iostream>

#include <nlohmann/json.hpp>

#include "facts.h"
#include "text.h"

static constexpr int32_t ID_WIDTH = 26;

static const char* word(check_state state) {
    return state == check_state::fine ? "ok" : state == check_state::failed ? "FAILED" : "skipped";
}

static int32_t count(const std::vector<check_result>& checks, check_state state) {
    return static_cast<int32_t>(
        std::count_if(checks.begin(), checks.end(),
                      [&](const check_result& check) { return check.state == state; }));
}

int32_t show_failed(const std::vector<check_result>& checks) {
    return count(checks, check_state::failed);
}

void show_checks(const std::vector<check_result>& checks) {
    for (const check_result& check : checks) {
        std::cout << text_pad(word(check.state), 8, false);
        std::cout << (check.text.empty() ? check.id : text_pad(check.id, ID_WIDTH, false))
                  << text_printable(check.text) << '\n';
        if (check.state == check_state::failed) {
            std::cout << "        the rule: " << check_rule(check.id) << '\n';
        }
    }
    std::cout << std::flush;
}

void show_summary(const std::vector<check_result>& checks) {
    std::cout << checks.size() << " checks: " << count(checks, check_state::fine) << " ok, "
              << count(checks, check_state::failed) << " failed, "
              << count(checks, check_state::skipped) << " skipped" << std::endl;
}

void show_json(const std::string& library, const std::vector<check_result>& checks) {
    nlohmann::ordered_json document;
    document["plugin"] = library;
    document["failed"] = count(checks, check_state::failed);
    document["skipped"] = count(checks, check_state::skipped);
    document["checks"] = nlohmann::ordered_json::array();
    for (const check_result& check : checks) {
        document["checks"].push_back({{"id", check.id},
                                      {"result", word(check.state)},
                                      {"text", check.text},
                                      {"rule", check_rule(check.id)}});
    }
    std::cout << text_json(document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace))
              << std::endl;
}

void show_rules() {
    for (const check_fact& fact : check_facts) {
        std::cout << text_pad(fact.id, ID_WIDTH, false) << fact.rule << '\n';
    }
    std::cout << std::flush;
}
