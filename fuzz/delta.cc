/* Published objects that others write as they please, and a reader of what changes: after any
 * sequence of updates, foreign texts, links and removals, what it was told is what is there.
 *
 * An input: steps of a byte: bits 0 to 2 what happens, bits 3 and 4 the object, bits 5 to 7 how;
 * for some the length of a text and the text. */
#include <fstream>
#include <iterator>
#include <map>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "input.h"
#include "pps_content.h"

namespace {

constexpr int STEPS = 60;
constexpr const char* NAMES[] = {"a", "b", "c d", "\xFF"};
constexpr int OBJECTS = 4;
constexpr size_t PIECES[] = {1, 2, 3, 7, 16, 64, 1000, 4096};

std::string folder;
pps_object* writers[OBJECTS];
pps_object* reader;
std::map<std::string, pps_attributes> told;

std::string path_of(int object) {
    return folder + "/" + NAMES[object];
}

std::string platform_path(const std::string& name) {
    return "/pps/fuzz/" + name;
}

std::string text_of(const strm_dict* attributes) {
    std::map<std::string, std::string> sorted;
    const char* name = nullptr;
    const char* value = nullptr;
    for (int32_t i = 0; strm_dict_at(attributes, i, &name, &value) == 0; ++i) {
        sorted[name] = value;
    }
    std::string text;
    for (const auto& [key, content] : sorted) {
        text += key + content + '\n';
    }
    return text;
}

/* Takes what the reader is given, in pieces of this size. */
void take_news(size_t piece) {
    std::string text;
    std::string buffer(piece, '\0');
    ssize_t count = 0;
    while ((count = pps_read(reader, buffer.data(), buffer.size(), -1)) > 0) {
        text.append(buffer, 0, static_cast<size_t>(count));
    }
    require(count == 0, "a reader can read");
    const char* at = text.data();
    size_t left = text.size();
    strm_dict* object = nullptr;
    pps_line line;
    while (pps_next_line(&at, &left, &line) == 1) {
        const std::string name(line.name, line.name_length);
        if (line.kind == '~') {
            require(told.erase(name) == 1, "only what was known can go");
            object = nullptr;
        } else if (line.kind == '@') {
            pps_attributes& known = told[name];
            if (known == nullptr) {
                known.reset(strm_dict_new());
            }
            object = known.get();
        } else {
            require(object != nullptr, "an attribute belongs to an object");
            const std::string value(line.value, line.value_length);
            (void)(line.kind == '-' ? strm_dict_delete(object, name.c_str())
                                    : strm_dict_set(object, name.c_str(), value.c_str()));
        }
    }
}

void require_truth(void) {
    size_t objects = 0;
    for (int i = 0; i < OBJECTS; ++i) {
        std::string text;
        pps_identity identity;
        if (pps_content_load(AT_FDCWD, path_of(i).c_str(), &text, &identity) != 0) {
            continue;
        }
        const pps_attributes there(strm_dict_new());
        (void)pps_content_merge(there.get(), text.data(), text.size(), pps_strictness::file);
        const auto known = told.find(NAMES[i]);
        require(known != told.end() && text_of(known->second.get()) == text_of(there.get()),
                "what was told is what is there");
        objects += 1;
    }
    require(told.size() == objects, "what is not there is not told");
}

/* As another program writes: into the file, or a new one in its place. */
void write_foreign(int object, const std::string& text, bool in_place) {
    const std::string target = path_of(object);
    const std::string aside = folder + "/.aside";
    std::ofstream(in_place ? target : aside, std::ios::binary) << text;
    if (!in_place) {
        (void)rename(aside.c_str(), target.c_str());
    }
}

void write_own(int object, const std::string& text, bool anew) {
    pps_object** writer = &writers[object];
    if (anew) {
        pps_close(*writer);
        *writer = nullptr;
    }
    if (*writer == nullptr) {
        const int32_t flags = O_WRONLY | O_CREAT | (anew ? O_TRUNC : 0);
        *writer = pps_open(platform_path(NAMES[object]).c_str(), flags, 0666);
    }
    if (*writer != nullptr) {
        (void)pps_write(*writer, text.data(), text.size());
    }
}

void take_away(int object) {
    (void)(unlink(path_of(object).c_str()) == 0 || rmdir(path_of(object).c_str()) == 0);
}

/* Something in the place of an object that is none. */
void plant(int object, unsigned kind) {
    take_away(object);
    const std::string path = path_of(object);
    if (kind == 0) {
        (void)!symlink(path_of((object + 1) % OBJECTS).c_str(), path.c_str());
    } else if (kind == 1) {
        (void)mkdir(path.c_str(), 0777);
    } else {
        (void)mkfifo(path.c_str(), 0666);
    }
}

void step(fuzz_input* input) {
    const unsigned op = input_u8(input);
    const int object = static_cast<int>(op >> 3 & 3);
    const unsigned how = op >> 5;
    switch (op & 7) {
    case 0:
    case 1:
    case 2:
        write_own(object, input_bytes(input, input_u8(input)), how == 7);
        break;
    case 3:
    case 4:
        struct stat status;
        if (lstat(path_of(object).c_str(), &status) != 0 || S_ISREG(status.st_mode)) {
            write_foreign(object, input_bytes(input, input_u8(input)), how < 3);
        }
        break;
    case 5:
        take_away(object);
        break;
    case 6:
        plant(object, how % 3);
        break;
    default:
        take_news(PIECES[how]);
        require_truth();
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    folder = fuzz_root() + "/run/pps/fuzz";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input = {data, size};
    require(pps_mkdir("/pps/fuzz", 0777) == 0, "a directory");
    reader = pps_open(platform_path(".all?delta").c_str(), O_RDONLY, 0);
    require(reader != nullptr, "a reader");
    for (int i = 0; i < STEPS && input.left > 0; ++i) {
        step(&input);
    }
    take_news(PIECES[OBJECTS]);
    require_truth();
    pps_close(reader);
    for (pps_object*& writer : writers) {
        pps_close(writer);
        writer = nullptr;
    }
    told.clear();
    require(pps_rmdir("/pps/fuzz") == 0, "the directory goes");
    return 0;
}
