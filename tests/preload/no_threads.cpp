// Preloaded into a program, this makes every start of a thread fail the way
// it does under a process limit (prlimit --nproc), whoever runs the program:
// the superuser is not held to that limit.

#include <pthread.h>

#include <cerrno>

extern "C" int pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; }
