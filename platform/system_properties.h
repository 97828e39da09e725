// The Android system properties.
#ifndef PLATFORM_SYSTEM_PROPERTIES_H
#define PLATFORM_SYSTEM_PROPERTIES_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

#define PROPERTY_VALUE_MAX 92 // with the terminator

// Copies the value of a property, or the default value when it is not set.
// in: default_value: null means the empty text
// out: value: PROPERTY_VALUE_MAX bytes
// returns: the length of the copied text
int property_get(const char *key, char *value, const char *default_value);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif // PLATFORM_SYSTEM_PROPERTIES_H
