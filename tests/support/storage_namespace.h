// Storage of a test program's own: memory file systems at /mnt/sdcard and /mnt/sdcard/tflash in a
// private mount namespace, which ends with the process.
#ifndef TESTS_SUPPORT_STORAGE_NAMESPACE_H
#define TESTS_SUPPORT_STORAGE_NAMESPACE_H

// Continues in a child process inside such a namespace. A program that only lists its tests
// continues without one.
// returns: -1 where the program continues; in the parent, the child's exit status; 1 with a message
//          when the system does not allow namespaces
int run_in_storage_namespace(int argc, char **argv);

#endif // TESTS_SUPPORT_STORAGE_NAMESPACE_H
