/* Objects of the tree: attribute sets that are published whole. */
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include <fcntl.h>
#include <sys/uio.h>
#include <veloran/pps.h>

#include "msglog.h"
#include "ppschange.h"
#include "ppsdir.h"
#include "ppsnode.h"

namespace {

constexpr uint32_t OBJECT_MODE = 0777;
constexpr int32_t FATAL = 2; /* log level */
constexpr const char* CREATE_OPTION = "nopersist";

/* Bytes of a value. The texts come from the tags of anybody's files; an object that the platform
 * does not take would end the service, so one that holds a few such values still fits. */
constexpr size_t VALUE_MAX = PPS_OBJECT_MAX / 4;

struct dict_release {
    void operator()(strm_dict* dict) const noexcept { strm_dict_destroy(dict); }
};
using dict_owner = std::unique_ptr<strm_dict, dict_release>;

struct piece_list {
    std::unique_ptr<iovec, vel_free> pieces;
    size_t count;
};

} // namespace

static lyr_ppswriter* refuse(int32_t* error, int32_t number) {
    if (error != nullptr) {
        *error = number;
    }
    errno = number;
    return nullptr;
}

static bool has_child(const lyr_ppsdir* dir, const char* name, int32_t instance)
    VEL_REQUIRES(ppsnode_lock) {
    for (const lyr_ppsnode* child = dir->first_child; child != nullptr; child = child->next) {
        if (child->instance == instance && std::strcmp(child->name, name) == 0) {
            return true;
        }
    }
    return false;
}

/* Links a new object with its first reference, so that its directory stays from here on. False
 * when the directory has such a child already. */
static bool link_object(lyr_ppsnode* object) {
    vel_lock_guard guard(ppsnode_lock);
    if (has_child(object->parent, object->name, object->instance)) {
        return false;
    }
    ppsnode_link(object);
    object->refs = 1;
    ppsnode_use(object->parent);
    return true;
}

static void unlink_object(lyr_ppsnode* object) {
    vel_lock_guard guard(ppsnode_lock);
    object->refs = 0;
    ppsnode_release(object->parent);
    ppsnode_unlink(object);
}

/* Opens the object's file anew: what an earlier owner left in it is gone from the start. `level` is
 * that of a failure's line. 0 or the error number. */
static int32_t open_file(lyr_ppsnode* object, int32_t level) {
    const vel_text path = ppsnode_path(object, CREATE_OPTION);
    object->current = strm_dict_new();
    if (path == nullptr || object->current == nullptr) {
        return ENOMEM;
    }
    object->file = pps_open(path.get(), O_WRONLY | O_CREAT | O_TRUNC, OBJECT_MODE);
    if (object->file != nullptr) {
        return 0;
    }
    const int32_t error = errno;
    msglog(level, "Couldn't create PPS object '%s' (%s)", object->name, msglog_error_text(error));
    return error;
}

/* Whether name and value make up one line of an update. Anything else would be refused by the
 * platform, or be read as other attributes. */
static bool is_attribute(const char* name, const char* value) {
    if (*name == '\0' || *name == '-' || *name == '@' || std::strpbrk(name, ":\n") != nullptr) {
        return false;
    }
    return value == nullptr || (*value == ':' && std::strchr(value + 1, ':') != nullptr &&
                                std::strchr(value, '\n') == nullptr);
}

static bool is_too_long(const char* value) {
    return std::strlen(value) > VALUE_MAX;
}

static void refuse_attribute(const lyr_ppsnode* object, const char* name) {
    msglog(3, "Attribute '%s' of PPS object '%s' is not one line, ignored", name, object->name);
}

/* The update that turns one set into another: deletion lines, then every attribute. Points into
 * the dictionaries. No pieces without memory. */
static piece_list gather(const strm_dict* withdrawn, const strm_dict* content) {
    const auto lines = static_cast<size_t>(strm_dict_count(withdrawn)) +
                       static_cast<size_t>(strm_dict_count(content));
    piece_list list = {nullptr, 0};
    list.pieces.reset(static_cast<iovec*>(std::calloc(3 * lines + 1, sizeof(iovec))));
    if (list.pieces == nullptr) {
        return list;
    }
    const auto add = [&list](const char* text, size_t length) {
        list.pieces.get()[list.count++] = {const_cast<char*>(text), length};
    };
    const char* name = nullptr;
    const char* value = nullptr;
    for (int32_t i = 0; strm_dict_at(withdrawn, i, &name, nullptr) == 0; ++i) {
        add("-", 1);
        add(name, std::strlen(name));
        add("\n", 1);
    }
    for (int32_t i = 0; strm_dict_at(content, i, &name, &value) == 0; ++i) {
        add(name, std::strlen(name));
        add(value, std::strlen(value));
        add("\n", 1);
    }
    return list;
}

/* Writes what the object has become. 0 or the error number. */
static int32_t write_change(lyr_ppsnode* object, const strm_dict* previous) {
    const dict_owner withdrawn(strm_dict_subtract(previous, object->current));
    if (withdrawn == nullptr) {
        return ENOMEM;
    }
    const piece_list list = gather(withdrawn.get(), object->current);
    if (list.pieces == nullptr) {
        return ENOMEM;
    }
    if (list.count > 0 && pps_writev(object->file, list.pieces.get(), list.count) != 0) {
        return errno;
    }
    return 0;
}

/* Makes a set the object's content and publishes it. */
static int32_t publish(lyr_ppsnode* object, strm_dict* content) {
    const dict_owner previous(object->current);
    object->current = content;
    const int32_t error = write_change(object, previous.get());
    if (error != 0) {
        msglog(2, "Couldn't update a PPS object (%s)", msglog_error_text(error));
    }
    ppschange_raise();
    return error;
}

/* Drops one reference; true when it was the last, and then the directory is free of the object. */
static bool drop_last_reference(lyr_ppsnode* object) VEL_REQUIRES(ppsnode_lock) {
    if (object->refs == 0 || --object->refs > 0) {
        return false;
    }
    ppsnode_release(object->parent);
    return true;
}

int32_t ppswriter_withdraw(lyr_ppsnode* object) noexcept {
    const vel_text path = ppsnode_path(object, nullptr);
    ppsnode_free(object);
    ppschange_raise();
    if (path == nullptr) {
        return ENOMEM;
    }
    if (pps_unlink(path.get()) == 0) {
        return 0;
    }
    const int32_t error = errno;
    msglog(3, "Couldn't unlink %s: %s", path.get(), msglog_error_text(error));
    return error;
}

static lyr_ppswriter* create(lyr_ppsdir* dir, const char* name, int32_t instance, int32_t level,
                             int32_t* error) {
    if (dir == nullptr || dir->kind == ppsnode_kind::object || name == nullptr) {
        return refuse(error, EINVAL);
    }
    lyr_ppsnode* object = ppsnode_new(dir, name, instance, ppsnode_kind::object);
    if (object == nullptr) {
        return refuse(error, ENOMEM);
    }
    if (!link_object(object)) {
        ppsnode_free(object);
        return refuse(error, EEXIST);
    }
    const int32_t failure = open_file(object, level);
    if (failure != 0) {
        unlink_object(object);
        ppsnode_free(object);
        return refuse(error, failure);
    }
    return object;
}

lyr_ppswriter* ppswriter_try_create(lyr_ppsdir* dir, const char* name, int32_t* error) noexcept {
    return create(dir, name, -1, FATAL + 1, error);
}

extern "C" {

lyr_ppswriter* lyr_ppswriter_create(lyr_ppsdir* dir, const char* name, int32_t instance,
                                    int32_t* error) noexcept {
    return create(dir, name, instance, FATAL, error);
}

void lyr_ppswriter_close(lyr_ppswriter* object) noexcept {
    if (object == nullptr) {
        return;
    }
    pps_object* file = nullptr;
    strm_dict* pending = nullptr;
    {
        /* From the last reference on, the directory may be removed with the object in it. */
        vel_lock_guard guard(ppsnode_lock);
        if (drop_last_reference(object)) {
            file = std::exchange(object->file, nullptr);
            pending = std::exchange(object->pending, nullptr);
        }
    }
    pps_close(file);
    strm_dict_destroy(pending);
}

int32_t lyr_ppswriter_remove(lyr_ppswriter* object) noexcept {
    if (object == nullptr) {
        return EINVAL;
    }
    {
        vel_lock_guard guard(ppsnode_lock);
        if (!drop_last_reference(object)) {
            return EBUSY;
        }
        ppsnode_unlink(object);
    }
    return ppswriter_withdraw(object);
}

void lyr_ppswriter_write_attr(lyr_ppswriter* object, const char* name, const char* value) noexcept {
    if (object == nullptr || name == nullptr || object->file == nullptr) {
        return;
    }
    if (!is_attribute(name, value)) {
        refuse_attribute(object, name);
        return;
    }
    if (value != nullptr && is_too_long(value)) {
        msglog(3, "Attribute '%s' of PPS object '%s' is too long, withdrawn", name, object->name);
        value = nullptr; /* rather none than the one of an earlier track */
    }
    if (object->pending == nullptr) {
        object->pending = strm_dict_clone(object->current);
    }
    int32_t result = object->pending == nullptr ? -1 : 0;
    if (result == 0 && value != nullptr) {
        result = strm_dict_set(object->pending, name, value);
    } else if (result == 0) {
        strm_dict_delete(object->pending, name); /* one that is not there is fine */
    }
    if (result != 0) {
        msglog(2, "Couldn't update %s in %s (no memory)", name, object->name);
    }
}

int32_t lyr_ppswriter_flush(lyr_ppswriter* object) noexcept {
    if (object == nullptr || object->pending == nullptr) {
        return 0;
    }
    strm_dict* content = object->pending;
    object->pending = nullptr;
    return publish(object, content);
}

int32_t lyr_ppswriter_write_dict(lyr_ppswriter* object, strm_dict* content) noexcept {
    dict_owner owned(content);
    if (object == nullptr || content == nullptr || object->file == nullptr) {
        return 0;
    }
    const char* name = nullptr;
    const char* value = nullptr;
    for (int32_t i = 0; strm_dict_at(content, i, &name, &value) == 0;) {
        if (is_attribute(name, value) && !is_too_long(value)) {
            ++i;
        } else {
            refuse_attribute(object, name);
            strm_dict_delete(content, name);
        }
    }
    return publish(object, owned.release());
}

const strm_dict* lyr_ppswriter_getall(const lyr_ppswriter* object) noexcept {
    return object == nullptr ? nullptr : object->current;
}
}
