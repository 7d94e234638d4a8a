// Lock annotations: clang checks at compile time which lock guards which field; other compilers ignore them.
#pragma once

#if defined(__clang__)
#define PLINTH_ANNOTATION(x) __attribute__((x))
#else
#define PLINTH_ANNOTATION(x)
#endif

// On a class: it is a lock, named so in diagnostics.
#define PLINTH_CAPABILITY(name) PLINTH_ANNOTATION(capability(name))
// On a class: it holds a lock from construction to destruction.
#define PLINTH_SCOPED_CAPABILITY PLINTH_ANNOTATION(scoped_lockable)
// On a field: read or written only while the lock is held.
#define PLINTH_GUARDED_BY(lock) PLINTH_ANNOTATION(guarded_by(lock))
// On a pointer: what it points to is guarded.
#define PLINTH_PT_GUARDED_BY(lock) PLINTH_ANNOTATION(pt_guarded_by(lock))
// On a function: the caller holds the lock, and still holds it afterwards.
#define PLINTH_REQUIRES(...) PLINTH_ANNOTATION(requires_capability(__VA_ARGS__))
#define PLINTH_REQUIRES_SHARED(...) PLINTH_ANNOTATION(requires_shared_capability(__VA_ARGS__))
// On a function: the caller must not hold the lock.
#define PLINTH_EXCLUDES(...) PLINTH_ANNOTATION(locks_excluded(__VA_ARGS__))
// On a function: takes or gives back the lock.
#define PLINTH_ACQUIRE(...) PLINTH_ANNOTATION(acquire_capability(__VA_ARGS__))
#define PLINTH_ACQUIRE_SHARED(...) PLINTH_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define PLINTH_RELEASE(...) PLINTH_ANNOTATION(release_capability(__VA_ARGS__))
#define PLINTH_RELEASE_SHARED(...) PLINTH_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define PLINTH_RELEASE_GENERIC(...) PLINTH_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define PLINTH_TRY_ACQUIRE(...) PLINTH_ANNOTATION(try_acquire_capability(__VA_ARGS__))
// On a function: returns a reference to the lock.
#define PLINTH_RETURN_CAPABILITY(lock) PLINTH_ANNOTATION(lock_returned(lock))
// On a function whose locking the analysis cannot follow; say why beside it.
#define PLINTH_NO_THREAD_SAFETY_ANALYSIS PLINTH_ANNOTATION(no_thread_safety_analysis)
