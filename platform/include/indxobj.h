/* Sorted index containers. */
#ifndef PLATFORM_INDXOBJ_H
#define PLATFORM_INDXOBJ_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct indxobj indxobj_t;

/* Orders two keys: negative, zero or positive. Must accept null arguments. */
typedef int (*indxobj_cmp_t)(const void *a, const void *b);

#define INDXOBJ_CREATED 2

/*
 * Creates an empty container in *obj ordered by `cmp`. `kind` selects the container kind
 * (0: sorted), `unique` refuses duplicate keys, `owns` makes destroy free() the elements.
 * Returns INDXOBJ_CREATED (2) on success; *obj is null on failure.
 */
int indxobj_create(indxobj_t **obj, int kind, int unique, indxobj_cmp_t cmp, int owns);

/* Adds `element` under `key` (often the same pointer). 0 on success, -1 on refusal. */
int indxobj_add(indxobj_t *obj, void *key, void *element);

/* The element whose key compares equal to `key`, or null. */
void *indxobj_find(indxobj_t *obj, const void *key);

/* Takes the element with that key out and returns it (the caller frees it), or null. */
void *indxobj_remove(indxobj_t *obj, const void *key);

/* Frees the container, and its elements when it owns them. Null is accepted. */
void indxobj_destroy(indxobj_t *obj);

#ifdef __cplusplus
}
#endif

#endif
