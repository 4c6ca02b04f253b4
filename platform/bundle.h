#ifndef VANTRY_PLATFORM_BUNDLE_H
#define VANTRY_PLATFORM_BUNDLE_H

#include <stddef.h>

/* The platform's key-value container, for machines that do not have it. */

#ifdef __cplusplus
extern "C" {
#endif

struct _bundle_t;
struct keyval_t;
typedef struct _bundle_t bundle;
typedef struct keyval_t bundle_keyval_t;
#ifndef __cplusplus
typedef struct keyval_t keyval_t;
#endif

#define VANTRY_PLATFORM_API __attribute__((visibility("default")))

/** Types of a value. */
enum bundle_type_property {
    BUNDLE_TYPE_NONE = -1,
    BUNDLE_TYPE_BYTE = 0x0002,
    BUNDLE_TYPE_STR = 0x0401,
    BUNDLE_TYPE_STR_ARRAY = 0x0501
};

/** Results of the operations. */
enum bundle_error_e {
    BUNDLE_ERROR_NONE = 0,
    BUNDLE_ERROR_OUT_OF_MEMORY = -12,
    BUNDLE_ERROR_KEY_EXISTS = -17,
    BUNDLE_ERROR_INVALID_PARAMETER = -22
};

/** Called for every entry by bundle_foreach(); key and value are borrowed, and valid until the bundle
 * changes. */
typedef void (*bundle_iterator_t)(const char* key, const int type, const bundle_keyval_t* value,
                                  void* user_data);

/** Makes an empty bundle, to be released by bundle_free(). Null when memory runs out. */
VANTRY_PLATFORM_API bundle* bundle_create(void);

/** Releases a bundle; null is accepted. @return 0, or BUNDLE_ERROR_INVALID_PARAMETER for null. */
VANTRY_PLATFORM_API int bundle_free(bundle* b);

/**
 * The three add a copy of a value under a copy of a key.
 *
 * @param key  not empty, not yet in the bundle.
 * @return 0; BUNDLE_ERROR_INVALID_PARAMETER for a null argument, an empty key or a negative length;
 *         BUNDLE_ERROR_KEY_EXISTS; BUNDLE_ERROR_OUT_OF_MEMORY, the bundle then being as before.
 */
VANTRY_PLATFORM_API int bundle_add_str(bundle* b, const char* key, const char* text);
/** `bytes` may hold zeros; a zero byte is put behind them, and `size` does not count it. */
VANTRY_PLATFORM_API int bundle_add_byte(bundle* b, const char* key, const void* bytes, const size_t size);
/** A null text in `texts` is stored as an empty one. */
VANTRY_PLATFORM_API int bundle_add_str_array(bundle* b, const char* key, const char** texts,
                                             const int length);

/** Tells the number of entries; 0 for null. */
VANTRY_PLATFORM_API int bundle_get_count(bundle* b);

/**
 * Calls `iterator` for every entry, in the order in which they were added. The addresses of the keys rise in
 * that same order. The bundle must not be changed meanwhile. Null arguments are accepted: nothing is called.
 */
VANTRY_PLATFORM_API void bundle_foreach(bundle* b, bundle_iterator_t iterator, void* user_data);

/**
 * Gives a text or byte value and its size in bytes (a text's terminator counts), borrowed.
 * @return 0, or BUNDLE_ERROR_INVALID_PARAMETER for a null argument or an array.
 */
VANTRY_PLATFORM_API int bundle_keyval_get_basic_val(bundle_keyval_t* value, void** data, size_t* size);

/**
 * Gives the texts of an array, their number and their sizes with terminators, borrowed.
 * @return 0, or BUNDLE_ERROR_INVALID_PARAMETER for a null argument or another type.
 */
VANTRY_PLATFORM_API int bundle_keyval_get_array_val(bundle_keyval_t* value, void*** texts,
                                                    unsigned int* length, size_t** sizes);

#ifdef __cplusplus
}
#endif

#endif
