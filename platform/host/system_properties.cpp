#include "platform/system_properties.h"

#include "platform/host/control_internal.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <pthread.h>

static constexpr size_t kPropertyKeyMax = 32; // with the terminator
static constexpr size_t kPropertyCount = 64;

namespace {

struct property_t {
    char key[kPropertyKeyMax]; // empty: a free entry
    char value[PROPERTY_VALUE_MAX];
};

} // namespace

static pthread_mutex_t lock_properties = PTHREAD_MUTEX_INITIALIZER;
static std::array<property_t, kPropertyCount> properties; // under lock_properties

// Finds the entry of a key; the empty key finds a free entry.
// returns: the entry, or null
static property_t *find_property(const char *key)
{
    for (property_t &property : properties) {
        if (strcmp(property.key, key) == 0) {
            return &property;
        }
    }
    return nullptr;
}

int property_get(const char *key, char *value, const char *default_value)
{
    const bool hidden = host_call_fails(kHostCallPropertyGet) || key[0] == '\0';
    pthread_mutex_lock(&lock_properties);
    const property_t *property = hidden ? nullptr : find_property(key);
    const char *text = property != nullptr        ? property->value
                       : default_value != nullptr ? default_value
                                                  : "";
    const size_t length = strnlen(text, PROPERTY_VALUE_MAX - 1);
    memcpy(value, text, length);
    value[length] = '\0';
    pthread_mutex_unlock(&lock_properties);
    return static_cast<int>(length);
}

void host_set_property(const char *key, const char *value)
{
    if (key[0] == '\0' || strlen(key) >= kPropertyKeyMax) {
        return;
    }
    pthread_mutex_lock(&lock_properties);
    property_t *property = find_property(key);
    if (value == nullptr) {
        if (property != nullptr) {
            *property = {};
        }
    } else if (property != nullptr || (property = find_property("")) != nullptr) {
        snprintf(property->key, sizeof(property->key), "%s", key);
        snprintf(property->value, sizeof(property->value), "%s", value);
    }
    pthread_mutex_unlock(&lock_properties);
}

void host_reset_properties(void)
{
    pthread_mutex_lock(&lock_properties);
    properties = {};
    pthread_mutex_unlock(&lock_properties);
}
