// The Android system properties.
#ifndef PLATFORM_SYSTEM_PROPERTIES_H
#define PLATFORM_SYSTEM_PROPERTIES_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

#define PROPERTY_VALUE_MAX 92 // with the terminator

// Copies the value of a property, or the default (null: none) when it is not set, into
// value[PROPERTY_VALUE_MAX]. returns the length of what was copied.
int property_get(const char *key, char *value, const char *default_);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif // PLATFORM_SYSTEM_PROPERTIES_H
