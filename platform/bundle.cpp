#include "bundle.h"

#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <vector>

struct keyval_t {
    int type = BUNDLE_TYPE_NONE;
    std::size_t keyOffset = 0;
    // A text or byte value, with a zero byte of its own behind it; `size` is what the caller is told.
    std::string bytes;
    std::size_t size = 0;
    std::vector<std::string> texts;
    std::vector<void*> textPointers;
    std::vector<std::size_t> textSizes;
};

struct _bundle_t {  // NOLINT(bugprone-reserved-identifier): the platform's name
    // All keys, one behind the other with their terminators: their addresses rise in the order of adding.
    std::string keys;
    std::vector<std::unique_ptr<keyval_t>> entries;
};

namespace {

const char* KeyOf(const bundle& b, const keyval_t& entry) { return b.keys.data() + entry.keyOffset; }

int CheckKey(const bundle* b, const char* key) {
    if (b == nullptr || key == nullptr || key[0] == '\0') {
        return BUNDLE_ERROR_INVALID_PARAMETER;
    }
    for (const auto& entry : b->entries) {
        if (std::strcmp(KeyOf(*b, *entry), key) == 0) {
            return BUNDLE_ERROR_KEY_EXISTS;
        }
    }
    return BUNDLE_ERROR_NONE;
}

// Adds an entry that `fill` completes. What may throw comes first, so that a failure leaves the bundle as it
// was.
template <typename Fill>
int Add(bundle* b, const char* key, int type, Fill fill) {
    const int checked = CheckKey(b, key);
    if (checked != BUNDLE_ERROR_NONE) {
        return checked;
    }
    try {
        auto entry = std::make_unique<keyval_t>();
        entry->type = type;
        fill(*entry);
        b->entries.reserve(b->entries.size() + 1);
        entry->keyOffset = b->keys.size();
        b->keys.append(key, std::strlen(key) + 1);
        b->entries.push_back(std::move(entry));
    } catch (const std::exception&) {
        return BUNDLE_ERROR_OUT_OF_MEMORY;
    }
    return BUNDLE_ERROR_NONE;
}

}  // namespace

extern "C" {

bundle* bundle_create(void) {
    try {
        return std::make_unique<bundle>().release();
    } catch (const std::exception&) {
        return nullptr;
    }
}

int bundle_free(bundle* b) {
    const std::unique_ptr<bundle> owned(b);
    return owned ? BUNDLE_ERROR_NONE : BUNDLE_ERROR_INVALID_PARAMETER;
}

int bundle_add_str(bundle* b, const char* key, const char* text) {
    if (text == nullptr) {
        return BUNDLE_ERROR_INVALID_PARAMETER;
    }
    return Add(b, key, BUNDLE_TYPE_STR, [text](keyval_t& entry) {
        entry.bytes = text;
        entry.size = entry.bytes.size() + 1;
    });
}

int bundle_add_byte(bundle* b, const char* key, const void* bytes, const size_t size) {
    if (bytes == nullptr) {
        return BUNDLE_ERROR_INVALID_PARAMETER;
    }
    return Add(b, key, BUNDLE_TYPE_BYTE, [bytes, size](keyval_t& entry) {
        entry.bytes.assign(static_cast<const char*>(bytes), size);
        entry.size = size;
    });
}

int bundle_add_str_array(bundle* b, const char* key, const char** texts, const int length) {
    if (texts == nullptr || length < 0) {
        return BUNDLE_ERROR_INVALID_PARAMETER;
    }
    return Add(b, key, BUNDLE_TYPE_STR_ARRAY, [texts, length](keyval_t& entry) {
        for (int i = 0; i < length; ++i) {
            entry.texts.emplace_back(texts[i] != nullptr ? texts[i] : "");
        }
        for (auto& text : entry.texts) {
            entry.textPointers.push_back(text.data());
            entry.textSizes.push_back(text.size() + 1);
        }
    });
}

int bundle_get_count(bundle* b) { return b != nullptr ? static_cast<int>(b->entries.size()) : 0; }

void bundle_foreach(bundle* b, bundle_iterator_t iterator, void* user_data) {
    if (b == nullptr || iterator == nullptr) {
        return;
    }
    for (const auto& entry : b->entries) {
        iterator(KeyOf(*b, *entry), entry->type, entry.get(), user_data);
    }
}

int bundle_keyval_get_basic_val(bundle_keyval_t* value, void** data, size_t* size) {
    if (value == nullptr || data == nullptr || size == nullptr || value->type == BUNDLE_TYPE_STR_ARRAY) {
        return BUNDLE_ERROR_INVALID_PARAMETER;
    }
    *data = value->bytes.data();
    *size = value->size;
    return BUNDLE_ERROR_NONE;
}

int bundle_keyval_get_array_val(bundle_keyval_t* value, void*** texts, unsigned int* length, size_t** sizes) {
    if (value == nullptr || texts == nullptr || length == nullptr || sizes == nullptr ||
        value->type != BUNDLE_TYPE_STR_ARRAY) {
        return BUNDLE_ERROR_INVALID_PARAMETER;
    }
    *texts = value->textPointers.data();
    *length = static_cast<unsigned int>(value->textPointers.size());
    *sizes = value->textSizes.data();
    return BUNDLE_ERROR_NONE;
}

}  // extern "C"
