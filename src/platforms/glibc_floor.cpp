// Lets a library built on a current Linux load on an old one.
//
// Since 2.34 glibc keeps the thread and loader functions in libc itself and names them anew for that version;
// a library linked there would ask each host for it, though the functions themselves are as old as 2.2.5 and
// still answer to their old names everywhere. The linker sends each call here (--wrap), and from here it goes
// to the old name. On an old host that name lives in libpthread or libdl, which every JVM has loaded. The
// same holds for the functions that describe a file since 2.33. src/CMakeLists.txt names the calls that are
// sent here.
#include <dlfcn.h>
#include <pthread.h>
#include <sys/stat.h>

#define OLD_NAME(name) __asm__(".symver qor_old_" #name "," #name "@GLIBC_2.2.5")

extern "C" {

#define FORWARD(result, name, parameters, arguments)                                                         \
    result qor_old_##name parameters;                                                                        \
    OLD_NAME(name);                                                                                          \
    __attribute__((used)) result __wrap_##name parameters {                                                  \
        return qor_old_##name arguments;                                                                     \
    }

FORWARD(int, pthread_create,
        (pthread_t * thread, const pthread_attr_t *attributes, void *(*body)(void *), void *argument),
        (thread, attributes, body, argument))
FORWARD(int, pthread_join, (pthread_t thread, void **result), (thread, result))
FORWARD(int, pthread_attr_setstacksize, (pthread_attr_t * attributes, size_t size), (attributes, size))
FORWARD(int, pthread_mutex_trylock, (pthread_mutex_t * mutex), (mutex))
FORWARD(void *, dlopen, (const char *file, int mode), (file, mode))
FORWARD(void *, dlsym, (void *handle, const char *name), (handle, name))
FORWARD(int, dlclose, (void *handle), (handle))
FORWARD(char *, dlerror, (), ())
FORWARD(int, dladdr, (const void *address, Dl_info *info), (address, info))

// These took the version of the structure before they had a name of their own.
enum { STAT_VERSION = 1 };
int qor_old_lstat(int version, const char *path, struct stat *out);
__asm__(".symver qor_old_lstat,__lxstat@GLIBC_2.2.5");
__attribute__((used)) int __wrap_lstat(const char *path, struct stat *out) {
    return qor_old_lstat(STAT_VERSION, path, out);
}
int qor_old_fstat(int version, int fd, struct stat *out);
__asm__(".symver qor_old_fstat,__fxstat@GLIBC_2.2.5");
__attribute__((used)) int __wrap_fstat(int fd, struct stat *out) {
    return qor_old_fstat(STAT_VERSION, fd, out);
}

} // extern "C"
