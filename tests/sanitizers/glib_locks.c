/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Tells ThreadSanitizer of GLib's locks, which are built into no instrumented library: loaded before the
 * program, beside a plug-in and a library that are instrumented.
 *
 *   gcc -shared -fPIC -fsanitize=thread tests/sanitizers/glib_locks.c -o glib_locks.so \
 *     $(pkg-config --cflags glib-2.0)
 *   LD_PRELOAD="$(gcc -print-file-name=libtsan.so) ./glib_locks.so" ...
 */

#define _GNU_SOURCE
#include <dlfcn.h>
#include <glib.h>

void __tsan_acquire(void* address);
void __tsan_release(void* address);

#define REAL(name)                      \
    static __typeof__(name)* real;      \
    if (!real) real = (__typeof__(name)*)(gsize)dlsym(RTLD_NEXT, #name)

void g_mutex_lock(GMutex* mutex) {
    REAL(g_mutex_lock);
    real(mutex);
    __tsan_acquire(mutex);
}

gboolean g_mutex_trylock(GMutex* mutex) {
    REAL(g_mutex_trylock);
    const gboolean got = real(mutex);
    if (got) __tsan_acquire(mutex);
    return got;
}

void g_mutex_unlock(GMutex* mutex) {
    REAL(g_mutex_unlock);
    __tsan_release(mutex);
    real(mutex);
}

void g_cond_wait(GCond* cond, GMutex* mutex) {
    REAL(g_cond_wait);
    __tsan_release(mutex);
    real(cond, mutex);
    __tsan_acquire(mutex);
}

gboolean g_cond_wait_until(GCond* cond, GMutex* mutex, gint64 end) {
    REAL(g_cond_wait_until);
    __tsan_release(mutex);
    const gboolean result = real(cond, mutex, end);
    __tsan_acquire(mutex);
    return result;
}

void g_rec_mutex_lock(GRecMutex* mutex) {
    REAL(g_rec_mutex_lock);
    real(mutex);
    __tsan_acquire(mutex);
}

gboolean g_rec_mutex_trylock(GRecMutex* mutex) {
    REAL(g_rec_mutex_trylock);
    const gboolean got = real(mutex);
    if (got) __tsan_acquire(mutex);
    return got;
}

void g_rec_mutex_unlock(GRecMutex* mutex) {
    REAL(g_rec_mutex_unlock);
    __tsan_release(mutex);
    real(mutex);
}
