#include "facts.h"

const std::vector<check_fact> check_facts = {
    {"load.symbol", "the library itself exports the data object lyrp"},
    {"load.names", "no function of the library bears the name of one that the service exports"},
    {"load.init", "init succeeds with its settings"},
    {"load.entries", "a play table has create, attach_medianode and play, a browse table create "
                     "and browse"},
    {"load.types", "types to play are offered together with a play table"},

    {"life.init", "init and cleanup succeed each time that the library is loaded"},
    {"life.process", "umask, working directory, locale and signal handling stay as they are"},
    {"life.cloexec", "descriptors close on exec"},
    {"life.threads", "all threads of the plug-in have ended when cleanup returns"},
    {"life.descriptors", "cleanup gives back every descriptor"},
    {"life.unload", "closing the library unloads it, unless it is linked with -z nodelete"},
    {"life.empty", "init returns, if only with a failure, when it gets no settings of its own"},

    {"sources.reported", "media sources are reported while detection is switched on"},
    {"sources.fields", "a source has a uid, a type, and the id of the plug-in that reports it"},
    {"sources.capabilities", "a capability is offered together with the entries that it opens"},
    {"sources.off", "nothing is reported once detection was switched off"},
    {"sources.loop", "switching detection off gives back its threads and descriptors"},

    {"browse.create", "create gives a handle, also while other sessions live"},
    {"browse.list", "the top folder can be listed: 0, a count, and an array of that many records"},
    {"browse.ids", "each child has an id of its own"},
    {"browse.source", "ms_id and ms_type of a node are those of its media source"},
    {"browse.stable", "children have a stable order"},
    {"browse.pages", "pages make up the whole list, and none has more records than asked for"},
    {"browse.limits", "behind the end and for a count of 0 no records are delivered, and that is a "
                      "success"},
    {"browse.strangers", "an id may be any text; a failure hands nothing over"},
    {"browse.threads", "browse entries may run concurrently on one session"},
    {"browse.cancel", "cancel_browse ends the calls in progress, and no later ones"},
    {"browse.destroy", "destroy ends one session and leaves the others"},

    {"metadata.create", "create gives a handle"},
    {"metadata.tracks", "metadata of a listed track is one malloc()ed record with malloc()ed "
                        "texts, or none"},
    {"metadata.strangers", "an id may be null or any text"},
    {"metadata.extended", "values are malloc()ed texts; of an unknown key there is none"},
    {"metadata.update", "saved nodes are brought up to date in place, their texts malloc()ed"},
    {"metadata.search", "a search is listed like a folder"},
    {"metadata.search_strangers", "filter may be null, filter and key may be any text"},

    {"play.create", "create gives a handle of its own to each live session"},
    {"play.attach", "a track that was listed can be attached"},
    {"play.reports", "what plays is reported: positions, the end, or an error"},
    {"play.commands", "a capability that is offered works while a track plays"},
    {"play.finish", "attach_medianode, get_metadata and play work from inside track_finished"},
    {"play.destroy", "destroy ends one session and leaves the others"},
    {"play.end", "after destroy, detection off and cleanup no thread of the plug-in is left"},

    {"order.early", "entries may be called before a node is attached"},
    {"order.values", "any position, rate and mode may come"},
    {"order.strangers", "a node may be attached that is not there (any more)"},
    {"order.turns", "commands may come in any order"},

    {"locks.entries", "no lock that an entry takes is held during a callback"},
    {"locks.destroy", "destroy does not wait for a callback in flight"},

    {"events.context", "callbacks come from threads of the plug-in's own, and not from inside a "
                       "session's entry"},
    {"events.phase", "nothing is reported before init and after cleanup have returned"},
    {"events.session", "a callback brings the handle and the callback_data of one session"},
    {"events.late", "no callback is begun for a session that was destroyed"},
    {"events.ends", "the end of a track is reported once for each time that it was played to it"},
    {"events.values", "positions are not negative; states and errors are those of the interface"},
};

std::string check_group_of(const std::string& id) {
    return id.substr(0, id.find('.'));
}

const char* check_rule(const std::string& id) {
    for (const check_fact& fact : check_facts) {
        if (id == fact.id) {
            return fact.rule;
        }
    }
    return "the process ends by itself, and no sanitizer has anything to say";
}
