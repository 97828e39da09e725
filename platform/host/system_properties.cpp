#include "platform/system_properties.h"

#include "platform/host/control_internal.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <pthread.h>

#define PROPERTY_KEY_MAX 32 // with the terminator
#define PROPERTY_COUNT 64

struct property_t {
    char szKey[PROPERTY_KEY_MAX]; // empty: a free entry
    char szValue[PROPERTY_VALUE_MAX];
};

static pthread_mutex_t lock_properties = PTHREAD_MUTEX_INITIALIZER;
static std::array<property_t, PROPERTY_COUNT> properties; // under lock_properties

// Finds the entry of a key, or a free one for the empty key. returns null when there is none.
static property_t *find_property(const char *key)
{
    for (property_t &property : properties) {
        if (strcmp(property.szKey, key) == 0) {
            return &property;
        }
    }
    return nullptr;
}

int property_get(const char *key, char *value, const char *default_)
{
    const bool hidden = host_call_fails(HOST_CALL_PROPERTY_GET) || key[0] == '\0';
    pthread_mutex_lock(&lock_properties);
    const property_t *property = hidden ? nullptr : find_property(key);
    const char *text = property != nullptr   ? property->szValue
                       : default_ != nullptr ? default_
                                             : "";
    const size_t length = strnlen(text, PROPERTY_VALUE_MAX - 1);
    memcpy(value, text, length);
    value[length] = '\0';
    pthread_mutex_unlock(&lock_properties);
    return static_cast<int>(length);
}

void host_set_property(const char *key, const char *value)
{
    if (key[0] == '\0' || strlen(key) >= PROPERTY_KEY_MAX) {
        return;
    }
    pthread_mutex_lock(&lock_properties);
    property_t *property = find_property(key);
    if (value == nullptr) {
        if (property != nullptr) {
            *property = {};
        }
    } else if (property != nullptr || (property = find_property("")) != nullptr) {
        snprintf(property->szKey, sizeof(property->szKey), "%s", key);
        snprintf(property->szValue, sizeof(property->szValue), "%s", value);
    }
    pthread_mutex_unlock(&lock_properties);
}

void host_reset_properties(void)
{
    pthread_mutex_lock(&lock_properties);
    properties = {};
    pthread_mutex_unlock(&lock_properties);
}
