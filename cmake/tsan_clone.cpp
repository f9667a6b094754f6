// Linked into every executable of the thread-sanitizer build, ahead of the sanitizer's runtime.
//
// QProcess starts children with clone(CLONE_VM | CLONE_VFORK): the child runs in the parent's
// memory until it executes the program. The sanitizer's clone wrapper treats every clone as a
// fork, so its child-side bookkeeping (reset clocks, "forked while threads ran") lands in the
// parent's own state: the parent then reports races that cannot happen and dies at its next new
// thread. The sanitizer turns vfork into fork for the same reason; this does likewise for clone,
// so the child is a copy and the wrapper's bookkeeping stays in it.
#include <dlfcn.h>
#include <sched.h>
#include <sys/types.h>

#include <cstdarg>

namespace {

using CloneFunction = int (*)(int (*)(void*), void*, int, void*, pid_t*, void*, pid_t*);

}  // namespace

extern "C" int clone(int (*fn)(void*), void* stack, int flags, void* arg, ...) {
    va_list rest;
    va_start(rest, arg);
    auto* parentTid = va_arg(rest, pid_t*);
    void* tls = va_arg(rest, void*);
    auto* childTid = va_arg(rest, pid_t*);
    va_end(rest);
    // The next definition is the sanitizer's wrapper, which calls the C library's.
    static const auto next = reinterpret_cast<CloneFunction>(dlsym(RTLD_NEXT, "clone"));
    if ((flags & CLONE_VM) != 0 && (flags & CLONE_VFORK) != 0) {
        flags &= ~(CLONE_VM | CLONE_VFORK);
    }
    return next(fn, stack, flags, arg, parentTid, tls, childTid);
}
