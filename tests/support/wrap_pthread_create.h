#ifndef TESTS_SUPPORT_WRAP_PTHREAD_CREATE_H
#define TESTS_SUPPORT_WRAP_PTHREAD_CREATE_H

// The next `count` threads that the component wants to create fail with EAGAIN.
void refuse_threads(int count);

#endif
