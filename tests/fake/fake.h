/* fake.so: a media plug-in that does what a test tells it, and remembers what it was asked.
 *
 * A test speaks to it in commands, one text each, answered by a result (0, or -1 with the reason)
 * and a text. A test in the service's own process calls fake_api.command; for a service in another
 * process the same commands travel through the stream socket whose path is the plug-in setting
 * "control": request = uint32 length and that many bytes; reply = int32 result, uint32 length,
 * bytes; several connections at a time, each served by its own thread. tests/support/fake_client.h
 * wraps both. The setting "script" holds commands that init executes first, one a line; a line that
 * begins with a space belongs to the body of the command above.
 *
 * All state belongs to one image of the library: a copy under another file name is another plug-in.
 * State outlives cleanup, so a test that holds the library open can still read the log.
 *
 * A command is a word, further words and KEY=VALUE options, separated by spaces; a value with
 * spaces is written "in quotes", with \" \\ \n and \xHH. Numbers may be hexadecimal (0x). An option
 * that the command does not know is an error. Text behind the first line feed is the body.
 *
 * The world
 *   tree [uid=UID]           The body is the tree of that source ("" or none: of every source that
 *                            has no tree of its own), one node a line: PATH|TYPE|NAME|URL|COUNT.
 *                            The path is the node's id; "/" exists always; parents that are not
 *                            given become folders. TYPE is F folder, A audio, V video, a number,
 *                            tracks:N (a folder of N audio tracks PATH/t0 ...) or tree:D,F,T (a
 *                            folder with F folders PATH/f0 ... in D further levels and T tracks
 *                            PATH/t0 ... in each folder; generated when asked for, never held).
 *                            NAME: empty is the last part of the path, "-" null. URL: empty is
 *                            "fake:PATH", "-" null. COUNT: empty is the number of children.
 *                            \xHH gives any byte. A node with several lines is a child as often.
 *   meta ID [title= artwork= artist= album= genre= year= extra= duration= width= height=
 *        disc= track=]       Metadata of a node. Without it a leaf has its name as title and a
 *                            duration of 180000 ms, everything else has none.
 *   ext ID KEY VALUE         One extended metadatum.
 *   source UID [name=] [view=] [type=] [caps=] [status=] [auto=0] [noname=1]
 *                            A media source; reported when detection is switched on, unless auto=0,
 *                            on a thread of the plug-in while the call waits.
 *                            Defaults: name = UID, no view name, HDD, all capabilities, status 1.
 *   types MASK | name TEXT   What init stores; the table's name.
 *   device on|off            Device mode: a session walks the tracks of the attached node's folder
 *                            on next and previous, and reports track changes and states.
 *   null ENTRY | restore ENTRY  Takes an entry out of its table, or a table (play_api, browse_api).
 *   print TEXT               Leaves a text in the buffer of the standard output, and keeps the
 * stream for the connection's thread. expose                   Lets SIGTERM into the connection's
 * thread, whose id is the answer. reset                    Drops rules, log, counters, violations;
 * opens every gate.
 *
 * Behaviour of entries. Names: init detection cleanup play.create play.destroy attach play pause
 * stop rate seek next previous shuffle repeat browse.create browse.destroy browse search metadata
 * extended update cancel.
 *   rule ENTRY [id=] [ms=] [skip=N] [times=N] and what it does:
 *        result=N            returned in place of doing anything    null=1   create returns null
 *        block=GATE          wait in the call until "release GATE"
 *        deaf=1              a blocked call does not notice cancel
 *        signal=N            crash: raise that signal       exit=N   end the process as exit() does
 *        page=N              at most N records a page               over=N   N more than asked
 *        count=N             deliver this count, with no array      nullid=1 null ids
 *        rewind=1            ignore the offset
 *        inside=EVENT        make this event from inside the call, on the calling thread
 *        after=EVENT         make it on a thread of the plug-in once the call returned
 *                            Applies to calls that match, to `times` of them after the first
 *                            `skip`. All rules that apply act; later ones win.
 *   unrule                   Drops the rules.
 *   release GATE             Opens a gate for good: those who wait and those who come.
 *   blocked GATE             Waits until a call waits at the gate.
 *
 * What was called
 *   await ENTRY N [returned=1]  Waits for the Nth call since the start or `clear`; entries
 *                            "event.KIND" count callbacks that returned.
 *   count ENTRY [returned=1] Number of calls.
 *   log [ENTRY]              One line a call: ENTRY KEY=VALUE ... with session, id, value, result.
 *                            The last 4096 calls are kept, or as many as "keep" says.
 *   keep N
 *   clear                    Forgets log and counters.
 *   sessions                 One line a live session: SERIAL play|browse ms=ID.
 *   settings                 What init was given: KEY=VALUE lines.
 *   violations               What the service did against the rules of the interface, one a line;
 *                            cleanup writes them to the standard error, too.
 *   id UID                   The id that the service gave a source, -1 before that.
 *   plugin                   The plug-in's own id.
 *   detection                1 while switched on.
 *
 * Events: event KIND ... [thread=N] [repeat=N] [nowait=1]; the text is the callback's result (of
 * the last repetition), or with nowait a ticket for "join TICKET", which waits for the result.
 * Made on thread N (0) of the plug-in.
 *   connected uid=           disconnected uid=|id=     status uid=|id= value=
 *   caps uid=|id= value=                   position value=           finished
 *   changed [node=ID]  state [shuffle= repeat= status= rate=]        error value=      browse_error
 *        Those of playback take session= (the newest live play session by default; a serial of
 *        the log, also of a destroyed one; null; 0x...: any handle; this: of the call, in a rule)
 *        and data= (the one of the session by default; null; 0x...).
 */
#ifndef FAKE_H
#define FAKE_H

#include <stdint.h>

#include <lyrane/records.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct fake_api_table {
    /* Executes one command. 0 or -1; *reply receives a malloc()ed text that the caller frees.
     * May wait (await, blocked, event, join). [any thread] */
    int32_t (*command)(const char* text, char** reply) LYR_NOEXCEPT;
} fake_api_table;

/* The data symbol "fake_api" beside "lyrp". */
extern const fake_api_table fake_api;

#ifdef __cplusplus
}
#endif

#endif
