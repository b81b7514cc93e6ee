// lyractl: the service's command line tool.
#include <cstdio>
#include <exception>
#include <iostream>

#include <CLI/CLI.hpp>

#include "arguments.h"
#include "commands.h"
#include "text.h"

namespace {

constexpr int STATUS_FAILED = 1;
constexpr int STATUS_USAGE = 2;

/* What a command can be given. */
enum takes : uint32_t {
    TAKES_PLAYER = 0x1,      /* -p */
    TAKES_SOURCE = 0x2,      /* first operand: a media source, may be left out */
    TAKES_FOLDER = 0x4,      /* second operand: a folder, may be left out */
    TAKES_PAGE = 0x8,        /* --offset, --limit */
    TAKES_START = 0x10,      /* --start, --expected */
    TAKES_MAKE = 0x20,       /* --create, --play */
    TAKES_NAME = 0x40,       /* operand: the player's name */
    TAKES_NAME_MAYBE = 0x80, /* the same, may be left out */
    TAKES_HOLD = 0x100,      /* --hold */
    TAKES_SCREEN = 0x200,    /* --source, --folder, --seconds, --note */
    TAKES_JSON = 0x400,      /* --json */
    TAKES_TEXT = 0x800,      /* first operand: what to search for; --filter */
    TAKES_NODE = 0x1000,     /* first operand: a media node; --key */
    TAKES_TRACK = 0x2000,    /* operand: number of a track, from 1 */
    TAKES_POSITION = 0x4000, /* operand: a position in a track */
    TAKES_RATE = 0x8000,     /* operand: a rate */
    TAKES_ON_OFF = 0x10000,  /* operand: on or off */
    TAKES_REPEAT = 0x20000,  /* operand: off, all or one */
    TAKES_CONFIG = 0x40000,  /* --config */
};

struct command {
    const char* name;
    uint32_t takes;
    bool (*run)(const arguments&, std::string*);
    const char* help;
};

constexpr command COMMANDS[] = {
    {"sources", TAKES_JSON, command_sources, "List the media sources that are connected"},
    {"players", TAKES_JSON, command_players, "List the players that there are"},
    {"browse", TAKES_PLAYER | TAKES_SOURCE | TAKES_FOLDER | TAKES_PAGE | TAKES_JSON, command_browse,
     "List what a folder holds"},
    {"search", TAKES_PLAYER | TAKES_TEXT | TAKES_SOURCE | TAKES_PAGE | TAKES_JSON, command_search,
     "List what a media source finds"},
    {"metadata", TAKES_PLAYER | TAKES_NODE | TAKES_SOURCE | TAKES_JSON, command_metadata,
     "Show what a media source tells of a track or a folder"},
    {"session", TAKES_PLAYER | TAKES_SOURCE | TAKES_FOLDER | TAKES_START | TAKES_MAKE | TAKES_JSON,
     command_session, "Make a track session of a folder and all below it"},
    {"play", TAKES_PLAYER | TAKES_JSON, command_play, "Play, or go on after a pause"},
    {"pause", TAKES_PLAYER | TAKES_JSON, command_pause, "Pause"},
    {"stop", TAKES_PLAYER | TAKES_JSON, command_stop, "Stop"},
    {"next", TAKES_PLAYER | TAKES_JSON, command_next, "Go to the next track"},
    {"previous", TAKES_PLAYER | TAKES_JSON, command_previous,
     "Go to the previous track, or to the beginning of this one"},
    {"jump", TAKES_PLAYER | TAKES_TRACK | TAKES_JSON, command_jump, "Go to a track of the session"},
    {"seek", TAKES_PLAYER | TAKES_POSITION | TAKES_JSON, command_seek,
     "Go to a position in the track"},
    {"rate", TAKES_PLAYER | TAKES_RATE | TAKES_JSON, command_rate,
     "Play faster, slower or backwards"},
    {"shuffle", TAKES_PLAYER | TAKES_ON_OFF | TAKES_JSON, command_shuffle,
     "Play the tracks in a drawn order"},
    {"repeat", TAKES_PLAYER | TAKES_REPEAT | TAKES_JSON, command_repeat,
     "Play the track session, or the track, again and again"},
    {"tracks", TAKES_PLAYER | TAKES_PAGE | TAKES_JSON, command_tracks,
     "List the tracks of the session"},
    {"destroy", TAKES_PLAYER | TAKES_JSON, command_destroy, "End the track session"},
    {"state", TAKES_PLAYER | TAKES_JSON, command_state, "Show a player's state"},
    {"now", TAKES_PLAYER | TAKES_JSON, command_now, "Show what plays"},
    {"watch", TAKES_NAME_MAYBE | TAKES_JSON, command_watch,
     "Print every change of one player, or of all, as it happens"},
    {"open", TAKES_NAME | TAKES_HOLD | TAKES_JSON, command_open,
     "Make a player, which stays until the service ends"},
    {"close", TAKES_NAME | TAKES_JSON, command_close, "Close a player that nobody else holds"},
    {"doctor", TAKES_CONFIG | TAKES_JSON, command_doctor,
     "Look for what keeps the service from playing, and say what to mend"},
    {"screen", TAKES_PLAYER | TAKES_START | TAKES_SCREEN, command_screen,
     "Show a player on the terminal, with keys to steer it"},
};

/* What a command is about; it cannot be left out. */
void declare_object(CLI::App* sub, uint32_t takes, arguments* what) {
    if ((takes & TAKES_TEXT) != 0) {
        sub->add_option("TEXT", what->text, "What to search for")->required();
        sub->add_option("--filter", what->filter, "The media source's own way to narrow a search");
    }
    if ((takes & TAKES_NODE) != 0) {
        sub->add_option("NODE", what->text,
                        "Track or folder: its path of names, as in Artist/Album/Song, or its "
                        "media node id")
            ->required();
        sub->add_option("--key", what->keys, "Show the value of this key; may be given again")
            ->allow_extra_args(false);
    }
    if ((takes & TAKES_TRACK) != 0) {
        sub->add_option("TRACK", what->number, "Number of the track, from 1")
            ->required()
            ->check(CLI::Range(1, INT32_MAX));
    }
    if ((takes & TAKES_POSITION) != 0) {
        sub->add_option("POSITION", what->text,
                        "Seconds, or minutes and seconds as in 1:30; +10 and -10 from here")
            ->required();
    }
    if ((takes & TAKES_RATE) != 0) {
        sub->add_option("RATE", what->rate, "1 is the normal rate")->required();
    }
    if ((takes & (TAKES_ON_OFF | TAKES_REPEAT)) != 0) {
        const std::vector<std::string> modes = (takes & TAKES_REPEAT) != 0
                                                   ? std::vector<std::string>{"off", "all", "one"}
                                                   : std::vector<std::string>{"on", "off"};
        sub->add_option("MODE", what->mode, "The mode")->required()->check(CLI::IsMember(modes));
    }
}

void declare_operands(CLI::App* sub, uint32_t takes, arguments* what) {
    declare_object(sub, takes, what);
    if ((takes & TAKES_SOURCE) != 0) {
        sub->add_option("SOURCE", what->source,
                        "Media source: its id, uid or name; default: the only one");
    }
    if ((takes & TAKES_FOLDER) != 0) {
        sub->add_option("FOLDER", what->folder,
                        "Folder: its path of names, as in Artist/Album, or its media node id; "
                        "default: the top folder");
    }
    if ((takes & (TAKES_NAME | TAKES_NAME_MAYBE)) != 0) {
        sub->add_option("PLAYER", what->player, "The player's name")
            ->required((takes & TAKES_NAME) != 0);
    }
}

void declare_options(CLI::App* sub, uint32_t takes, arguments* what) {
    if ((takes & TAKES_PLAYER) != 0) {
        sub->add_option("-p,--player", what->player, "Player; default: the only one there is");
    }
    if ((takes & TAKES_PAGE) != 0) {
        sub->add_option("--offset", what->offset, "Begin with this entry, from 0")
            ->check(CLI::Range(0, INT32_MAX));
        sub->add_option("--limit", what->limit, "List at most this many; default: all")
            ->check(CLI::Range(0, INT32_MAX));
    }
    if ((takes & TAKES_START) != 0) {
        sub->add_option("--start", what->start,
                        "Begin with this entry of the folder, from 0; default: the first that "
                        "has a track")
            ->check(CLI::Range(0, INT32_MAX));
        sub->add_option("--expected", what->expected, "Take at most this many tracks; default: all")
            ->check(CLI::Range(0, INT32_MAX));
    }
    if ((takes & TAKES_MAKE) != 0) {
        sub->add_flag("--create", what->create, "Make the player when it does not exist; it stays")
            ->needs(sub->get_option("--player"));
        sub->add_flag("--play", what->play, "Begin to play it");
    }
    if ((takes & TAKES_HOLD) != 0) {
        sub->add_flag("--hold", what->hold,
                      "Keep the player open until interrupted, then close it");
    }
    if ((takes & TAKES_CONFIG) != 0) {
        sub->add_option("-c,--config", what->config, "Configuration file of the service")
            ->capture_default_str();
    }
    if ((takes & TAKES_JSON) != 0) {
        sub->add_flag("--json", what->json, "Answer in JSON, one line a document");
    }
}

void declare_screen(CLI::App* sub, arguments* what) {
    sub->add_option("--source", what->source,
                    "Make the player if need be, and a track session of this media source, and "
                    "play it")
        ->needs(sub->get_option("--player"));
    sub->add_option("--folder", what->folder, "The folder of the track session")
        ->needs(sub->get_option("--source"));
    sub->add_option("--resume", what->resume,
                    "Go on with the track session of this media source that the player has or, "
                    "if it is there already, gets within these seconds; leave the player open")
        ->check(CLI::Range(0, INT32_MAX))
        ->needs(sub->get_option("--source"));
    sub->add_option("--seconds", what->seconds, "End after this time")
        ->check(CLI::Range(0, INT32_MAX));
    sub->add_option("--note", what->note, "Text for the foot of the screen");
}

void declare(CLI::App* app, arguments* what) {
    app->require_subcommand(1);
    app->set_version_flag("--version", std::string("lyractl ") + LYRANE_VERSION);
    app->add_option("--service", what->service, "Name of the service")->capture_default_str();
    app->fallthrough();
    for (const command& known : COMMANDS) {
        CLI::App* sub = app->add_subcommand(known.name, known.help);
        declare_options(sub, known.takes, what);
        declare_operands(sub, known.takes, what);
        if ((known.takes & TAKES_SCREEN) != 0) {
            declare_screen(sub, what);
        }
    }
}

/* What the parser says of an unknown command is that there is none. */
int usage(const CLI::App& app, const CLI::ParseError& error) {
    const std::vector<std::string> left = app.remaining();
    if (app.get_subcommands().empty() && !left.empty() && left[0][0] != '-') {
        std::cerr << "lyractl: there is no command \"" << text_printable(left[0])
                  << "\"; lyractl --help lists them" << std::endl;
        return STATUS_USAGE;
    }
    return app.exit(error) == 0 ? 0 : STATUS_USAGE;
}

int run(const CLI::App& app, arguments& what) {
    for (const command& known : COMMANDS) {
        if (!app.got_subcommand(known.name)) {
            continue;
        }
        what.playlist = (known.takes & TAKES_SCREEN) != 0 &&
                        app.get_subcommand(known.name)->count("--source") > 0;
        std::string why;
        if (known.run(what, &why)) {
            return 0;
        }
        if (why.empty()) {
            why = "the output cannot be written";
        }
        std::cerr << "lyractl: " << text_printable(why) << std::endl;
        return STATUS_FAILED;
    }
    return STATUS_USAGE;
}

} // namespace

int main(int argc, char** argv) {
    try {
        arguments what;
        CLI::App app("Steers the multimedia player service and shows what it does.", "lyractl");
        declare(&app, &what);
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return usage(app, error);
        }
        return run(app, what);
    } catch (const std::exception& failure) {
        std::cerr << "lyractl: " << text_printable(failure.what()) << std::endl;
        return STATUS_FAILED;
    }
}
