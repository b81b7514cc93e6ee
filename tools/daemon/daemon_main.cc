#include "daemon_main.h"

#include <csignal>
#include <exception>
#include <iostream>

#include <veloran/process.h>

#include "text.h"

namespace {
constexpr int STATUS_FAILED = 1;
constexpr int STATUS_USAGE = 2;
} // namespace

int daemon_main(int argc, char** argv, const char* name, const char* about,
                const std::function<void(CLI::App*)>& declare,
                const std::function<bool(const CLI::App&, std::string* why)>& run) {
    (void)process_fill_standard_descriptors();
    (void)std::signal(SIGPIPE, SIG_IGN);
    std::string why;
    try {
        CLI::App app(about, name);
        declare(&app);
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return app.exit(error) == 0 ? 0 : STATUS_USAGE;
        }
        if (run(app, &why)) {
            return 0;
        }
    } catch (const std::exception& failure) {
        why = failure.what();
    }
    std::cerr << name << ": " << text_printable(why) << std::endl;
    return STATUS_FAILED;
}
