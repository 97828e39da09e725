// Gives a test program storage of its own: memory file systems at /mnt/sdcard and
// /mnt/sdcard/tflash in a private mount namespace, gone with the process.
#ifndef TESTS_SUPPORT_STORAGE_NAMESPACE_H
#define TESTS_SUPPORT_STORAGE_NAMESPACE_H

// Runs the program again inside such a namespace and returns its exit status; returns -1 to the
// process that is inside already, and to one that lists tests only. Where the system does not allow
// it, says so and returns 1.
int run_in_storage_namespace(int argc, char **argv);

#endif
