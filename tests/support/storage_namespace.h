// Gives a test program storage of its own: memory file systems at /mnt/sdcard and
// /mnt/sdcard/tflash in a private mount namespace, gone with the process.
#ifndef TESTS_SUPPORT_STORAGE_NAMESPACE_H
#define TESTS_SUPPORT_STORAGE_NAMESPACE_H

// Goes on in a child process inside such a namespace, where it returns -1; its parent waits and
// returns the child's exit status. A program that lists tests only goes on as it is, with -1. Where
// the system does not allow namespaces, says so and returns 1.
int run_in_storage_namespace(int argc, char **argv);

#endif // TESTS_SUPPORT_STORAGE_NAMESPACE_H
