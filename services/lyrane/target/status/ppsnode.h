/* The nodes of the tree of published objects, and its one lock. Private to this folder.
 *
 * The tree lock guards the links, the use counts and the references of all nodes together, and is
 * held for that alone: no file is touched and nothing is logged inside it. Names, instance, kind
 * and parent are constant once a node is linked, and a parent outlives its children, so paths are
 * built without the lock. The attribute sets of an object belong to whoever writes it. */
#ifndef LYRANE_PPSNODE_H
#define LYRANE_PPSNODE_H

#include <cstdint>
#include <memory>

#include <lyrane/plugin.h>
#include <veloran/lock.h>

struct pps_object;

enum class ppsnode_kind : int32_t {
    existing = 0, /* a directory that was there before: stays when the service leaves */
    created = 1,  /* a directory of the service's own */
    object = 2,
};

extern vel_mutex ppsnode_lock; /* the tree lock */

/* One allocation, with the name behind it. */
struct lyr_ppsnode {
    lyr_ppsnode* next VEL_GUARDED_BY(ppsnode_lock);
    lyr_ppsnode** prev_link VEL_GUARDED_BY(ppsnode_lock); /* what points here; null for a root */
    lyr_ppsnode* parent;                                  /* null for a root */
    const char* name;                                     /* a root's is its whole path */
    int32_t instance;                                     /* -1: none */
    ppsnode_kind kind;

    /* Of directories. */
    lyr_ppsnode* first_child VEL_GUARDED_BY(ppsnode_lock); /* newest first */
    int32_t use_count VEL_GUARDED_BY(ppsnode_lock);        /* children that are in use themselves */

    /* Of objects. */
    int32_t refs VEL_GUARDED_BY(ppsnode_lock);
    strm_dict* current; /* owned; last written */
    strm_dict* pending; /* owned; set since the last flush, or null */
    pps_object* file;   /* owned; null once the last reference has gone */
};

/* A node that nothing links to yet, or null without memory. */
lyr_ppsnode* ppsnode_new(lyr_ppsnode* parent, const char* name, int32_t instance,
                         ppsnode_kind kind) noexcept;
/* Frees a node that nothing links to, with its attribute sets and its open object. */
void ppsnode_free(lyr_ppsnode* node) noexcept;

/* The node's path in memory of its own, with "?option" behind it when that is not null; null
 * without memory. */
vel_text ppsnode_path(const lyr_ppsnode* node, const char* option) noexcept;
/* The length of that path, and the path written so that its NUL stands at `end`. */
size_t ppsnode_path_length(const lyr_ppsnode* node, const char* option) noexcept;
void ppsnode_write_path(const lyr_ppsnode* node, const char* option, char* end) noexcept;

/* Puts a node first among its parent's children. */
void ppsnode_link(lyr_ppsnode* node) noexcept VEL_REQUIRES(ppsnode_lock);
/* Takes a node out of its parent's children; one that is not linked stays as it is. */
void ppsnode_unlink(lyr_ppsnode* node) noexcept VEL_REQUIRES(ppsnode_lock);
/* Counts a child of `dir` as in use, or no longer, up the tree as far as that changes anything. */
void ppsnode_use(lyr_ppsnode* dir) noexcept VEL_REQUIRES(ppsnode_lock);
void ppsnode_release(lyr_ppsnode* dir) noexcept VEL_REQUIRES(ppsnode_lock);

/* Takes an object that nothing links to any more out of the name space and frees it. 0, or the
 * error number of the unlink, which is logged. */
int32_t ppswriter_withdraw(lyr_ppsnode* object) noexcept;

#endif
